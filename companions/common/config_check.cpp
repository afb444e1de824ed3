#include "common/config_check.h"

#include "common/ini_lines.h"
#include "common/text.h"
#include "config/config_keys.h"
#include "config/filesystems.h"
#include "config/getopt.h"
#include "config/ini.h"
#include "config/mount_flags.h"
#include "lib/str.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

static constexpr size_t most_keys = 40;
static constexpr size_t most_words = 40;
static constexpr size_t list_size = 200; // bytes of a list of words with the NUL

namespace {

enum class ValueKind : uint8_t {
    any,
    word,       // one of the words
    on_off,     // the same, or 1, or 0
    words,      // some of them, separated by commas: blanks belong to a word
    trimmed,    // the same, but blanks at its ends do not belong to it
    options,    // of a filesystem of the kernel's
    path,       // begins with a slash
    number,     // decimal
    permission, // octal
};

struct Words {
    const char* of[most_words];
    size_t count;
};

// Lends the nth word of a list; "" in the place of one that is none, null behind the last.
using WordList = const char* (*)(size_t at);

struct KeyRule {
    char key[options_key_size];
    ValueKind kind;
    WordList words;   // null for kinds without
    char taken[32];   // in the place of what is wrong; "" where it is passed over
    size_t last_line; // that has the key
};

struct Check {
    FindingReport report;
    void* context;
    int found;
    size_t rule_count;
    KeyRule rules[most_keys];
};

} // namespace

// ---- words ----

static const char* switch_word(size_t at)
{
    static constexpr const char* words[] = {"enable", "disable", nullptr};
    return words[at];
}

static const char* labels_list_word(size_t at)
{
    return at == 0 ? labels_word : nullptr;
}

static const char* smbtype_word(size_t at)
{
    if (at == 0)
        return samba_word;
    return at <= sizeof own_server_names / sizeof own_server_names[0] ? own_server_names[at - 1]
                                                                      : nullptr;
}

static const char* mountfs_word(size_t at)
{
    if (at / 3 >= filesystem_count)
        return nullptr;
    const Filesystem& filesystem = filesystems[at / 3];
    const char* word = at % 3 == 2 ? filesystem.group : filesystem.words[at % 3];
    return word != nullptr ? word : "";
}

static const char* otherfs_word(size_t at)
{
    if (at >= filesystem_count)
        return nullptr;
    return filesystem_is_other(filesystems[at]) ? filesystems[at].type : "";
}

static const char* mountflags_word(size_t at)
{
    return at < mount_flag_count ? mount_flags[at].word : nullptr;
}

static Words words_of(WordList list)
{
    Words words;
    words.count = 0;
    for (size_t at = 0; const char* word = list(at); at++) {
        if (word[0] != '\0' && words.count < most_words)
            words.of[words.count++] = word;
    }
    return words;
}

// ---- the keys ----

static KeyRule* add_rule(Check* check, const char* key, ValueKind kind)
{
    KeyRule* rule = &check->rules[check->rule_count++];
    *rule = {};
    str_ncpy(rule->key, key, sizeof rule->key);
    rule->kind = kind;
    return rule;
}

static void add_word_rule(Check* check, const char* key, ValueKind kind, WordList words,
                          const char* taken)
{
    KeyRule* rule = add_rule(check, key, kind);
    rule->words = words;
    str_ncpy(rule->taken, taken, sizeof rule->taken);
}

static void add_switch_rule(Check* check, const SwitchKey& row)
{
    add_word_rule(check, row.key, ValueKind::on_off, switch_word, "enable");
}

static void add_number_rule(Check* check, const NumberKey& row)
{
    const bool octal = row.base == 8;
    KeyRule* rule = add_rule(check, row.key, octal ? ValueKind::permission : ValueKind::number);
    (void)snprintf(rule->taken, sizeof rule->taken, octal ? "%o" : "%u",
                   octal ? ~row.fallback & permission_bits : row.fallback);
}

static void add_other_rules(Check* check)
{
    for (const Filesystem& filesystem : filesystems) {
        char key[options_key_size];
        (void)snprintf(key, sizeof key, "%s%s", filesystem.type, options_ending);
        if (filesystem_is_other(filesystem))
            (void)add_rule(check, key, ValueKind::options);
    }
}

