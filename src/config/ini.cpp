#include "config/ini.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

static constexpr size_t key_significant = 511;
static constexpr size_t value_max = 2047;
static constexpr size_t first_read = 4096; // bytes; doubled as the file needs
static constexpr size_t listed_max = 24;   // entries of a section that are kept at hand
static constexpr size_t first_places = 64; // of the table of sections; doubled as they come

namespace {

// A run of bytes inside the text.
struct Span {
    const char* begin;
    const char* end;

    size_t size() const { return static_cast<size_t>(end - begin); }
    bool empty() const { return begin == end; }
};

// A header as a lookup finds it, in a table hashed by name. An unused place has no name.
struct Section {
    Span name;
    const char* body; // just behind the header's line
    uint32_t hash;    // of the name
};

// An entry's line, and the upper-cased letter that its key begins with ("=" for an empty key).
struct Entry {
    Span line;
    char letter;
};

// The section that was asked last, for the next key is most often asked of the same one: its place
// and its first entries, so that they are not looked for in the text again.
struct RecentSection {
    const Section* place; // null before the first question
    const char* body;     // whose entries are listed; null for none
    size_t count;
    Entry entries[listed_max];
    Span rest; // the text behind the listed entries' lines; empty at the section's end
};

} // namespace

struct IniDoc {
    char* text; // `size` bytes and one NUL behind them, every line end a line feed
    size_t size;
    Section* table; // `places` of them, a power of two, at most half of them used
    size_t places;
    size_t sections; // how many are used
    mutable RecentSection recent;
};

static bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

static bool ends_line(char c)
{
    return c == '\n' || c == '\r' || c == '\0';
}

// Upper case of ASCII letters, as toupper(3) in the C locale, for what is compared byte by byte.
static char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Makes every line end a line feed, so that the C library can look for it.
static void unify_line_ends(IniDoc* doc)
{
    const char* end = doc->text + doc->size;
    constexpr char others[] = {'\r', '\0'};
    for (const char other : others) {
        char* at = doc->text;
        while ((at = static_cast<char*>(memchr(at, other, static_cast<size_t>(end - at)))) !=
               nullptr)
            *at++ = '\n';
    }
}

// Takes the next line from `rest`, whose line ends are unified; false at the end of the text.
static bool next_line(Span* rest, Span* line)
{
    if (rest->empty())
        return false;
    const auto* end = static_cast<const char*>(memchr(rest->begin, '\n', rest->size()));
    *line = {.begin = rest->begin, .end = end != nullptr ? end : rest->end};
    rest->begin = end != nullptr ? end + 1 : rest->end;
    return true;
}

// As next_line, but passes over lines without a "[": all but headers, as a rule.
static bool next_bracket_line(Span* rest, Span* line)
{
    if (rest->empty())
        return false;
    const auto* bracket = static_cast<const char*>(memchr(rest->begin, '[', rest->size()));
    if (bracket == nullptr)
        return false;
    const char* begin = bracket;
    while (begin != rest->begin && begin[-1] != '\n')
        begin--;
    rest->begin = begin;
    return next_line(rest, line);
}

static Span skip_blanks(Span span)
{
    while (!span.empty() && is_blank(*span.begin))
        span.begin++;
    return span;
}

static Span trim(Span span)
{
    span = skip_blanks(span);
    while (!span.empty() && is_blank(span.end[-1]))
        span.end--;
    return span;
}

static const char* find_char(Span span, char c)
{
    return static_cast<const char*>(memchr(span.begin, c, span.size()));
}

// ---- headers and the table of sections ----

// The name by which a lookup finds the header in `line`; false when the line is none.
static bool header_for_lookup(Span line, Span* name)
{
    line = skip_blanks(line);
    if (line.empty() || *line.begin != '[')
        return false;
    line.begin++;
    const char* close = find_char(line, ']');
    if (close == nullptr)
        return false;
    *name = {.begin = line.begin, .end = close};
    return true;
}

// The name that the section list takes from `line`; false when it takes none.
static bool header_for_list(Span line, Span* name)
{
    line = trim(line);
    if (line.size() < 3 || *line.begin != '[' || line.end[-1] != ']')
        return false;
    *name = {.begin = line.begin + 1, .end = line.end - 1};
    return true;
}

