#include "common/mountinfo.h"

#include "lib/file.h"
#include "lib/str.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

// ---- fields ----

static bool is_octal(char c, char highest)
{
    return c >= '0' && c <= highest;
}

// Decodes "\ooo" in place; a backslash before anything else stands for itself.
static void decode(char* field)
{
    char* to = field;
    for (const char* from = field; *from != '\0'; to++) {
        if (from[0] != '\\' || !is_octal(from[1], '3') || !is_octal(from[2], '7') ||
            !is_octal(from[3], '7')) {
            *to = *from++;
            continue;
        }
        *to = static_cast<char>((from[1] - '0') * 64 + (from[2] - '0') * 8 + (from[3] - '0'));
        from += 4;
    }
    *to = '\0';
}

// Takes the next field, ended by one blank, from `rest`; null at the end of the line.
static char* next_field(char** rest)
{
    char* field = *rest;
    if (*field == '\0')
        return nullptr;
    char* end = strchr(field, ' ');
    if (end == nullptr) {
        *rest = field + strlen(field);
        return field;
    }
    *end = '\0';
    *rest = end + 1;
    return field;
}

// As next_field, decoded; null for an empty one too.
static const char* next_text(char** rest)
{
    char* field = next_field(rest);
    if (field == nullptr || *field == '\0')
        return nullptr;
    decode(field);
    return field;
}

static bool next_number(char** rest, int32_t* number)
{
    const char* field = next_field(rest);
    return field != nullptr && str_to_long(field, number, 10) == 0;
}

// Reads the digits that the text begins with. Lends what is behind them; null for none, or too
// many.
static const char* read_digits(const char* text, uint32_t* number)
{
    if (*text < '0' || *text > '9') // which strtoull(3) would pass over, or take for a sign
        return nullptr;
    char* end = nullptr;
    const unsigned long long value = strtoull(text, &end, 10);
    *number = static_cast<uint32_t>(value);
    return value <= UINT32_MAX ? end : nullptr;
}

// "major:minor"
static bool next_device(char** rest, MountinfoEntry* entry)
{
    const char* field = next_field(rest);
    const char* colon = field != nullptr ? read_digits(field, &entry->major) : nullptr;
    const char* end =
        colon != nullptr && *colon == ':' ? read_digits(colon + 1, &entry->minor) : nullptr;
    return end != nullptr && *end == '\0';
}

// Whether options, separated by commas, hold "ro". The kernel writes a comma within one as "\\054".
static bool says_readonly(const char* options)
{
    while (*options != '\0') {
        const size_t length = strcspn(options, ",");
        if (length == 2 && memcmp(options, "ro", 2) == 0)
            return true;
        options += length;
        options += *options == ',' ? 1 : 0;
    }
    return false;
}

// Passes over the optional fields and the "-" behind them.
static bool skip_optional(char** rest)
{
    for (const char* field = next_field(rest); field != nullptr; field = next_field(rest)) {
        if (strcmp(field, "-") == 0)
            return true;
    }
    return false;
}

static bool parse_line(char* line, MountinfoEntry* entry)
{
    if (!next_number(&line, &entry->id) || !next_number(&line, &entry->parent) ||
        !next_device(&line, entry))
        return false;
    entry->root = next_text(&line);
    entry->directory = next_text(&line);
    if (entry->root == nullptr || entry->directory == nullptr)
        return false;
    entry->options = next_field(&line);
    if (entry->options == nullptr || !skip_optional(&line))
        return false;
    entry->type = next_text(&line);
    entry->source = next_field(&line); // an empty name is one
    if (entry->type == nullptr || entry->source == nullptr)
        return false;
    decode(const_cast<char*>(entry->source));      // points into the table's own text
    const char* of_filesystem = next_field(&line); // null where the kernel tells none
    entry->readonly =
        says_readonly(entry->options) || (of_filesystem != nullptr && says_readonly(of_filesystem));
    return true;
}

// ---- the table ----

static size_t count_lines(const char* text, size_t size)
{
    size_t lines = 1; // the last may have no line feed
    for (size_t i = 0; i < size; i++)
        lines += text[i] == '\n' ? 1 : 0;
    return lines;
}

