#include "ctl/sections.h"

#include "ctl/array.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

// ---- lines ----

namespace {

struct Line {
    size_t begin;
    size_t end;  // before what ends the line
    size_t next; // behind it
};

} // namespace

static bool ends_line(char c)
{
    return c == '\n' || c == '\r' || c == '\0';
}

static bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

static Line line_at(const char* text, size_t size, size_t begin)
{
    size_t end = begin;
    while (end < size && !ends_line(text[end]))
        end++;
    return {begin, end, end < size ? end + 1 : end};
}

// ---- cutting ----

// Whether the line is a header in any sense; the name stays empty where the service lists none.
static bool is_header(const char* text, const Line& line, Section* section)
{
    size_t open = line.begin;
    while (open < line.end && is_blank(text[open]))
        open++;
    if (open == line.end || text[open] != '[')
        return false;
    size_t close = line.end;
    while (close > open && text[close - 1] != ']')
        close--;
    if (close == open)
        return false;
    size_t behind = close;
    while (behind < line.end && is_blank(text[behind]))
        behind++;
    section->name = open + 1;
    section->name_size = behind == line.end ? close - open - 2 : 0;
    return true;
}

static Section* append(SectionTable* table)
{
    void* grown = array_grow(table->sections, table->count, sizeof(Section));
    if (grown == nullptr)
        return nullptr;
    table->sections = static_cast<Section*>(grown);
    return &table->sections[table->count++];
}

int sections_cut(const char* text, size_t size, SectionTable** table)
{
    SectionTableGuard made(static_cast<SectionTable*>(calloc(1, sizeof(SectionTable))));
    Section* current = made ? append(made.get()) : nullptr;
    if (current == nullptr)
        return -ENOMEM;
    for (size_t at = 0; at < size;) {
        const Line line = line_at(text, size, at);
        Section header = {};
        if (is_header(text, line, &header)) {
            current->end = line.begin;
            current = append(made.get());
            if (current == nullptr)
                return -ENOMEM;
            *current = header;
            current->begin = line.begin;
            current->body = line.next;
        }
        at = line.next;
    }
    current->end = size;
    *table = made.take();
    return 0;
}

void sections_free(SectionTable* table)
{
    if (table == nullptr)
        return;
    free(table->sections);
    free(table);
}

static bool is_named(const char* text, const Section& section, const char* name)
{
    return section.name_size > 0 && strlen(name) == section.name_size &&
           strncasecmp(text + section.name, name, section.name_size) == 0;
}

const Section* sections_find(const SectionTable* table, const char* text, const char* name)
{
    for (size_t i = table->count; i > 0; i--) {
        if (is_named(text, table->sections[i - 1], name))
            return &table->sections[i - 1];
    }
    return nullptr;
}

// ---- entries ----

// Whether the line is an entry of the key. `key` has no blanks.
static bool is_entry(const char* text, const Line& line, const char* key)
{
    for (size_t i = line.begin; i < line.end; i++) {
        if (text[i] == '=')
            return *key == '\0';
        if (is_blank(text[i]))
            continue;
        if (strncasecmp(text + i, key, 1) != 0)
            return false;
        key++;
    }
    return false;
}

bool section_has(const char* text, const Section& section, const char* key)
{
    for (size_t at = section.body; at < section.end;) {
        const Line line = line_at(text, section.end, at);
        if (is_entry(text, line, key))
            return true;
        at = line.next;
    }
    return false;
}

// ---- new texts ----

// Returns -ENOMEM, or -EFBIG.
static int reserve(FileBytes* out, size_t more)
{
    if (more >= SIZE_MAX - 1 - out->size)
        return -EFBIG;
    char* held = out->bytes.take();
    void* moved = realloc(held, out->size + more + 1);
    if (moved == nullptr) {
        out->bytes.reset(held);
        return -ENOMEM;
    }
    out->bytes.reset(static_cast<char*>(moved));
    return 0;
}

// Room for it has been made.
static void put(FileBytes* out, const char* bytes, size_t size)
{
    if (size > 0)
        memcpy(out->bytes.get() + out->size, bytes, size);
    out->size += size;
    out->bytes.get()[out->size] = '\0';
}

static void put_text(FileBytes* out, const char* text)
{
    put(out, text, strlen(text));
}

static void put_change(FileBytes* out, const SectionChange& change)
{
    if (change.value == nullptr)
        return;
    put_text(out, change.key);
    put_text(out, "=");
    put_text(out, change.value);
    put_text(out, "\n");
}

