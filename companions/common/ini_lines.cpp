#include "common/ini_lines.h"

#include <string.h>

static constexpr bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

static bool ends_line(char c)
{
    return c == '\n' || c == '\r' || c == '\0';
}

static const char* find_char(const char* begin, const char* end, char c)
{
    return static_cast<const char*>(memchr(begin, c, static_cast<size_t>(end - begin)));
}

static void copy_key(const char* begin, const char* end, char (&key)[ini_key_size])
{
    size_t length = 0;
    for (; begin != end && length < sizeof key - 1; begin++) {
        if (!is_blank(*begin))
            key[length++] = *begin;
    }
    key[length] = '\0';
}

static void copy_trimmed(const char* begin, const char* end, char* copy, size_t size)
{
    while (begin != end && is_blank(*begin))
        begin++;
    while (begin != end && is_blank(end[-1]))
        end--;
    size_t length = static_cast<size_t>(end - begin);
    if (length > size - 1)
        length = size - 1;
    memcpy(copy, begin, length);
    copy[length] = '\0';
}

// The last "]" of the line; null without one.
static const char* find_close(const char* begin, const char* end)
{
    while (begin != end && end[-1] != ']')
        end--;
    return begin != end ? end - 1 : nullptr;
}

// Takes a line apart. False for one that is neither a header nor an entry.
static bool take_apart(const char* begin, const char* end, IniLine* line)
{
    line->value[0] = '\0';
    const char* close = begin != end && *begin == '[' ? find_close(begin, end) : nullptr;
    if (close != nullptr) {
        line->kind = INI_LINE_HEADER;
        copy_trimmed(begin + 1, close, line->key, sizeof line->key);
        return true;
    }
    const char* equals = find_char(begin, end, '=');
    if (equals == nullptr)
        return false;
    line->kind = INI_LINE_ENTRY;
    copy_key(begin, equals, line->key);
    copy_trimmed(equals + 1, end, line->value, sizeof line->value);
    return true;
}

bool ini_lines_next(IniLines* lines, IniLine* line)
{
    while (lines->at != lines->end) {
        const char* begin = lines->at;
        const char* end = begin;
        while (end != lines->end && !ends_line(*end))
            end++;
        line->number = lines->feeds + 1;
        lines->feeds += end != lines->end && *end == '\n' ? 1 : 0;
        lines->at = end != lines->end ? end + 1 : end;
        if (take_apart(begin, end, line))
            return true;
    }
    return false;
}
