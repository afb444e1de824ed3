#include "ksmbd/ksmbd_file.h"

#include "common/include_sections.h"
#include "share/include_file.h"
#include "share/text_buffer.h"

#include <errno.h>
#include <string.h>
#include <strings.h>

const char ksmbd_file_head[] = "# Made by vynas-ksmbd from the share file of the hotplug service, "
                               "and made anew whenever that\n"
                               "# changes: what is written here by hand is lost.\n";

// ksmbd takes a key for any that it begins with, so these beginnings are enough. Those with another
// word for what a share says itself are among them: which of two words counts is not told.
static constexpr const char* widening_keys[] = {
    "write list",  "writeable",  "writable",    "write ok",       "public",
    "admin users", "force user", "force group", "root directory",
};

static Span without_blanks(Span line)
{
    while (line.size > 0 && (line.begin[0] == ' ' || line.begin[0] == '\t')) {
        line.begin++;
        line.size--;
    }
    return line;
}

static bool begins_like(Span line, const char* word)
{
    const size_t size = strlen(word);
    return line.size >= size && strncasecmp(line.begin, word, size) == 0;
}

static bool is_widening(Span line)
{
    for (const char* key : widening_keys) {
        if (begins_like(line, key))
            return true;
    }
    return false;
}

// Adds the lines of [global], with a line feed behind each.
static void add_global(TextBuffer* made, const char* text)
{
    Span rest = {.begin = text, .size = strlen(text)};
    Span line;
    bool inside = false;
    while (span_next_line(&rest, &line)) {
        const Span bare = without_blanks(line);
        if (span_begins(bare, "["))
            inside = begins_like(bare, "[global]");
        else if (inside && !is_widening(bare))
            text_buffer_add(made, "%.*s\n", static_cast<int>(line.size), line.begin);
    }
}

int ksmbd_global_make(const char* text, char** made)
{
    TextBuffer buffer = {};
    const TextBufferGuard held(&buffer);
    text_buffer_add(&buffer, "[global]\n");
    add_global(&buffer, text);
    if (buffer.failed)
        return -ENOMEM;
    *made = buffer.text;
    buffer.text = nullptr; // handed on
    return 0;
}

// Without the administrator's file there are no global parameters.
static int load_global(const char* base, char** global)
{
    MemGuard<char> text;
    const int result = include_file_read(base, text.out());
    if (result == -ENOENT)
        return ksmbd_global_make("", global);
    return result == 0 ? ksmbd_global_make(text.get(), global) : result;
}

int ksmbd_file_read(const char* path, const char* base, char** text)
{
    MemGuard<char> content;
    MemGuard<char> global;
    int result = include_file_read(path, content.out());
    if (result == 0)
        result = load_global(base, global.out());
    if (result != 0)
        return result;
    const char* list = strstr(content.get(), ksmbd_file_head);
    if (list == nullptr)
        return -ENOENT; // somebody else's file
    const size_t before = static_cast<size_t>(list - content.get());
    const bool same =
        strlen(global.get()) == before && memcmp(content.get(), global.get(), before) == 0;
    TextBuffer copy = {};
    const TextBufferGuard held(&copy);
    text_buffer_add(&copy, "%s%s", list, same ? "" : "\n");
    if (copy.failed)
        return -ENOMEM;
    *text = copy.text;
    copy.text = nullptr; // handed on
    return 0;
}

int ksmbd_file_write(const char* path, const char* base, const char* text)
{
    MemGuard<char> global;
    const int result = load_global(base, global.out());
    if (result != 0)
        return result;
    TextBuffer made = {};
    const TextBufferGuard held(&made);
    text_buffer_add(&made, "%s%s", global.get(), text);
    return made.failed ? -ENOMEM : include_file_write(path, made.text);
}