static bool is_changed(const char* text, const Line& line, const SectionChange* changes,
                       size_t count)
{
    for (size_t i = 0; i < count; i++) {
        char key[64];
        size_t length = 0;
        for (const char* from = changes[i].key; *from != '\0' && length + 1 < sizeof key; from++) {
            if (!is_blank(*from))
                key[length++] = *from;
        }
        key[length] = '\0';
        if (is_entry(text, line, key))
            return true;
    }
    return false;
}

// Puts a line feed behind what does not end in one.
static void end_line(FileBytes* out)
{
    if (out->size > 0 && !ends_line(out->bytes.get()[out->size - 1]))
        put_text(out, "\n");
}

static size_t changes_size(const char* name, const SectionChange* changes, size_t count)
{
    size_t size = strlen(name) + 8; // brackets, line feeds
    for (size_t i = 0; i < count; i++)
        size += strlen(changes[i].key) + 2 +
                (changes[i].value != nullptr ? strlen(changes[i].value) : 0);
    return size;
}

int sections_change(const char* text, size_t size, const char* name, const SectionChange* changes,
                    size_t count, FileBytes* out)
{
    SectionTableGuard table;
    if (sections_cut(text, size, table.out()) != 0)
        return -ENOMEM;
    out->size = 0;
    const int result = reserve(out, size + changes_size(name, changes, count));
    if (result != 0)
        return result;
    const Section* found = sections_find(table.get(), text, name);
    put(out, text, found != nullptr ? found->body : size);
    end_line(out);
    if (found == nullptr) {
        put_text(out, "[");
        put_text(out, name);
        put_text(out, "]\n");
    }
    for (size_t i = 0; i < count; i++)
        put_change(out, changes[i]);
    if (found == nullptr)
        return 0;
    for (size_t at = found->body; at < found->end;) {
        const Line line = line_at(text, found->end, at);
        if (!is_changed(text, line, changes, count))
            put(out, text + at, line.next - at);
        at = line.next;
    }
    put(out, text + found->end, size - found->end);
    return 0;
}

int sections_empty(const char* text, size_t size, const char* name, bool headers, FileBytes* out)
{
    SectionTableGuard table;
    if (sections_cut(text, size, table.out()) != 0)
        return -ENOMEM;
    out->size = 0;
    const int result = reserve(out, size);
    if (result != 0)
        return result;
    for (size_t i = 0; i < table->count; i++) {
        const Section& section = table->sections[i];
        const size_t kept = headers ? section.body : section.begin;
        const size_t end = is_named(text, section, name) ? kept : section.end;
        put(out, text + section.begin, end - section.begin);
    }
    return 0;
}

namespace {

struct Name {
    const char* text;
    size_t size;
};

} // namespace

// For qsort and bsearch.
static int compare(const void* a, const void* b)
{
    const Name& first = *static_cast<const Name*>(a);
    const Name& second = *static_cast<const Name*>(b);
    const bool shorter = first.size < second.size;
    const int order = strncasecmp(first.text, second.text, shorter ? first.size : second.size);
    if (order != 0 || first.size == second.size)
        return order;
    return shorter ? -1 : 1;
}

// Returns owned: the names of the sections that have one, sorted, which point into `text`; null
// without memory.
static Name* sort_names(const SectionTable& table, const char* text, size_t* count)
{
    auto* names = static_cast<Name*>(calloc(table.count, sizeof(Name)));
    *count = 0;
    for (size_t i = 0; names != nullptr && i < table.count; i++) {
        const Section& section = table.sections[i];
        if (section.name_size > 0)
            names[(*count)++] = {text + section.name, section.name_size};
    }
    if (*count > 1)
        qsort(names, *count, sizeof *names, compare);
    return names;
}

int sections_unite(const FileBytes& text, const FileBytes& other, FileBytes* out)
{
    SectionTableGuard table;
    SectionTableGuard others;
    if (sections_cut(text.bytes.get(), text.size, table.out()) != 0 ||
        sections_cut(other.bytes.get(), other.size, others.out()) != 0)
        return -ENOMEM;
    size_t count = 0;
    const MemGuard<Name> names(sort_names(*table.get(), text.bytes.get(), &count));
    if (!names)
        return -ENOMEM;
    out->size = 0;
    const int result = reserve(out, text.size + other.size + 1);
    if (result != 0)
        return result;
    put(out, text.bytes.get(), text.size);
    int added = 0;
    for (size_t i = 0; i < others->count; i++) {
        const Section& section = others->sections[i];
        const Name name = {other.bytes.get() + section.name, section.name_size};
        if (name.size == 0 || bsearch(&name, names.get(), count, sizeof name, compare) != nullptr)
            continue;
        end_line(out);
        put(out, other.bytes.get() + section.begin, section.end - section.begin);
        added++;
    }
    return added;
}
