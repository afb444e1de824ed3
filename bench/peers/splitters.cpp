// Two other ways to take a message apart: getsubopt(3), and a loop written for the purpose.
#include "functions/operations.h"

#include <stdlib.h>
#include <string.h>

static const char* const names[] = {
    "ACTION", "MAJOR", "MINOR", "DEVTYPE", "USBPORT", "RANGE", "RM",
    "RO",     "VNAME", "PNAME", "SPEED",   "VID",     "PID",   "SID",
};
static constexpr size_t name_count = sizeof names / sizeof names[0];
static constexpr size_t message_size = 512;

// getsubopt(3) wants a text that it may write to.
static size_t with_getsubopt(const Input& input)
{
    char text[message_size];
    memcpy(text, input.text.c_str(), input.text.size() + 1);
    char* tokens[name_count + 1];
    for (size_t at = 0; at < name_count; at++)
        tokens[at] = const_cast<char*>(names[at]);
    tokens[name_count] = nullptr;
    const char* values[name_count] = {};
    char* rest = text;
    size_t found = 0;
    while (*rest != '\0') {
        char* value = nullptr;
        const int at = getsubopt(&rest, tokens, &value);
        if (at < 0 || value == nullptr)
            continue;
        values[at] = value;
        found++;
    }
    return values[0] != nullptr ? found : 0;
}

static size_t find_name(const char* name)
{
    for (size_t at = 0; at < name_count; at++) {
        if (strcmp(names[at], name) == 0)
            return at;
    }
    return name_count;
}

// Splits a copy of the text in place; values point into it.
static size_t by_hand(const Input& input)
{
    char text[message_size];
    memcpy(text, input.text.c_str(), input.text.size() + 1);
    const char* values[name_count] = {};
    size_t found = 0;
    char* item = text;
    while (item != nullptr) {
        char* next = strchr(item, ',');
        if (next != nullptr)
            *next++ = '\0';
        char* equals = strchr(item, '=');
        if (equals != nullptr) {
            *equals = '\0';
            const size_t at = find_name(item);
            if (at < name_count) {
                values[at] = equals + 1;
                found++;
            }
        }
        item = next;
    }
    return values[0] != nullptr ? found : 0;
}

void add_splitter_operations(std::vector<Operation>* operations)
{
    operations->push_back({"options", "getsubopt", with_getsubopt});
    operations->push_back({"options", "by_hand", by_hand});
}