static void add_rules(Check* check)
{
    static_assert(most_keys > 12 + sizeof path_keys / sizeof path_keys[0] + filesystem_count);
    add_word_rule(check, smbtype_key, ValueKind::word, smbtype_word, "the product's own server");
    add_switch_rule(check, naswork_key);
    add_switch_rule(check, fat_label_key);
    for (const SwitchKey& row : needed_switches)
        add_switch_rule(check, row);
    for (const PathKey& row : path_keys) {
        KeyRule* rule = add_rule(check, row.key, ValueKind::path);
        str_ncpy(rule->taken, row.fallback, sizeof rule->taken);
    }
    for (const NumberKey& row : owner_keys)
        add_number_rule(check, row);
    for (const NumberKey& row : permission_keys)
        add_number_rule(check, row);
    for (const OptionsKey& row : options_keys) { // a driver takes the flags of mount(2), too
        const bool driver = row.field == &ConfHotplug::ntfsoptions;
        (void)add_rule(check, row.key, driver ? ValueKind::any : ValueKind::options);
    }
    add_word_rule(check, mountfs_key, ValueKind::words, mountfs_word, "");
    add_word_rule(check, otherfs_key, ValueKind::trimmed, otherfs_word, "");
    add_word_rule(check, mountflags_key, ValueKind::trimmed, mountflags_word, "");
    add_word_rule(check, labels_key, ValueKind::word, labels_list_word, "");
    add_other_rules(check);
}

static KeyRule* find_rule(Check* check, const char* key)
{
    for (size_t at = 0; at < check->rule_count; at++) {
        if (strcasecmp(check->rules[at].key, key) == 0)
            return &check->rules[at];
    }
    return nullptr;
}

// ---- values ----

static void tell(Check* check, const Finding& finding)
{
    check->found++;
    check->report(check->context, finding);
}

// Tells what `finding` has of it; the rest is the line's and the rule's.
static void tell_value(Check* check, const IniLine& line, const KeyRule& rule, Finding* finding)
{
    finding->line = line.number;
    finding->key = line.key;
    if (finding->taken == nullptr && rule.taken[0] != '\0')
        finding->taken = rule.taken;
    tell(check, *finding);
}

static bool is_one_of(const char* word, const Words& words)
{
    for (size_t at = 0; at < words.count; at++) {
        if (strcasecmp(word, words.of[at]) == 0)
            return true;
    }
    return false;
}

static void list_words(const Words& words, char (&list)[list_size])
{
    char* end = list;
    *end = '\0';
    for (size_t at = 0; at < words.count; at++) {
        const auto room = static_cast<int32_t>(sizeof list - static_cast<size_t>(end - list));
        if (at > 0)
            end = str_ncpy(end, ", ", room);
        end = str_ncpy(end, words.of[at],
                       static_cast<int32_t>(sizeof list - static_cast<size_t>(end - list)));
    }
}

// What to write in the place of a word: it may stand in the wrong one of the two lists.
static const char* right_word(const KeyRule& rule, const Words& words, const char* word)
{
    if (rule.words == mountfs_word && is_one_of(word, words_of(otherfs_word)))
        return "it into otherfs";
    if (rule.words == otherfs_word && is_one_of(word, words_of(mountfs_word)))
        return "it into mountfs";
    return finding_nearest(word, words.of, words.count);
}

static void check_word(Check* check, const IniLine& line, const KeyRule& rule, const char* word)
{
    const Words words = words_of(rule.words);
    if (is_one_of(word, words))
        return;
    char list[list_size];
    list_words(words, list);
    Finding finding = {.kind = FINDING_UNKNOWN_WORD,
                       .word = word,
                       .right = right_word(rule, words, word),
                       .accepted = list};
    tell_value(check, line, rule, &finding);
}

// Each word as the loader takes it. In an option map what stands behind a "=" does not belong to
// the word, and an item without a word ends the list.
static void check_words(Check* check, const IniLine& line, const KeyRule& rule)
{
    char item[VYOPT_ITEM_SIZE];
    const char* position = line.value;
    while ((position = vyopt_get_section(position, item, sizeof item)) != nullptr) {
        if (rule.kind == ValueKind::trimmed)
            text_trim(item);
        else if (item[0] != '=')
            item[strcspn(item, "=")] = '\0';
        check_word(check, line, rule, item);
        if (rule.kind == ValueKind::words && item[0] == '=')
            return;
    }
}

// Flags of mount(2) are no options of a filesystem's: the kernel refuses the whole mount for one.
// (Those two it takes for what mount(8) makes of them.)
static bool is_flag_of_mount(const char* word)
{
    return is_one_of(word, words_of(mountflags_word)) && strcasecmp(word, "sync") != 0 &&
           strcasecmp(word, "dirsync") != 0;
}

static void check_options(Check* check, const IniLine& line, const KeyRule& rule)
{
    char item[VYOPT_ITEM_SIZE];
    const char* position = line.value;
    while ((position = vyopt_get_section(position, item, sizeof item)) != nullptr) {
        Finding finding = {.kind = FINDING_UNKNOWN_WORD,
                           .word = item,
                           .right = "it into mountflags",
                           .taken = "no mount at all"};
        if (is_flag_of_mount(item))
            tell_value(check, line, rule, &finding);
    }
}

