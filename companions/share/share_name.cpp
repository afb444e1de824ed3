#include "share/share_name.h"

#include "common/text.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>

static constexpr char name_of_nothing[] = "share";
static constexpr size_t suffix_size = 16; // " (4294967295)" and the NUL

// Names with another meaning in smb.conf or in a client's path.
static constexpr const char* reserved_names[] = {
    "global", "globals", "homes",  "printers", "printer$", "print$",
    "ipc",    "ipc$",    "admin$", ".",        "..",
};

// ---- comparing ----

namespace {

enum FoldKind : uint8_t {
    FOLD_BY,   // the small letter lies `value` further on
    FOLD_TO,   // all compare as the letter `value`
    FOLD_EVEN, // a capital at each even number, its small letter behind it
    FOLD_ODD,  // the same at each odd number
    FOLD_RARE, // letters that few names hold: all compare as equal
};

struct FoldRange {
    uint32_t first;
    uint32_t last;
    FoldKind kind;
    int32_t value;
};

constexpr uint32_t rare_letter = 0xfffd;

// Letters with two cases, but for those of ASCII: the simple case mappings of the Unicode Character
// Database.
constexpr FoldRange fold_ranges[] = {
    {0xb5, 0xb5, FOLD_TO, 0x3bc},      {0xc0, 0xd6, FOLD_BY, 0x20},
    {0xd8, 0xde, FOLD_BY, 0x20},       {0xdf, 0xdf, FOLD_RARE, 0}, // its capital is one of them
    {0x100, 0x12f, FOLD_EVEN, 0},      {0x130, 0x131, FOLD_TO, 'i'},
    {0x132, 0x137, FOLD_EVEN, 0},      {0x139, 0x148, FOLD_ODD, 0},
    {0x14a, 0x177, FOLD_EVEN, 0},      {0x178, 0x178, FOLD_TO, 0xff},
    {0x179, 0x17e, FOLD_ODD, 0},       {0x17f, 0x17f, FOLD_TO, 's'},
    {0x1cd, 0x1dc, FOLD_ODD, 0},       {0x1de, 0x1ef, FOLD_EVEN, 0},
    {0x1f8, 0x21f, FOLD_EVEN, 0},      {0x222, 0x233, FOLD_EVEN, 0},
    {0x180, 0x2af, FOLD_RARE, 0}, // the rest of this range
    {0x345, 0x345, FOLD_TO, 0x3b9},    {0x386, 0x386, FOLD_TO, 0x3ac},
    {0x388, 0x38a, FOLD_BY, 0x25},     {0x38c, 0x38c, FOLD_TO, 0x3cc},
    {0x38e, 0x38f, FOLD_BY, 0x3f},     {0x391, 0x3ab, FOLD_BY, 0x20},
    {0x3c2, 0x3c2, FOLD_TO, 0x3c3},    {0x3d0, 0x3d0, FOLD_TO, 0x3b2},
    {0x3d1, 0x3d1, FOLD_TO, 0x3b8},    {0x3d5, 0x3d5, FOLD_TO, 0x3c6},
    {0x3d6, 0x3d6, FOLD_TO, 0x3c0},    {0x3f0, 0x3f0, FOLD_TO, 0x3ba},
    {0x3f1, 0x3f1, FOLD_TO, 0x3c1},    {0x3f4, 0x3f4, FOLD_TO, 0x3b8},
    {0x3f5, 0x3f5, FOLD_TO, 0x3b5},    {0x370, 0x385, FOLD_RARE, 0},
    {0x3cf, 0x3ff, FOLD_RARE, 0},      {0x400, 0x40f, FOLD_BY, 0x50},
    {0x410, 0x42f, FOLD_BY, 0x20},     {0x460, 0x481, FOLD_EVEN, 0},
    {0x48a, 0x4bf, FOLD_EVEN, 0},      {0x4c0, 0x4c0, FOLD_TO, 0x4cf},
    {0x4c1, 0x4ce, FOLD_ODD, 0},       {0x4d0, 0x52f, FOLD_EVEN, 0},
    {0x531, 0x556, FOLD_BY, 0x30},     {0x10a0, 0x10cf, FOLD_BY, 0x1c60},
    {0x13a0, 0x13ef, FOLD_BY, 0x97d0}, {0x13f0, 0x13f5, FOLD_BY, 8},
    {0x1c80, 0x1c80, FOLD_TO, 0x432},  {0x1c81, 0x1c81, FOLD_TO, 0x434},
    {0x1c82, 0x1c82, FOLD_TO, 0x43e},  {0x1c83, 0x1c84, FOLD_BY, -0x1842},
    {0x1c85, 0x1c85, FOLD_TO, 0x442},  {0x1c86, 0x1c86, FOLD_TO, 0x44a},
    {0x1c87, 0x1c87, FOLD_TO, 0x463},  {0x1c88, 0x1c8f, FOLD_RARE, 0},
    {0x1c90, 0x1cbf, FOLD_BY, -0xbc0}, {0x1d00, 0x1dbf, FOLD_RARE, 0},
    {0x1e00, 0x1e95, FOLD_EVEN, 0},    {0x1e9b, 0x1e9b, FOLD_TO, 0x1e61},
    {0x1e9e, 0x1e9e, FOLD_RARE, 0},    {0x1ea0, 0x1eff, FOLD_EVEN, 0},
    {0x1fbe, 0x1fbe, FOLD_TO, 0x3b9},  {0x1f00, 0x1fff, FOLD_RARE, 0},
    {0x2126, 0x2126, FOLD_TO, 0x3c9},  {0x212a, 0x212a, FOLD_TO, 'k'},
    {0x212b, 0x212b, FOLD_TO, 0xe5},   {0x2132, 0x214e, FOLD_RARE, 0},
    {0x2160, 0x216f, FOLD_BY, 0x10},   {0x2183, 0x2184, FOLD_RARE, 0},
    {0x24b6, 0x24cf, FOLD_BY, 0x1a},   {0x2c00, 0x2cff, FOLD_RARE, 0},
    {0xa640, 0xa7ff, FOLD_RARE, 0},    {0xab30, 0xab6f, FOLD_RARE, 0},
    {0xff21, 0xff3a, FOLD_BY, 0x20},   {0x10400, 0x10fff, FOLD_RARE, 0},
    {0x11800, 0x118ff, FOLD_RARE, 0},  {0x16e00, 0x16fff, FOLD_RARE, 0},
    {0x1e900, 0x1e95f, FOLD_RARE, 0},
};

} // namespace

