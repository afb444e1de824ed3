#include "label/label_text.h"

#include "common/text.h"

#include <stdint.h>
#include <string.h>

// They begin and end a section line of the share file.
static constexpr char forbidden[] = "[]";

// Code page 850 from 0x80 on. A FAT label does not tell its code page; this one has the letters of
// all western languages, and letters that 437 has, too, at the same places.
static constexpr uint16_t code_page_850[128] = {
    0x00c7, 0x00fc, 0x00e9, 0x00e2, 0x00e4, 0x00e0, 0x00e5, 0x00e7, 0x00ea, 0x00eb, 0x00e8, 0x00ef,
    0x00ee, 0x00ec, 0x00c4, 0x00c5, 0x00c9, 0x00e6, 0x00c6, 0x00f4, 0x00f6, 0x00f2, 0x00fb, 0x00f9,
    0x00ff, 0x00d6, 0x00dc, 0x00f8, 0x00a3, 0x00d8, 0x00d7, 0x0192, 0x00e1, 0x00ed, 0x00f3, 0x00fa,
    0x00f1, 0x00d1, 0x00aa, 0x00ba, 0x00bf, 0x00ae, 0x00ac, 0x00bd, 0x00bc, 0x00a1, 0x00ab, 0x00bb,
    0x2591, 0x2592, 0x2593, 0x2502, 0x2524, 0x00c1, 0x00c2, 0x00c0, 0x00a9, 0x2563, 0x2551, 0x2557,
    0x255d, 0x00a2, 0x00a5, 0x2510, 0x2514, 0x2534, 0x252c, 0x251c, 0x2500, 0x253c, 0x00e3, 0x00c3,
    0x255a, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550, 0x256c, 0x00a4, 0x00f0, 0x00d0, 0x00ca, 0x00cb,
    0x00c8, 0x0131, 0x00cd, 0x00ce, 0x00cf, 0x2518, 0x250c, 0x2588, 0x2584, 0x00a6, 0x00cc, 0x2580,
    0x00d3, 0x00df, 0x00d4, 0x00d2, 0x00f5, 0x00d5, 0x00b5, 0x00fe, 0x00de, 0x00da, 0x00db, 0x00d9,
    0x00fd, 0x00dd, 0x00af, 0x00b4, 0x00ad, 0x00b1, 0x2017, 0x00be, 0x00b6, 0x00a7, 0x00f7, 0x00b8,
    0x00b0, 0x00a8, 0x00b7, 0x00b9, 0x00b3, 0x00b2, 0x25a0, 0x00a0,
};

static bool is_well_formed(const char* text)
{
    while (*text != '\0') {
        const size_t length = text_sequence(text);
        if (length == 0)
            return false;
        text += length;
    }
    return true;
}

// Writes a character up to U+FFFF as UTF-8. Returns the position behind it.
static char* put_character(char* to, unsigned code)
{
    if (code < 0x80) {
        *to++ = static_cast<char>(code);
        return to;
    }
    if (code < 0x800) {
        *to++ = static_cast<char>(0xc0 | code >> 6);
    } else {
        *to++ = static_cast<char>(0xe0 | code >> 12);
        *to++ = static_cast<char>(0x80 | (code >> 6 & 0x3f));
    }
    *to++ = static_cast<char>(0x80 | (code & 0x3f));
    return to;
}

static void decode(const char* text, size_t length, char* to)
{
    for (size_t i = 0; i < length; i++) {
        const auto byte = static_cast<uint8_t>(text[i]);
        to = put_character(to, byte < 0x80 ? byte : code_page_850[byte - 0x80]);
    }
    *to = '\0';
}

bool label_take_type(char* printed, const char* type)
{
    const size_t length = strlen(printed);
    char* line = printed + (length > 0 && printed[length - 1] == '\n' ? length - 1 : length);
    *line = '\0';
    while (line > printed && line[-1] != '\n')
        line--;
    const bool same = strcmp(line, type) == 0;
    *line = '\0';
    return same;
}

void label_from_printed(const char* printed, bool code_page, char (&label)[label_size])
{
    size_t length = strnlen(printed, label_printed_size - 1);
    if (length > 0 && printed[length - 1] == '\n')
        length--;
    memcpy(label, printed, length);
    label[length] = '\0';
    // Linux programs write UTF-8 labels; text of a code page is hardly ever well-formed UTF-8.
    if (code_page && !is_well_formed(label))
        decode(printed, length, label);
    (void)text_clean(label, forbidden);
}