static bool ends_section(Span line)
{
    return !line.empty() && *line.begin == '[' && find_char(line, ']') != nullptr;
}

static bool same_bytes(Span a, Span b)
{
    return a.size() == b.size() && memcmp(a.begin, b.begin, a.size()) == 0;
}

static bool same_name(Span a, Span b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); i++) {
        if (upper(a.begin[i]) != upper(b.begin[i]))
            return false;
    }
    return true;
}

// FNV-1a (Fowler, Noll, Vo) over the upper-cased name.
static uint32_t hash_name(Span name)
{
    uint32_t hash = 2166136261U;
    for (const char* at = name.begin; at != name.end; at++)
        hash = (hash ^ static_cast<unsigned char>(upper(*at))) * 16777619U;
    return hash;
}

static bool is_section(const Section& section, Span name, uint32_t hash)
{
    return section.hash == hash && same_name(section.name, name);
}

// The place of a name in the table: its own, or the unused one where it belongs.
static Section* find_place(const IniDoc* doc, Span name, uint32_t hash)
{
    size_t at = hash & (doc->places - 1);
    while (doc->table[at].name.begin != nullptr && !is_section(doc->table[at], name, hash))
        at = (at + 1) & (doc->places - 1);
    return &doc->table[at];
}

static Span whole_text(const IniDoc* doc)
{
    return {.begin = doc->text, .end = doc->text + doc->size};
}

// Puts a table of so many places in the place of the one there is. Returns 0 or -ENOMEM.
static int make_places(IniDoc* doc, size_t places)
{
    const MemGuard<Section> old(doc->table);
    const size_t old_places = doc->places;
    doc->table = static_cast<Section*>(calloc(places, sizeof(Section)));
    if (doc->table == nullptr)
        return -ENOMEM;
    doc->places = places;
    for (size_t at = 0; at < old_places; at++) {
        const Section& section = old.get()[at];
        if (section.name.begin != nullptr)
            *find_place(doc, section.name, section.hash) = section;
    }
    return 0;
}

// A section whose name is known takes that one's place.
static int add_section(IniDoc* doc, const Section& section)
{
    Section* place = find_place(doc, section.name, section.hash);
    const bool known = place->name.begin != nullptr;
    *place = section;
    if (known || ++doc->sections * 2 < doc->places)
        return 0;
    return make_places(doc, doc->places * 2);
}

// Fills the table in file order, so that the last header of a name is the one that stays.
static int index_sections(IniDoc* doc)
{
    unify_line_ends(doc);
    if (make_places(doc, first_places) != 0)
        return -ENOMEM;
    Span rest = whole_text(doc);
    Span line;
    Span name;
    while (next_bracket_line(&rest, &line)) {
        if (header_for_lookup(line, &name) &&
            add_section(doc, {.name = name, .body = rest.begin, .hash = hash_name(name)}) != 0)
            return -ENOMEM;
    }
    return 0;
}

// ---- reading the file ----

// Makes room for `size` bytes and a NUL, at least doubling. Returns 0 or -ENOMEM.
static int grow(char** buffer, size_t* capacity)
{
    if (*capacity > SIZE_MAX / 2)
        return -ENOMEM;
    const size_t doubled = *capacity * 2;
    auto* larger = static_cast<char*>(realloc(*buffer, doubled));
    if (larger == nullptr)
        return -ENOMEM;
    *buffer = larger;
    *capacity = doubled;
    return 0;
}

// Drops the line that was being read.
static void drop_unfinished_line(const char* text, size_t* size)
{
    while (*size > 0 && !ends_line(text[*size - 1]))
        --*size;
}

// Reads to the end of the file or to a read error. Returns 0 or -ENOMEM.
static int read_all(int fd, char** buffer, size_t* size)
{
    size_t capacity = first_read;
    *size = 0;
    *buffer = static_cast<char*>(malloc(capacity));
    if (*buffer == nullptr)
        return -ENOMEM;
    for (;;) {
        if (*size + 1 == capacity && grow(buffer, &capacity) != 0)
            return -ENOMEM;
        const ssize_t count = read(fd, *buffer + *size, capacity - *size - 1);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            drop_unfinished_line(*buffer, size);
        if (count <= 0)
            break;
        *size += static_cast<size_t>(count);
    }
    (*buffer)[*size] = '\0';
    return 0;
}

