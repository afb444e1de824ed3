#include "ksmbd/ksmbd_text.h"

#include "common/text.h"
#include "lib/str.h"
#include "share/path_fault.h"
#include "share/share_lines.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>

// ---- what ksmbd.conf can hold ----

bool ksmbd_user_fits(const char* name)
{
    if (name[0] == '\0' || strlen(name) >= user_name_size || strchr("@+&-", name[0]) != nullptr)
        return false;
    char copy[user_name_size];
    (void)str_cpy(copy, name);
    return text_clean(copy, " ,;#:=[]\"'%\\*?") == 0;
}

static bool holds_comment(const char* path) // the rest of the line would be one
{
    return strpbrk(path, ";#") != nullptr;
}

static bool ends_in_blank(const char* path)
{
    return path[strlen(path) - 1] == ' ';
}

static constexpr PathFault path_faults[] = {
    {holds_comment, "a semicolon or a hash"},
    {ends_in_blank, "a blank at its end"},
};

const char* ksmbd_path_fault(const char* path)
{
    return path_fault_find(path, path_faults, sizeof path_faults / sizeof path_faults[0]);
}

namespace {

struct CharacterRange {
    uint32_t first;
    uint32_t last;
};

// Latin, Greek, Cyrillic, Japanese, Chinese and Korean, without what has a compatible form, is two
// letters in another case, or joins the character before it.
constexpr CharacterRange plain_characters[] = {
    {0x20, 0x7e},     {0xc0, 0xd6},     {0xd8, 0xde},     {0xe0, 0xf6},     {0xf8, 0x12f},
    {0x134, 0x137},   {0x139, 0x13e},   {0x141, 0x148},   {0x14a, 0x17e},   {0x388, 0x38a},
    {0x38c, 0x38c},   {0x38e, 0x38f},   {0x391, 0x3a1},   {0x3a3, 0x3ab},   {0x3ac, 0x3af},
    {0x3b1, 0x3ce},   {0x400, 0x45f},   {0x490, 0x491},   {0x3041, 0x3096}, {0x30a1, 0x30fa},
    {0x30fc, 0x30fc}, {0x4e00, 0x9fa5}, {0xac00, 0xd7a3},
};

} // namespace

bool ksmbd_character_fits(uint32_t character)
{
    for (const CharacterRange& range : plain_characters) {
        if (character >= range.first && character <= range.last)
            return true;
    }
    return false;
}

// Replaces what would begin a comment of the file's own.
static void fit_comment(char* comment)
{
    (void)text_clean(comment, ";#");
}

// ---- a section ----

// Returns what ksmbd cannot do as it is meant; null when the share can be exported.
static const char* find_obstacle(const Rights* rights, const RightsSettings* settings)
{
    if (rights_hide_from_any(rights))
        return "hide it from some";
    const Member* guest = rights_find(rights, settings->guest);
    if (rights->guests && !rights->readonly && guest != nullptr && member_reads_only(guest))
        return "let guests only read it";
    return nullptr;
}

int ksmbd_text_share(TextBuffer* text, const ExportedShare* exported, const Rights* rights,
                     const RightsSettings* settings, Notes* notes)
{
    const Share* share = exported->share;
    const char* obstacle = find_obstacle(rights, settings);
    if (obstacle != nullptr) {
        notes_add(notes, LOG_WARNING, "share %s is withheld: ksmbd cannot %s", share->name,
                  obstacle);
        return 0;
    }
    if (share->sync)
        notes_add(notes, LOG_NOTICE, "share %s: ksmbd has no Sync, clients decide", share->name);
    if (share_lines_begin(text, exported, fit_comment) != 0)
        return -ENOMEM;
    share_line_switch(text, "read only", rights->readonly);
    share_line_switch(text, "guest ok", rights->guests);
    share_line_switch(text, "browseable", true);
    share_lines_access(text, rights, settings);
    share_lines_forced(text, settings);
    return 0;
}
