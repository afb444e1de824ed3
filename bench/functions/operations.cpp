#include "functions/operations.h"

#include "config/getopt.h"
#include "config/ini.h"
#include "core/message.h"
#include "functions/device_sections.h"

#include <stdio.h>
#include <stdlib.h>

static constexpr size_t small_sections = 8;
static constexpr size_t big_bytes = 10000000;

// ---- inputs ----

static Input file_input(const std::string& name, size_t sections)
{
    Input input = {};
    input.path = "/tmp/bench." + name + ".conf";
    input.section = section_identity(sections / 2);
    input.key = "Comment";
    input.size = write_device_file(input.path, sections);
    return input;
}

Input make_input(const std::string& name)
{
    if (name == "small")
        return file_input(name, small_sections);
    if (name == "big")
        return file_input(name, sections_for(big_bytes));
    if (name != "message") {
        fprintf(stderr, "no input %s\n", name.c_str());
        exit(1);
    }
    Input input = {};
    input.text = "ACTION=add,MAJOR=8,MINOR=1,DEVTYPE=partition,RANGE=16,VID=1234,PID=00ab,"
                 "SID=SERIAL000001,VNAME=Acme,PNAME=FlashKey,SPEED=480,USBPORT=1-1.2,RM=1,RO=0";
    input.size = input.text.size();
    return input;
}

// ---- INI-style files ----

static size_t ini_one(const Input& input)
{
    IniValueGuard value;
    return config_get_ini_string(input.path.c_str(), input.section.c_str(), input.key.c_str(),
                                 value.out(), INI_LAST) == 0
               ? 1
               : 0;
}

// The keys of a section as the service asks for them, one after the other.
static constexpr const char* section_keys[] = {
    "sharename",  "comment",         "readonly",      "guestaccess", "guesthide",
    "blockusers", "fullaccessusers", "readonlyusers", "hideusers",
};

static size_t ini_all(const Input& input)
{
    IniDocGuard doc;
    SectionListGuard sections;
    if (ini_doc_load(input.path.c_str(), doc.out()) != 0 ||
        ini_doc_get_section_list(doc.get(), sections.out()) != 0)
        return 0;
    size_t found = 0;
    for (vylist_node* node = sections->next; node != vylist_end(sections.get());
         node = node->next) {
        IniSectionGuard section;
        if (ini_section_open(doc.get(), static_cast<const char*>(node->data), section.out()) != 0)
            continue;
        for (const char* key : section_keys) {
            IniValueGuard value;
            if (ini_section_get_string(section.get(), key, value.out(), INI_LAST) == 0)
                found++;
        }
    }
    return found;
}

// ---- option maps ----

static constexpr vyopt_option message_names[] = {
    {'a', VYOPT_ARG, "ACTION"},  {'j', VYOPT_ARG, "MAJOR"},   {'n', VYOPT_ARG, "MINOR"},
    {'t', VYOPT_ARG, "DEVTYPE"}, {'u', VYOPT_ARG, "USBPORT"}, {'r', VYOPT_ARG, "RANGE"},
    {'m', VYOPT_ARG, "RM"},      {'o', VYOPT_ARG, "RO"},      {'V', VYOPT_ARG, "VNAME"},
    {'P', VYOPT_ARG, "PNAME"},   {'S', VYOPT_ARG, "SPEED"},   {'v', VYOPT_ARG, "VID"},
    {'p', VYOPT_ARG, "PID"},     {'s', VYOPT_ARG, "SID"},     {0, 0, nullptr},
};

static size_t options(const Input& input)
{
    const OptionMapGuard map(vyopt_create_opmap(input.text.c_str()));
    int32_t index = 0;
    const char* value = nullptr;
    int code = 0;
    size_t found = 0;
    while ((code = vy_getopt(&index, map.get(), message_names, &value)) != 0) {
        if (code != VYOPT_UNKNOWN && value != nullptr)
            found++;
    }
    return found;
}

// A whole message, its values taken over: more than the option map, so it has a group of its own.
static size_t message(const Input& input)
{
    ControlMessage parsed;
    const int result = message_parse(input.text.c_str(), &parsed);
    message_clear(&parsed);
    return result == 0 ? 1 : 0;
}

void add_service_operations(std::vector<Operation>* operations)
{
    operations->push_back({"ini_one", "vyhotplugd", ini_one});
    operations->push_back({"ini_all", "vyhotplugd", ini_all});
    operations->push_back({"options", "vyhotplugd", options});
    operations->push_back({"message", "vyhotplugd", message});
}

std::vector<Operation> all_operations()
{
    std::vector<Operation> operations;
    add_service_operations(&operations);
    add_ini_library_operations(&operations);
    add_splitter_operations(&operations);
    return operations;
}
