#include "ctl/rules.h"

#include "ctl/file_server.h"
#include "ctl/terminal.h"

#include <pwd.h>
#include <stdlib.h>
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

// Who has no password there cannot enter whatever is set; that may still come.
static void tell_without_password(const SettingRow& row, const char* uids)
{
    FileBytes lines;
    const FileServer* found = file_server_find();
    const FileServer& server = found != nullptr ? *found : file_servers[0];
    if (!file_server_read_users(server, &lines))
        return;
    for (const char* at = uids; *at != '\0'; at++) {
        char* end = nullptr;
        const passwd* user = getpwuid(static_cast<uid_t>(strtoull(at, &end, 10)));
        if (user != nullptr && !file_server_has_user(lines.bytes.get(), user->pw_name))
            complain("note: %s: %s has no %s password; %s %s", row.word, user->pw_name, server.name,
                     server.add_user, user->pw_name);
        at = end;
    }
}

int rules_parse(const View& view, const char* identity, const SettingRow& row, const char* text,
                char (&value)[setting_value_size])
{
    char fault[setting_fault_size];
    const int result = setting_parse(row, text, value, fault);
    if (fault[0] != '\0')
        complain("%s%s: %.512s", result == 0 ? "note: " : "", row.word, fault);
    const bool allowed = row.kind == SETTING_USERS && (row.users == &ConfDev::fullaccessusers ||
                                                       row.users == &ConfDev::readonlyusers);
    if (result == 0 && allowed && value[0] != '\0')
        tell_without_password(row, value);
    if (result != 0 || !is_share_name(row) || value[0] == '\0')
        return result;
    const Item* namesake = rules_find_namesake(view, identity, value);
    if (namesake == nullptr)
        return 0;
    complain("%s: another share has that name, of %.200s; of two with one name only one is shared",
             row.word, item_name(*namesake));
    return -1;
}
