// The sections of the text that Samba includes, which may be anything. [global], which ends the
// file, is no share and passed over. Touches no world; everything is lent from the text.
#pragma once

#include <stddef.h>

// A run of bytes inside a text.
struct Span {
    const char* begin;
    size_t size;
};

struct IncludeSection {
    Span name;
    Span text; // from its header to before the next one
};

// Takes the next section from `text`, which is left behind it; false when there is none.
[[nodiscard]] bool include_section_next(const char** text, IncludeSection* section);

// Takes the next line, without its line feed, from `text`; false at its end.
[[nodiscard]] bool span_next_line(Span* text, Span* line);

// Finds the first line "<tab>key = value" of the section; false without one.
[[nodiscard]] bool include_section_value(const IncludeSection* section, const char* key,
                                         Span* value);

[[nodiscard]] bool span_is(Span a, Span b);

// Whether the run begins with the text.
[[nodiscard]] bool span_begins(Span span, const char* text);