static void parse_lines(Mountinfo* table, size_t size)
{
    char* line = table->text;
    const char* end = table->text + size;
    while (line < end) {
        char* feed = static_cast<char*>(memchr(line, '\n', static_cast<size_t>(end - line)));
        char* next = feed != nullptr ? feed + 1 : table->text + size;
        if (feed != nullptr)
            *feed = '\0';
        if (parse_line(line, &table->entries[table->count]))
            table->count++;
        line = next;
    }
}

// Takes the text, of `size` bytes and one NUL. Returns 0 and an owned table; -ENOMEM.
static int make_table(MemGuard<char>* text, size_t size, Mountinfo** table)
{
    MountinfoGuard made(static_cast<Mountinfo*>(calloc(1, sizeof(Mountinfo))));
    if (!made)
        return -ENOMEM;
    made->text = text->take();
    made->entries =
        static_cast<MountinfoEntry*>(calloc(count_lines(made->text, size), sizeof(MountinfoEntry)));
    if (made->entries == nullptr)
        return -ENOMEM;
    parse_lines(made.get(), size);
    *table = made.take();
    return 0;
}

int mountinfo_parse(const char* text, size_t size, Mountinfo** table)
{
    MemGuard<char> copy(static_cast<char*>(malloc(size + 1)));
    if (!copy)
        return -ENOMEM;
    if (size > 0)
        memcpy(copy.get(), text, size);
    copy.get()[size] = '\0';
    return make_table(&copy, size, table);
}

int mountinfo_load(const char* path, Mountinfo** table)
{
    const FdGuard fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;
    FileBytes content;
    const int result = file_read_fd(fd.get(), FILE_ANY_SIZE, &content);
    if (result != 0)
        return result;
    return make_table(&content.bytes, content.size, table);
}

void mountinfo_free(Mountinfo* table)
{
    free(table->text);
    free(table->entries);
    free(table);
}

// ---- paths ----

static const char* skip_slashes(const char* path)
{
    while (*path == '/')
        path++;
    return path;
}

const char* mountinfo_rest(const char* path, const char* directory)
{
    if (*path != '/' || *directory != '/')
        return nullptr;
    path = skip_slashes(path);
    directory = skip_slashes(directory);
    while (*directory != '\0') {
        const size_t length = strcspn(directory, "/");
        if (strcspn(path, "/") != length || memcmp(path, directory, length) != 0)
            return nullptr;
        path = skip_slashes(path + length);
        directory = skip_slashes(directory + length);
    }
    return path;
}

bool mountinfo_is_below(const char* path, const char* directory)
{
    const char* rest = mountinfo_rest(path, directory);
    return rest != nullptr && *rest != '\0';
}

const MountinfoEntry* mountinfo_find(const Mountinfo* table, const char* path)
{
    const MountinfoEntry* found = nullptr;
    size_t shortest = SIZE_MAX; // what is left of the path behind the directory
    for (size_t i = 0; i < table->count; i++) {
        const char* rest = mountinfo_rest(path, table->entries[i].directory);
        if (rest == nullptr || strlen(rest) > shortest)
            continue;
        shortest = strlen(rest);
        found = &table->entries[i];
    }
    return found;
}

const MountinfoEntry* mountinfo_find_device(const Mountinfo* table, int32_t major, int32_t minor,
                                            const char* directory)
{
    for (size_t i = 0; i < table->count; i++) {
        const MountinfoEntry& mount = table->entries[i];
        if (mount.major == static_cast<uint32_t>(major) &&
            mount.minor == static_cast<uint32_t>(minor) &&
            mountinfo_is_below(mount.directory, directory))
            return &mount;
    }
    return nullptr;
}

// ---- swap areas ----

const char* mountinfo_swap_path(char* line)
{
    static constexpr char deleted[] = " (deleted)"; // what the kernel puts behind a removed node
    if (line[0] != '/')
        return nullptr;
    line[strcspn(line, " \t\n")] = '\0';
    decode(line);
    const size_t length = strlen(line);
    const size_t mark = sizeof deleted - 1;
    if (length > mark && strcmp(line + length - mark, deleted) == 0)
        line[length - mark] = '\0';
    return line;
}
