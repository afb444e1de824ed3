#include "common/text.h"

#include <stdint.h>
#include <string.h>

static constexpr char replacement = '_';

namespace {

// A kind of sequence: the ranges of its first and second byte. Further bytes are 80 to BF.
struct SequenceKind {
    uint8_t first_low;
    uint8_t first_high;
    uint8_t second_low;
    uint8_t second_high;
    uint8_t length;
};

// RFC 3629, section 4: no overlong forms, no surrogates, nothing above U+10FFFF.
constexpr SequenceKind sequence_kinds[] = {
    {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3}, {0xe1, 0xec, 0x80, 0xbf, 3},
    {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3}, {0xf0, 0xf0, 0x90, 0xbf, 4},
    {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
};

} // namespace

static uint8_t byte_at(const char* text, size_t index)
{
    return static_cast<uint8_t>(text[index]);
}

static bool fits(const SequenceKind& kind, const char* text)
{
    if (byte_at(text, 0) < kind.first_low || byte_at(text, 0) > kind.first_high)
        return false;
    if (byte_at(text, 1) < kind.second_low || byte_at(text, 1) > kind.second_high)
        return false;
    for (size_t i = 2; i < kind.length; i++) {
        if ((byte_at(text, i) & 0xc0) != 0x80) // not for the terminating NUL either
            return false;
    }
    return true;
}

size_t text_sequence(const char* text)
{
    const uint8_t first = byte_at(text, 0);
    if (first < 0x80)
        return first != 0 ? 1 : 0;
    for (const SequenceKind& kind : sequence_kinds) {
        if (fits(kind, text))
            return kind.length;
    }
    return 0;
}

static bool is_control(const char* text)
{
    const uint8_t first = byte_at(text, 0);
    return first < 0x20 || first == 0x7f || (first == 0xc2 && byte_at(text, 1) < 0xa0);
}

size_t text_clean(char* text, const char* forbidden)
{
    size_t replaced = 0;
    const char* from = text;
    char* to = text;
    while (*from != '\0') {
        const size_t length = text_sequence(from);
        if (length == 0 || is_control(from) || strchr(forbidden, *from) != nullptr) {
            *to++ = replacement;
            from += length != 0 ? length : 1;
            replaced++;
            continue;
        }
        if (to != from) // seldom: behind what took more than one byte
            memmove(to, from, length);
        to += length;
        from += length;
    }
    *to = '\0';
    return replaced;
}

void text_shorten(char* text, size_t size)
{
    size_t end = strlen(text);
    if (end <= size)
        return;
    end = size;
    while (end > 0 && (byte_at(text, end) & 0xc0) == 0x80)
        end--;
    text[end] = '\0';
}

void text_trim(char* text)
{
    char* begin = text;
    while (*begin == ' ' || *begin == '\t')
        begin++;
    size_t length = strlen(begin);
    while (length > 0 && (begin[length - 1] == ' ' || begin[length - 1] == '\t'))
        length--;
    memmove(text, begin, length);
    text[length] = '\0';
}