static uint32_t fold_as(uint32_t character, const FoldRange& range)
{
    switch (range.kind) {
    case FOLD_BY:
        return character + static_cast<uint32_t>(range.value);
    case FOLD_TO:
        return static_cast<uint32_t>(range.value);
    case FOLD_EVEN:
        return character | 1U;
    case FOLD_ODD:
        return character + (character & 1U);
    case FOLD_RARE:
        break;
    }
    return rare_letter;
}

uint32_t share_name_fold(uint32_t character)
{
    if (character < 0x80) // nearly all there are
        return character >= 'A' && character <= 'Z' ? character + ('a' - 'A') : character;
    for (const FoldRange& range : fold_ranges) { // the first that fits
        if (character >= range.first && character <= range.last)
            return fold_as(character, range);
    }
    return character;
}

// Takes the next character of well-formed UTF-8; 0 at its end.
static uint32_t next_character(const char** text)
{
    const size_t length = text_sequence(*text);
    const auto first = static_cast<uint8_t>(**text);
    if (length < 2) {
        *text += length;
        return first;
    }
    uint32_t character = first & (0x7fU >> length);
    for (size_t i = 1; i < length; i++)
        character = character << 6 | (static_cast<uint8_t>((*text)[i]) & 0x3fU);
    *text += length;
    return character;
}

bool share_names_meet(const char* a, const char* b)
{
    for (;;) {
        const uint32_t first = next_character(&a);
        if (share_name_fold(first) != share_name_fold(next_character(&b)))
            return false;
        if (first == 0)
            return true;
    }
}

// ---- mapping ----

// Replaces the characters that the server cannot have.
static void replace_strangers(const ShareNameRules* rules, char* name)
{
    const char* from = name;
    char* to = name;
    while (*from != '\0') {
        const char* at = from;
        const bool accepted = rules->accepts(next_character(&from));
        const size_t length = static_cast<size_t>(from - at);
        if (accepted)
            memmove(to, at, length);
        else
            *to = '_';
        to += accepted ? length : 1;
    }
    *to = '\0';
}

