#include "config/ini.h"

#include "lib/file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

static constexpr size_t key_significant = 511;
static constexpr size_t value_max = 2047;
static constexpr size_t first_places = 64;  // of a document's table; doubled as sections come
static constexpr size_t first_entries = 16; // of a section; doubled as they come

namespace {

// A run of bytes inside the text.
struct Span {
    const char* begin;
    const char* end;

    size_t size() const { return static_cast<size_t>(end - begin); }
    bool empty() const { return begin == end; }
};

// A header as a lookup finds it, in a table hashed by name. An unused place has no name.
struct Place {
    Span name;
    const char* body; // just behind the header's line
    uint32_t hash;    // of the name
};

// A line with a "=".
struct Entry {
    const char* line;
    const char* equals; // the first one
    const char* end;
    char letter; // the key's first, upper-cased: tells most keys apart
};

// A key that is asked for as it is compared: upper-cased and without its blanks.
struct Key {
    char text[key_significant + 1];
    size_t length;
};

} // namespace

struct IniDoc {
    char* text; // `size` bytes and one NUL behind them, every line end a line feed
    size_t size;
    Place* table;  // `places` of them, a power of two, at most half of them used
    size_t places; // 0 before there is a table
    size_t sections;
};

struct IniSection {
    Entry* entries; // `count` of them in file order, room for `room`
    size_t count;
    size_t room;
};

static constexpr bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

static bool ends_line(char c)
{
    return c == '\n' || c == '\r' || c == '\0';
}

// Upper case of ASCII letters, as toupper(3) in the C locale, for what is compared byte by byte.
static constexpr char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

namespace {

// What of a key's character is compared, by its byte: upper case, and 0 for a blank.
struct KeyFold {
    char of[256];
};

} // namespace

static constexpr KeyFold make_key_fold()
{
    KeyFold fold = {};
    for (int byte = 0; byte < 256; byte++) {
        const auto c = static_cast<char>(byte);
        fold.of[byte] = is_blank(c) ? '\0' : upper(c);
    }
    return fold;
}

static constexpr KeyFold key_fold = make_key_fold();