// "rw-r--r--", as ls(1) prints it, with or without the letter of the kind before it.
static bool read_letters(const char* text, char (&octal)[8])
{
    static constexpr char letters[] = "rwxrwxrwx";
    const size_t length = strlen(text);
    if (length == sizeof letters)
        text++;
    else if (length != sizeof letters - 1)
        return false;
    unsigned bits = 0;
    for (size_t at = 0; at < sizeof letters - 1; at++) {
        if (text[at] != letters[at] && text[at] != '-')
            return false;
        bits = bits * 2 + (text[at] != '-' ? 1 : 0);
    }
    (void)snprintf(octal, sizeof octal, "%o", bits & permission_bits);
    return true;
}

static void check_number(Check* check, const IniLine& line, const KeyRule& rule)
{
    const bool octal = rule.kind == ValueKind::permission;
    const int32_t highest = octal ? static_cast<int32_t>(permission_bits) : INT32_MAX;
    int32_t number = 0;
    const int32_t result = str_to_long(line.value, &number, octal ? 8 : 10);
    if (result == 0 && number >= 0 && number <= highest)
        return;
    // The loader takes a number that fits into 32 bits, whatever it means.
    char taken[16];
    (void)snprintf(taken, sizeof taken, octal ? "%o" : "%u",
                   static_cast<uint32_t>(number) & (octal ? permission_bits : UINT32_MAX));
    char letters[8];
    const bool spelt = octal && result == -EINVAL && read_letters(line.value, letters);
    Finding finding = {.kind = result == -EINVAL ? FINDING_NO_NUMBER : FINDING_OUT_OF_RANGE,
                       .word = line.value,
                       .right = spelt ? letters : nullptr,
                       .accepted = octal ? "0 to 777, octal" : "0 to 2147483647",
                       .taken = result == 0 ? taken : nullptr};
    tell_value(check, line, rule, &finding);
}

static void check_path(Check* check, const IniLine& line, const KeyRule& rule)
{
    if (line.value[0] == '/')
        return;
    Finding finding = {.kind = FINDING_NO_PATH, .word = line.value};
    tell_value(check, line, rule, &finding);
}

static void check_value(Check* check, const IniLine& line, const KeyRule& rule)
{
    switch (rule.kind) {
    case ValueKind::any:
        return;
    case ValueKind::on_off:
        if (string_enable_disable(line.value) >= 0)
            return;
        [[fallthrough]];
    case ValueKind::word:
        return check_word(check, line, rule, line.value);
    case ValueKind::words:
    case ValueKind::trimmed:
        return check_words(check, line, rule);
    case ValueKind::options:
        return check_options(check, line, rule);
    case ValueKind::path:
        return check_path(check, line, rule);
    case ValueKind::number:
    case ValueKind::permission:
        return check_number(check, line, rule);
    }
}

// ---- lines ----

static void tell_key(Check* check, const IniLine& line, FindingKind kind, const char* right)
{
    tell(check, {.line = line.number, .kind = kind, .key = line.key, .right = right});
}

static const char* nearest_key(const Check* check, const char* key)
{
    const char* keys[most_keys];
    for (size_t at = 0; at < check->rule_count; at++)
        keys[at] = check->rules[at].key;
    return finding_nearest(key, keys, check->rule_count);
}

static bool is_explanation(const IniLine& line)
{
    return line.key[0] == '#' || line.key[0] == ';';
}

static void check_line(Check* check, const IniLine& line, bool behind_header)
{
    const KeyRule* rule = find_rule(check, line.key);
    if (is_explanation(line))
        return;
    if (behind_header)
        tell_key(check, line, FINDING_BEHIND_HEADER, nullptr);
    else if (rule == nullptr)
        tell_key(check, line, FINDING_UNKNOWN_KEY, nearest_key(check, line.key));
    else if (rule->last_line != line.number)
        tell_key(check, line, FINDING_REPEATED, nullptr);
    else
        check_value(check, line, *rule);
}

// Notes which line of each key counts.
static void find_last_lines(Check* check, const char* text, size_t size)
{
    IniLines lines = {.at = text, .end = text + size, .feeds = 0};
    IniLine line;
    while (ini_lines_next(&lines, &line) && line.kind == INI_LINE_ENTRY) {
        KeyRule* rule = find_rule(check, line.key);
        if (rule != nullptr)
            rule->last_line = line.number;
    }
}

int config_check(const char* text, size_t size, FindingReport report, void* context)
{
    Check check = {.report = report, .context = context, .found = 0, .rule_count = 0, .rules = {}};
    add_rules(&check);
    find_last_lines(&check, text, size);
    IniLines lines = {.at = text, .end = text + size, .feeds = 0};
    IniLine line;
    bool behind_header = false;
    while (ini_lines_next(&lines, &line)) {
        behind_header |= line.kind == INI_LINE_HEADER;
        if (line.kind == INI_LINE_ENTRY)
            check_line(&check, line, behind_header);
    }
    return check.found;
}
