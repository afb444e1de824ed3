#include "agent/volume.h"

#include <string.h>

namespace {

struct Span {
    const char* text;
    size_t length;
};

} // namespace

static bool is_plain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c != '\0' && strchr("+-._", c) != nullptr);
}

// Appends the word, cut where the room ends. Returns the text's new length.
static size_t append(char* text, size_t size, size_t length, Span word)
{
    for (size_t i = 0; i < word.length && length + 1 < size; i++)
        text[length++] = is_plain(word.text[i]) ? word.text[i] : '_';
    text[length] = '\0';
    return length;
}

// "filesystem:ext4:1.0 other:swap:1": the middles, each once.
static void take_several(char (&list)[volume_list_size], Span value)
{
    size_t length = 0;
    size_t at = 0;
    list[0] = '\0';
    while (at < value.length) {
        const char* item = value.text + at;
        size_t end = at;
        while (end < value.length && value.text[end] != ' ')
            end++;
        const size_t whole = end - at;
        at = end + 1;
        const auto* colon = static_cast<const char*>(memchr(item, ':', whole));
        if (colon == nullptr)
            continue;
        const size_t left = whole - static_cast<size_t>(colon + 1 - item);
        const auto* second = static_cast<const char*>(memchr(colon + 1, ':', left));
        const size_t size = second != nullptr ? static_cast<size_t>(second - colon - 1) : left;
        if (size == 0 || length + 2 + size >= sizeof list)
            continue;
        if (length > 0) {
            memcpy(list + length, ", ", 3);
            length += 2;
        }
        length = append(list, sizeof list, length, {colon + 1, size});
    }
}

static bool take_word(char (&word)[volume_word_size], const char* key, Span line)
{
    const size_t length = strlen(key);
    if (line.length < length || strncmp(line.text, key, length) != 0)
        return false;
    (void)append(word, sizeof word, 0, {line.text + length, line.length - length});
    return true;
}

static void take_line(Volume* volume, Span line)
{
    static constexpr char several[] = "ID_FS_AMBIVALENT=";
    const size_t length = sizeof several - 1;
    if (line.length >= length && strncmp(line.text, several, length) == 0)
        return take_several(volume->several, {line.text + length, line.length - length});
    (void)(take_word(volume->type, "ID_FS_TYPE=", line) ||
           take_word(volume->usage, "ID_FS_USAGE=", line) ||
           take_word(volume->table, "ID_PART_TABLE_TYPE=", line));
}

void volume_parse(const char* text, Volume* volume)
{
    *volume = {};
    while (*text != '\0') {
        const size_t length = strcspn(text, "\n");
        take_line(volume, {text, length});
        text += length + (text[length] == '\n' ? 1 : 0);
    }
}
