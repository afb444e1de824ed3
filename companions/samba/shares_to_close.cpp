#include "samba/shares_to_close.h"

#include "config/ini.h"
#include "lib/guard.h"

#include <errno.h>
#include <string.h>

// The last section of the file is no share.
static constexpr char global_section[] = "global";

// Lines whose change does not concern connected clients.
static constexpr const char* harmless_lines[] = {
    "\tcomment =",
    "\tstrict sync =",
    "\tsync always =",
    "\taccess based share enum =",
};

namespace {

// A run of bytes inside a text.
struct Span {
    const char* begin;
    size_t size;
};

} // namespace

static bool same_span(Span a, Span b)
{
    return a.size == b.size && memcmp(a.begin, b.begin, a.size) == 0;
}

// Takes the next line, without its line feed, from `text`; false at its end.
static bool next_line(const char** text, Span* line)
{
    if (**text == '\0')
        return false;
    *line = {.begin = *text, .size = strcspn(*text, "\n")};
    *text += line->size;
    *text += **text == '\n' ? 1 : 0;
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

// Takes the next section's name, `text` being left at its first line; false without one.
static bool next_section(const char** text, Span* name)
{
    Span line;
    while (next_line(text, &line)) {
        if (is_header(line, name))
            return true;
    }
    return false;
}

static bool is_harmless(Span line)
{
    for (const char* beginning : harmless_lines) {
        const size_t size = strlen(beginning);
        if (line.size >= size && memcmp(line.begin, beginning, size) == 0)
            return true;
    }
    return false;
}

// Takes the next line of a section that is not harmless; false at the section's end.
static bool next_significant(const char** body, Span* line)
{
    Span ignored;
    while (next_line(body, line)) {
        if (is_header(*line, &ignored))
            return false;
        if (!is_harmless(*line))
            return true;
    }
    return false;
}

static bool same_body(const char* a, const char* b)
{
    for (;;) {
        Span line_of_a;
        Span line_of_b;
        const bool more_of_a = next_significant(&a, &line_of_a);
        const bool more_of_b = next_significant(&b, &line_of_b);
        if (!more_of_a || !more_of_b)
            return more_of_a == more_of_b;
        if (!same_span(line_of_a, line_of_b))
            return false;
    }
}

// Whether the new text has the section with the same lines.
static bool stays(Span name, const char* body, const char* new_text)
{
    Span other;
    while (next_section(&new_text, &other)) {
        if (same_span(name, other))
            return same_body(body, new_text);
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

int shares_to_close(const char* old_text, const char* new_text, vylist** names)
{
    SectionListGuard found(vylist_create());
    if (!found)
        return -ENOMEM;
    const Span global = {.begin = global_section, .size = strlen(global_section)};
    Span name;
    while (next_section(&old_text, &name)) {
        if (same_span(name, global) || stays(name, old_text, new_text))
            continue;
        if (append_name(found.get(), name) != 0)
            return -ENOMEM;
    }
    *names = found.take();
    return 0;
}
