#include "common/include_sections.h"

#include <string.h>

// The last section of the file.
static constexpr char global_section[] = "global";

bool span_is(Span a, Span b)
{
    return a.size == b.size && memcmp(a.begin, b.begin, a.size) == 0;
}

bool span_begins(Span span, const char* text)
{
    const size_t size = strlen(text);
    return span.size >= size && memcmp(span.begin, text, size) == 0;
}

bool span_next_line(Span* text, Span* line)
{
    if (text->size == 0)
        return false;
    const void* feed = memchr(text->begin, '\n', text->size);
    const size_t size = feed != nullptr
                            ? static_cast<size_t>(static_cast<const char*>(feed) - text->begin)
                            : text->size;
    const size_t taken = size + (feed != nullptr ? 1 : 0);
    *line = {.begin = text->begin, .size = size};
    *text = {.begin = text->begin + taken, .size = text->size - taken};
    return true;
}

// The name in a section's first line; false for any other line.
static bool is_header(Span line, Span* name)
{
    if (line.size < 3 || line.begin[0] != '[' || line.begin[line.size - 1] != ']')
        return false;
    *name = {.begin = line.begin + 1, .size = line.size - 2};
    return true;
}

// Moves `rest` to the next header and fills `name`; false at the end.
static bool find_header(Span* rest, Span* name)
{
    Span next = *rest;
    Span line;
    while (span_next_line(&next, &line)) {
        if (is_header(line, name))
            return true;
        *rest = next;
    }
    *rest = next;
    return false;
}

bool include_section_next(const char** text, IncludeSection* section)
{
    Span rest = {.begin = *text, .size = strlen(*text)};
    const Span global = {.begin = global_section, .size = strlen(global_section)};
    while (find_header(&rest, &section->name)) {
        section->text.begin = rest.begin;
        Span line;
        Span ignored;
        (void)span_next_line(&rest, &line); // the header
        (void)find_header(&rest, &ignored);
        section->text.size = static_cast<size_t>(rest.begin - section->text.begin);
        *text = rest.begin;
        if (!span_is(section->name, global))
            return true;
    }
    return false;
}

bool include_section_value(const IncludeSection* section, const char* key, Span* value)
{
    static constexpr char sign[] = " = ";
    Span rest = section->text;
    Span line;
    while (span_next_line(&rest, &line)) {
        if (!span_begins(line, "\t"))
            continue;
        const Span behind = {.begin = line.begin + 1, .size = line.size - 1};
        if (!span_begins(behind, key))
            continue;
        const size_t length = strlen(key);
        *value = {.begin = behind.begin + length, .size = behind.size - length};
        if (!span_begins(*value, sign))
            continue;
        value->begin += strlen(sign);
        value->size -= strlen(sign);
        return true;
    }
    return false;
}