// Replaces the blanks that Samba drops: at the ends, and behind another blank.
static void replace_blanks(char* name)
{
    const size_t length = strlen(name);
    if (length > 0 && name[length - 1] == ' ')
        name[length - 1] = '_';
    bool behind_blank = true;
    for (char* at = name; *at != '\0'; at++) {
        const bool blank = *at == ' ';
        if (blank && behind_blank)
            *at = '_';
        behind_blank = blank && !behind_blank;
    }
}

static bool is_reserved(const char* name)
{
    for (const char* reserved : reserved_names) {
        if (share_names_meet(name, reserved))
            return true;
    }
    return false;
}

// Writes the name as the server accepts it, not yet compared with the others.
static void map_name(const ShareNameRules* rules, const char* original,
                     char (&exported)[share_name_size])
{
    // With room for a whole character more: one that is cut in two lies behind what is kept.
    char name[share_name_size + 4] = "";
    (void)snprintf(name, sizeof name, "%s", original);
    (void)text_clean(name, rules->forbidden);
    if (rules->accepts != nullptr)
        replace_strangers(rules, name);
    text_shorten(name, rules->size - 1);
    replace_blanks(name);
    if (name[0] == '\0')
        (void)snprintf(exported, sizeof exported, "%s", name_of_nothing);
    else if (is_reserved(name))
        (void)snprintf(exported, sizeof exported, "_%s", name); // which is a short one
    else
        (void)snprintf(exported, sizeof exported, "%s", name);
}

// ---- telling apart ----

// FNV-1a (Fowler, Noll, Vo) over the characters as they are compared.
static uint32_t hash_name(const char* name)
{
    uint32_t hash = 2166136261U;
    for (uint32_t character = next_character(&name); character != 0;
         character = next_character(&name))
        hash = (hash ^ share_name_fold(character)) * 16777619U;
    return hash;
}

static bool is_taken(const ShareName* names, size_t count, const char* name)
{
    const uint32_t hash = hash_name(name);
    for (size_t i = 0; i < count; i++) {
        if (names[i].settled && names[i].hash == hash && share_names_meet(names[i].exported, name))
            return true;
    }
    return false;
}

// Writes `base`, cut where it must be, with a number behind it.
static void number_name(const ShareNameRules* rules, const char* base, size_t number,
                        char (&numbered)[share_name_size])
{
    char suffix[suffix_size];
    (void)snprintf(suffix, sizeof suffix, " (%u)", static_cast<unsigned>(number));
    char cut[share_name_size];
    (void)snprintf(cut, sizeof cut, "%s", base);
    text_shorten(cut, rules->size - 1 - strlen(suffix));
    const size_t length = strlen(cut);
    if (length > 0 && cut[length - 1] == ' ') // Samba makes one of two blanks
        cut[length - 1] = '_';
    (void)snprintf(numbered, sizeof numbered, "%s%s", cut, suffix);
}

// Gives the share its name, or the first free one after it.
static void settle(const ShareNameRules* rules, ShareName* names, size_t count, ShareName* name)
{
    char candidate[share_name_size];
    (void)snprintf(candidate, sizeof candidate, "%s", name->exported);
    for (size_t number = 2; is_taken(names, count, candidate); number++)
        number_name(rules, name->exported, number, candidate);
    memcpy(name->exported, candidate, sizeof candidate);
    name->hash = hash_name(candidate);
    name->settled = true;
}

static bool is_original(const ShareName* name)
{
    return strcmp(name->original, name->exported) == 0;
}

void share_names_map(const ShareNameRules* rules, ShareName* names, size_t count, Notes* notes)
{
    for (size_t i = 0; i < count; i++) {
        map_name(rules, names[i].original, names[i].exported);
        names[i].hash = hash_name(names[i].exported);
        names[i].settled = false;
    }
    for (size_t i = 0; i < count; i++)
        names[i].settled = is_original(&names[i]) && !is_taken(names, count, names[i].exported);
    for (size_t i = 0; i < count; i++) {
        if (!names[i].settled)
            settle(rules, names, count, &names[i]);
        if (!is_original(&names[i]))
            notes_add(notes, LOG_NOTICE, "share %s is exported as %s", names[i].original,
                      names[i].exported);
    }
}