static char fold_key(char c)
{
    return key_fold.of[static_cast<unsigned char>(c)];
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

static bool is_place_of(const Place& place, Span name, uint32_t hash)
{
    return place.hash == hash && same_name(place.name, name);
}

// The place of a name in the table: its own, or the unused one where it belongs.
static Place* find_place(const IniDoc* doc, Span name, uint32_t hash)
{
    size_t at = hash & (doc->places - 1);
    while (doc->table[at].name.begin != nullptr && !is_place_of(doc->table[at], name, hash))
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
    const MemGuard<Place> old(doc->table);
    const size_t old_places = doc->places;
    doc->table = static_cast<Place*>(calloc(places, sizeof(Place)));
    if (doc->table == nullptr)
        return -ENOMEM;
    doc->places = places;
    for (size_t at = 0; at < old_places; at++) {
        const Place& place = old.get()[at];
        if (place.name.begin != nullptr)
            *find_place(doc, place.name, place.hash) = place;
    }
    return 0;
}

// A section whose name is known takes that one's place.
static int add_section(IniDoc* doc, const Place& section)
{
    Place* place = find_place(doc, section.name, section.hash);
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

// Drops the line that was being read.
static void drop_unfinished_line(FileBytes* content)
{
    while (content->size > 0 && !ends_line(content->bytes.get()[content->size - 1]))
        content->size--;
    content->bytes.get()[content->size] = '\0';
}

static IniDoc* create_doc()
{
    return static_cast<IniDoc*>(calloc(1, sizeof(IniDoc)));
}

// Makes a document of a file, and of what came before a failed read where `partly` allows it.
// Returns 0; -ENOMEM; the negated errno of the read.
static int make_doc(int fd, bool partly, IniDoc** doc)
{
    FileBytes content;
    const int result = file_read_fd(fd, FILE_ANY_SIZE, &content);
    if (result == -ENOMEM || (result != 0 && !partly))
        return result;
    if (result != 0)
        drop_unfinished_line(&content);
    IniDocGuard made(create_doc());
    if (!made)
        return -ENOMEM;
    made->text = content.bytes.take();
    made->size = content.size;
    if (index_sections(made.get()) != 0)
        return -ENOMEM;
    *doc = made.take();
    return 0;
}

int ini_doc_load(const char* path, IniDoc** doc)
{
    if (path == nullptr || doc == nullptr)
        return -EINVAL;
    const FdGuard fd(open(path, O_RDONLY | O_CLOEXEC));
    return fd.get() < 0 ? -EIO : make_doc(fd.get(), true, doc);
}

int ini_doc_read(int fd, IniDoc** doc)
{
    return make_doc(fd, false, doc);
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

// ---- one section's entries ----

// Just behind the section's header, or the text's beginning for no name; null without the section.
static const char* find_body(const IniDoc* doc, const char* name)
{
    if (name == nullptr || *name == '\0')
        return doc->text;
    const Span whole = {.begin = name, .end = name + strlen(name)};
    return find_place(doc, whole, hash_name(whole))->body;
}

static int add_entry(IniSection* section, const Entry& entry)
{
    if (section->count == section->room) {
        const size_t room = section->room == 0 ? first_entries : section->room * 2;
        void* larger = realloc(section->entries, room * sizeof(Entry));
        if (larger == nullptr)
            return -ENOMEM;
        section->entries = static_cast<Entry*>(larger);
        section->room = room;
    }
    section->entries[section->count++] = entry;
    return 0;
}

// Lists the lines with a "=" from `rest` on to the section's end. Returns 0 or -ENOMEM.
static int list_entries(Span rest, IniSection* section)
{
    Span line;
    while (next_line(&rest, &line) && !ends_section(line)) {
        const char* equals = find_char(line, '=');
        if (equals == nullptr)
            continue;
        const char first = *skip_blanks({.begin = line.begin, .end = equals}).begin;
        if (add_entry(section, {line.begin, equals, line.end, upper(first)}) != 0)
            return -ENOMEM;
    }
    return 0;
}

int ini_section_open(const IniDoc* doc, const char* name, IniSection** section)
{
    if (doc == nullptr || section == nullptr)
        return -EINVAL;
    const char* body = find_body(doc, name);
    if (body == nullptr)
        return -1;
    IniSectionGuard made(static_cast<IniSection*>(calloc(1, sizeof(IniSection))));
    if (!made)
        return -ENOMEM;
    if (list_entries({.begin = body, .end = doc->text + doc->size}, made.get()) != 0)
        return -ENOMEM;
    *section = made.take();
    return 0;
}

void ini_section_free(IniSection* section)
{
    free(section->entries);
    free(section);
}

// ---- values ----

static void reduce_key(const char* asked, Key* key)
{
    size_t length = 0;
    for (; *asked != '\0' && length < key_significant; asked++) {
        key->text[length] = fold_key(*asked);
        length += key->text[length] != '\0' ? 1 : 0;
    }
    key->text[length] = '\0';
    key->length = length;
}

static bool has_key(const Entry& entry, const Key& key)
{
    const char* compared = key.text;
    for (const char* at = entry.line; at != entry.equals; at++) {
        const char c = fold_key(*at);
        if (c == '\0')
            continue;
        if (c != *compared) // as at the key's end, where a NUL stands
            return compared == key.text + key_significant;
        compared++;
    }
    return compared == key.text + key.length;
}

// The wanted entry; null when there is none.
static const Entry* find_entry(const IniSection* section, const char* asked, int32_t occurrence)
{
    Key key;
    reduce_key(asked, &key);
    const char letter =
        key.length > 0 ? key.text[0] : '='; // which is what an empty key begins with
    const Entry* last = nullptr;
    int32_t seen = 0;
    for (size_t at = 0; at < section->count; at++) {
        const Entry& entry = section->entries[at];
        if (entry.letter != letter || !has_key(entry, key))
            continue;
        last = &entry;
        if (++seen == occurrence)
            return last;
    }
    return occurrence == INI_LAST ? last : nullptr;
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

int ini_section_get_string(const IniSection* section, const char* key, char** value,
                           int32_t occurrence)
{
    if (section == nullptr || key == nullptr || value == nullptr)
        return -EINVAL;
    const Entry* found = find_entry(section, key, occurrence);
    if (found == nullptr)
        return -ENOENT;
    char* copy = copy_value({.begin = found->equals + 1, .end = found->end});
    if (copy == nullptr)
        return -ENOMEM;
    *value = copy;
    return 0;
}

bool ini_section_is_cut(const IniSection* section, const char* key)
{
    if (section == nullptr || key == nullptr)
        return false;
    const Entry* found = find_entry(section, key, INI_LAST);
    return found != nullptr &&
           trim({.begin = found->equals + 1, .end = found->end}).size() > value_max;
}

int ini_doc_get_string(const IniDoc* doc, const char* section, const char* key, char** value,
                       int32_t occurrence)
{
    if (doc == nullptr || key == nullptr || value == nullptr)
        return -EINVAL;
    IniSectionGuard entries;
    const int result = ini_section_open(doc, section, entries.out());
    if (result != 0)
        return result;
    return ini_section_get_string(entries.get(), key, value, occurrence);
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
