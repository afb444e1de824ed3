#include "samba/include_text.h"

#include "common/text.h"
#include "lib/str.h"
#include "samba/macs.h"
#include "share/path_fault.h"
#include "share/share_lines.h"

#include <errno.h>
#include <string.h>

// ---- what smb.conf can hold ----

bool include_user_fits(const char* name)
{
    if (name[0] == '\0' || strlen(name) >= user_name_size || strchr("@+&-", name[0]) != nullptr)
        return false;
    char copy[user_name_size];
    (void)str_cpy(copy, name);
    return text_clean(copy, " ,;\"'%\\*?") == 0;
}

static bool holds_percent(const char* path) // starts a variable
{
    return strchr(path, '%') != nullptr;
}

static bool holds_quote(const char* path) // Samba drops one at an end
{
    return strchr(path, '"') != nullptr;
}

static bool holds_two_blanks(const char* path) // Samba makes one of them
{
    return strstr(path, "  ") != nullptr;
}

static bool ends_badly(const char* path) // Samba joins the next line, or drops the blank
{
    const char last = path[strlen(path) - 1];
    return last == '\\' || last == ' ';
}

static constexpr PathFault path_faults[] = {
    {holds_percent, "a percent sign"},
    {holds_quote, "a quotation mark"},
    {holds_two_blanks, "two blanks side by side"},
    {ends_badly, "a backslash or a blank at its end"},
};

const char* include_path_fault(const char* path)
{
    return path_fault_find(path, path_faults, sizeof path_faults / sizeof path_faults[0]);
}

// Replaces what smb.conf cannot hold in a comment.
static void fit_comment(char* comment)
{
    (void)text_clean(comment, "");
    for (char* at = comment; *at != '\0'; at++) {
        if (*at == '"') // Samba drops one at an end
            *at = '\'';
        if (*at == '%' && at[1] != ' ' && at[1] != '\0') // starts a variable
            *at = '_';
    }
    const size_t length = strlen(comment);
    if (length > 0 && comment[length - 1] == '\\') // Samba would join the next line
        comment[length - 1] = '_';
}

// ---- lines ----

static void write_access(TextBuffer* text, const Rights* rights, const RightsSettings* settings)
{
    share_line_switch(text, "read only", rights->readonly);
    share_line_switch(text, "guest ok", rights->guests);
    share_line_switch(text, "guest only", false);
    share_line_switch(text, "wide links", false);
    text_buffer_add(text, "\tadmin users =\n\twrite list =\n");
    share_lines_access(text, rights, settings);
    if (rights_hide_from_any(rights))
        share_line_switch(text, "access based share enum", true);
    share_lines_forced(text, settings);
}

int include_text_share(TextBuffer* text, const ExportedShare* exported, const Rights* rights,
                       const RightsSettings* settings, Notes* notes)
{
    if (share_lines_begin(text, exported, fit_comment) != 0)
        return -ENOMEM;
    const Share* share = exported->share;
    share_line_switch(text, "strict sync", share->sync);
    share_line_switch(text, "sync always", share->sync);
    write_access(text, rights, settings);
    macs_write(text, exported, rights, settings->own, notes);
    return 0;
}
