#include "common/settings_check.h"

#include "common/ini_lines.h"
#include "common/text.h"
#include "config/getopt.h"
#include "config/ini.h"
#include "lib/str.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>

namespace {

enum class SettingKind : uint8_t { text, path, on_off, word, users };

struct WordList {
    const char* const* words;
    size_t count;
    const char* list;  // as it is told
    const char* taken; // in the place of a word that is wrong
};

struct SettingRule {
    const char* key;
    SettingKind kind;
    const WordList* words; // null for kinds without
};

struct Check {
    UserLookup lookup;
    FindingReport report;
    void* context;
    int found;
    char section[ini_key_size];
};

constexpr const char* switch_words[] = {"enable", "disable"};
constexpr const char* admin_words[] = {"hide", "block", "readonly", "ro"};
constexpr const char* fs_words[] = {"deffs", "fat", "vfat", "ntfs", "ext2", "ext3", "ext4"};

constexpr WordList switch_list = {switch_words, 2, "enable, disable", "disable"};
constexpr WordList admin_list = {admin_words, 4, "hide, block, readonly", "full access"};
constexpr WordList fs_list = {fs_words, 7, "deffs, fat, ntfs, ext2, ext3, ext4", "deffs"};

constexpr SettingRule rules[] = {
    {"sharename", SettingKind::text, nullptr},
    {"path", SettingKind::path, nullptr},
    {"comment", SettingKind::text, nullptr},
    {"filesystem", SettingKind::word, &fs_list},
    {"sync", SettingKind::on_off, &switch_list},
    {"readonly", SettingKind::on_off, &switch_list},
    {"guestaccess", SettingKind::on_off, &switch_list},
    {"guesthide", SettingKind::on_off, &switch_list},
    {"administrator", SettingKind::word, &admin_list},
    {"fullaccessusers", SettingKind::users, nullptr},
    {"readonlyusers", SettingKind::users, nullptr},
    {"blockusers", SettingKind::users, nullptr},
    {"hideusers", SettingKind::users, nullptr},
};
constexpr size_t rule_count = sizeof rules / sizeof rules[0];

} // namespace

static const SettingRule* find_rule(const char* key)
{
    for (const SettingRule& rule : rules) {
        if (strcasecmp(rule.key, key) == 0)
            return &rule;
    }
    return nullptr;
}

static void tell(Check* check, const IniLine& line, FindingKind kind, const char* word,
                 const char* right, const char* accepted, const char* taken)
{
    check->found++;
    check->report(check->context, {.line = line.number,
                                   .section = check->section,
                                   .kind = kind,
                                   .key = line.key,
                                   .word = word,
                                   .right = right,
                                   .accepted = accepted,
                                   .taken = taken});
}

// ---- user ids ----

static bool is_digits(const char* text)
{
    return text[0] != '\0' && text[strspn(text, "0123456789")] == '\0';
}

// What the service reads of a word that is no number: the digits at its end.
static const char* digits_at_end(const char* word)
{
    const char* at = word + strlen(word);
    while (at != word && at[-1] >= '0' && at[-1] <= '9')
        at--;
    return *at != '\0' ? at : nullptr;
}

static void check_user(Check* check, const IniLine& line, char* item)
{
    item += strspn(item, " \t");
    int32_t number = 0;
    const char* taken = digits_at_end(item);
    const bool whole = taken == item;
    if (taken != nullptr && str_to_long(taken, &number, 10) != 0)
        taken = nullptr;
    text_trim(item); // at its end only, and no digit stood there then
    if (item[0] == '\0' || (whole && taken != nullptr))
        return;
    if (whole)
        return tell(check, line, FINDING_OUT_OF_RANGE, item, nullptr, "0 to 2147483647", nullptr);
    char right[finding_text_size] = "";
    uint32_t id = 0;
    if (is_digits(item))
        (void)snprintf(right, sizeof right, "%s without a blank behind it", item);
    else if (check->lookup != nullptr && check->lookup(item, &id))
        (void)snprintf(right, sizeof right, "%u for %s", id, item);
    tell(check, line, FINDING_NO_USER_ID, item, right[0] != '\0' ? right : nullptr, nullptr, taken);
}

static void check_users(Check* check, const IniLine& line)
{
    char item[VYOPT_ITEM_SIZE];
    const char* position = line.value;
    while ((position = vyopt_get_section(position, item, sizeof item)) != nullptr)
        check_user(check, line, item);
}

// ---- lines ----

static void check_word(Check* check, const IniLine& line, const SettingRule& rule)
{
    const WordList& list = *rule.words;
    for (size_t at = 0; at < list.count; at++) {
        if (line.value[0] == '\0' || strcasecmp(list.words[at], line.value) == 0)
            return;
    }
    tell(check, line, FINDING_UNKNOWN_WORD, line.value,
         finding_nearest(line.value, list.words, list.count), list.list, list.taken);
}

static void check_value(Check* check, const IniLine& line, const SettingRule& rule)
{
    switch (rule.kind) {
    case SettingKind::text:
        return;
    case SettingKind::path:
        if (line.value[0] != '/' && line.value[0] != '\0')
            tell(check, line, FINDING_NO_PATH, line.value, nullptr, nullptr,
                 "nothing of this device");
        return;
    case SettingKind::on_off:
        if (string_enable_disable(line.value) < 0)
            check_word(check, line, rule);
        return;
    case SettingKind::word:
        return check_word(check, line, rule);
    case SettingKind::users:
        return check_users(check, line);
    }
}

static const char* nearest_key(const char* key)
{
    const char* keys[rule_count];
    for (size_t at = 0; at < rule_count; at++)
        keys[at] = rules[at].key;
    return finding_nearest(key, keys, rule_count);
}

int settings_check(const char* text, size_t size, UserLookup lookup, FindingReport report,
                   void* context)
{
    Check check = {
        .lookup = lookup, .report = report, .context = context, .found = 0, .section = ""};
    IniLines lines = {.at = text, .end = text + size, .feeds = 0};
    IniLine line;
    bool in_section = false;
    while (ini_lines_next(&lines, &line)) {
        const SettingRule* rule = find_rule(line.key);
        if (line.kind == INI_LINE_HEADER) {
            in_section = true;
            str_cpy(check.section, line.key);
        } else if (in_section && rule == nullptr && strcmp(line.key, settings_mark) != 0) {
            tell(&check, line, FINDING_UNKNOWN_KEY, "", nearest_key(line.key), nullptr, nullptr);
        } else if (in_section && rule != nullptr) {
            check_value(&check, line, *rule);
        }
    }
    return check.found;
}