static IniDoc* create_doc()
{
    return static_cast<IniDoc*>(calloc(1, sizeof(IniDoc)));
}

int ini_doc_load(const char* path, IniDoc** doc)
{
    if (path == nullptr || doc == nullptr)
        return -EINVAL;
    const FdGuard fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return -EIO;
    IniDocGuard made(create_doc());
    if (!made)
        return -ENOMEM;
    if (read_all(fd.get(), &made->text, &made->size) != 0)
        return -ENOMEM;
    if (index_sections(made.get()) != 0)
        return -ENOMEM;
    *doc = made.take();
    return 0;
}

int ini_doc_parse(const char* text, size_t size, IniDoc** doc)
{
    IniDocGuard made(create_doc());
    if (!made)
        return -ENOMEM;
    made->size = size;
    made->text = static_cast<char*>(malloc(size + 1));
    if (made->text == nullptr)
        return -ENOMEM;
    if (size > 0)
        memcpy(made->text, text, size);
    made->text[size] = '\0';
    if (index_sections(made.get()) != 0)
        return -ENOMEM;
    *doc = made.take();
    return 0;
}

void ini_doc_free(IniDoc* doc)
{
    free(doc->text);
    free(doc->table);
    free(doc);
}

// ---- values ----

// Just behind the section's header, or the text's beginning for no name; null without the section.
static const char* find_section(const IniDoc* doc, const char* section)
{
    if (section == nullptr || *section == '\0')
        return doc->text;
    const Span name = {.begin = section, .end = section + strlen(section)};
    if (doc->recent.place == nullptr || !same_bytes(doc->recent.place->name, name))
        doc->recent.place = find_place(doc, name, hash_name(name));
    return doc->recent.place->body;
}

static bool same_letter(char a, char b)
{
    return a == b || upper(a) == upper(b);
}

// Whether the line is an entry of that key, both without their blanks; fills `value` with what
// stands behind the "=".
static bool is_entry(Span line, const char* asked, Span* value)
{
    const char* at = line.begin;
    for (size_t compared = 0; compared < key_significant; compared++) {
        while (at != line.end && is_blank(*at))
            at++;
        while (is_blank(*asked))
            asked++;
        if (at == line.end)
            return false;
        if (*at == '=' && *asked == '\0') {
            *value = {.begin = at + 1, .end = line.end};
            return true;
        }
        if (*at == '=' || !same_letter(*at++, *asked++))
            return false;
    }
    const char* equals = find_char({.begin = at, .end = line.end}, '=');
    if (equals != nullptr)
        *value = {.begin = equals + 1, .end = line.end};
    return equals != nullptr;
}

// The letter that tells most keys apart: `text` begins a key.
static char first_letter(const char* text)
{
    while (is_blank(*text))
        text++;
    return *text == '\0' ? '=' : upper(*text);
}

// Lists the first entries of the section from `body` on, unless they are listed already.
static const RecentSection* list_entries(const IniDoc* doc, const char* body)
{
    RecentSection* recent = &doc->recent;
    if (recent->body == body)
        return recent;
    recent->body = body;
    recent->count = 0;
    recent->rest = {.begin = body, .end = doc->text + doc->size};
    Span line;
    while (recent->count < listed_max) {
        if (!next_line(&recent->rest, &line) || ends_section(line)) {
            recent->rest.begin = recent->rest.end;
            break;
        }
        if (find_char(line, '=') != nullptr)
            recent->entries[recent->count++] = {.line = line, .letter = first_letter(line.begin)};
    }
    return recent;
}

