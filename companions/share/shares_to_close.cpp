#include "share/shares_to_close.h"

#include "common/include_sections.h"
#include "config/ini.h"
#include "lib/guard.h"

#include <errno.h>
#include <string.h>

static bool is_harmless(Span line, const char* const* harmless)
{
    for (; *harmless != nullptr; harmless++) {
        if (span_begins(line, *harmless))
            return true;
    }
    return false;
}

// Takes the next line that is not harmless; false at the end.
static bool next_significant(Span* text, const char* const* harmless, Span* line)
{
    while (span_next_line(text, line)) {
        if (!is_harmless(*line, harmless))
            return true;
    }
    return false;
}

static bool says_the_same(Span a, Span b, const char* const* harmless)
{
    for (;;) {
        Span line_of_a;
        Span line_of_b;
        const bool more_of_a = next_significant(&a, harmless, &line_of_a);
        const bool more_of_b = next_significant(&b, harmless, &line_of_b);
        if (!more_of_a || !more_of_b)
            return more_of_a == more_of_b;
        if (!span_is(line_of_a, line_of_b))
            return false;
    }
}

// Whether the new text has the section with the same lines.
static bool stays(const IncludeSection& section, const char* new_text, const char* const* harmless)
{
    IncludeSection other;
    while (include_section_next(&new_text, &other)) {
        if (span_is(section.name, other.name))
            return says_the_same(section.text, other.text, harmless);
    }
    return false;
}

static int append_name(vylist* names, Span name)
{
    MemGuard<char> copy(strndup(name.begin, name.size));
    if (!copy || vylist_insert(names, vylist_end(names), copy.get()) == nullptr)
        return -ENOMEM;
    (void)copy.take();
    return 0;
}

int shares_to_close(const char* old_text, const char* new_text, const char* const* harmless,
                    vylist** names)
{
    SectionListGuard found(vylist_create());
    if (!found)
        return -ENOMEM;
    IncludeSection section;
    while (include_section_next(&old_text, &section)) {
        if (!stays(section, new_text, harmless) && append_name(found.get(), section.name) != 0)
            return -ENOMEM;
    }
    *names = found.take();
    return 0;
}
