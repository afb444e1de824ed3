#include "ctl/rules.h"

#include "ctl/terminal.h"

#include <string.h>
#include <strings.h>

const Item* rules_find_namesake(const View& view, const char* identity, const char* name)
{
    for (size_t i = 0; i < view.count; i++) {
        const Item& item = view.items[i];
        const char* share = item.share;
        if (share == nullptr && item.settings != nullptr)
            share = item.settings->sharename;
        const bool same = item.identity != nullptr && strcmp(item.identity, identity) == 0;
        if (!same && share != nullptr && strcasecmp(share, name) == 0)
            return &item;
    }
    return nullptr;
}

int rules_parse(const View& view, const char* identity, const SettingRow& row, const char* text,
                char (&value)[setting_value_size])
{
    char fault[setting_fault_size];
    const int result = setting_parse(row, text, value, fault);
    if (fault[0] != '\0') {
        fprintf(stderr, "vyhotplugctl: %s%s: ", result == 0 ? "note: " : "", row.word);
        (void)text_show(stderr, fault, setting_fault_size);
        (void)fputc('\n', stderr);
    }
    if (result != 0 || row.text != &ConfDev::sharename || value[0] == '\0')
        return result;
    const Item* namesake = rules_find_namesake(view, identity, value);
    if (namesake == nullptr)
        return 0;
    fprintf(stderr, "vyhotplugctl: %s: another share has that name, of ", row.word);
    (void)text_show(stderr, item_name(*namesake), 200);
    (void)fputs("; of two with one name only one is shared\n", stderr);
    return -1;
}