// Finds the wanted entry of the section from `body` on; false when there is none.
static bool find_value(const IniDoc* doc, const char* body, const char* key, int32_t occurrence,
                       Span* value)
{
    const RecentSection* section = list_entries(doc, body);
    const char letter = first_letter(key);
    int32_t seen = 0;
    for (size_t at = 0; at < section->count; at++) {
        const Entry& entry = section->entries[at];
        if (entry.letter == letter && is_entry(entry.line, key, value) && ++seen == occurrence)
            return true;
    }
    Span rest = section->rest;
    Span line;
    while (next_line(&rest, &line) && !ends_section(line)) {
        if (is_entry(line, key, value) && ++seen == occurrence)
            return true;
    }
    return occurrence == INI_LAST && seen > 0;
}

static char* copy_value(Span value)
{
    value = trim(value);
    const size_t length = value.size() < value_max ? value.size() : value_max;
    auto* copy = static_cast<char*>(malloc(length + 1));
    if (copy == nullptr)
        return nullptr;
    memcpy(copy, value.begin, length);
    copy[length] = '\0';
    return copy;
}

int ini_doc_get_string(const IniDoc* doc, const char* section, const char* key, char** value,
                       int32_t occurrence)
{
    if (doc == nullptr || key == nullptr || value == nullptr)
        return -EINVAL;
    const char* body = find_section(doc, section);
    if (body == nullptr)
        return -1;
    Span found = {};
    if (!find_value(doc, body, key, occurrence, &found))
        return -ENOENT;
    char* copy = copy_value(found);
    if (copy == nullptr)
        return -ENOMEM;
    *value = copy;
    return 0;
}

int config_get_ini_string(const char* path, const char* section, const char* key, char** value,
                          int32_t occurrence)
{
    if (path == nullptr || key == nullptr || value == nullptr)
        return -EINVAL;
    IniDocGuard doc;
    const int result = ini_doc_load(path, doc.out());
    if (result != 0)
        return result;
    return ini_doc_get_string(doc.get(), section, key, value, occurrence);
}

void config_release_string(char* value)
{
    free(value);
}

// ---- section list ----

static int append_name(vylist* sections, Span name)
{
    MemGuard<char> copy(strndup(name.begin, name.size()));
    if (!copy)
        return -ENOMEM;
    if (vylist_insert(sections, vylist_end(sections), copy.get()) == nullptr)
        return -ENOMEM;
    (void)copy.take();
    return 0;
}

static int append_names(const IniDoc* doc, vylist* sections)
{
    Span rest = whole_text(doc);
    Span line;
    Span name;
    while (next_bracket_line(&rest, &line)) {
        if (header_for_list(line, &name) && append_name(sections, name) != 0)
            return -ENOMEM;
    }
    return 0;
}

int ini_doc_get_section_list(const IniDoc* doc, vylist** sections)
{
    if (doc == nullptr || sections == nullptr)
        return -EINVAL;
    SectionListGuard made(vylist_create());
    if (!made)
        return -ENOMEM;
    if (append_names(doc, made.get()) != 0)
        return -ENOMEM;
    *sections = made.take();
    return 0;
}

int config_get_section_list(const char* path, vylist** sections)
{
    if (path == nullptr || sections == nullptr)
        return -EINVAL;
    IniDocGuard doc;
    const int result = ini_doc_load(path, doc.out());
    if (result != 0)
        return result;
    return ini_doc_get_section_list(doc.get(), sections);
}

void config_release_section_list(vylist* sections)
{
    if (sections == nullptr)
        return;
    for (vylist_node* node = sections->next; node != vylist_end(sections); node = node->next)
        free(node->data);
    vylist_dispose(sections);
}

// ---- words ----

int string_enable_disable(const char* text)
{
    if (text == nullptr)
        return -1;
    if (strcasecmp(text, "enable") == 0 || strcmp(text, "1") == 0)
        return 1;
    if (strcasecmp(text, "disable") == 0 || strcmp(text, "0") == 0)
        return 0;
    return -1;
}

int string_yes_no(const char* text)
{
    if (text == nullptr)
        return -1;
    if (strcasecmp(text, "y") == 0 || strcasecmp(text, "yes") == 0 || strcmp(text, "1") == 0)
        return 1;
    if (strcasecmp(text, "n") == 0 || strcasecmp(text, "no") == 0 || strcmp(text, "0") == 0)
        return 0;
    return -1;
}
