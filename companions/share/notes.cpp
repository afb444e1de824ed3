#include "share/notes.h"

#include "common/text.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static constexpr size_t line_size = 512; // bytes with the NUL

void notes_add(Notes* notes, int priority, const char* format, ...)
{
    char line[line_size];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    (void)text_clean(line, ""); // a character that was cut in two, too
    const size_t length = strlen(line);
    auto* larger = static_cast<char*>(realloc(notes->text, notes->size + length + 3));
    if (larger == nullptr)
        return;
    notes->text = larger;
    char* at = larger + notes->size;
    *at++ = static_cast<char>('0' + priority);
    memcpy(at, line, length);
    at[length] = '\n';
    at[length + 1] = '\0';
    notes->size += length + 2;
}

// Whether `notes` has this line; `size` counts its line feed.
static bool holds(const Notes* notes, const char* line, size_t size)
{
    if (notes->text == nullptr)
        return false;
    for (const char* at = notes->text; *at != '\0'; at = strchr(at, '\n') + 1) {
        if (strncmp(at, line, size) == 0)
            return true;
    }
    return false;
}

static void tell_line(const char* line, size_t size,
                      void (*tell)(int priority, const char* message))
{
    char message[line_size];
    const size_t length = size - 2;
    memcpy(message, line + 1, length);
    message[length] = '\0';
    tell(line[0] - '0', message);
}

void notes_new(const Notes* notes, const Notes* before,
               void (*tell)(int priority, const char* message))
{
    if (notes->text == nullptr)
        return;
    for (const char* line = notes->text; *line != '\0';) {
        const char* next = strchr(line, '\n') + 1;
        const size_t size = static_cast<size_t>(next - line);
        if (!holds(before, line, size))
            tell_line(line, size, tell);
        line = next;
    }
}

void notes_clear(Notes* notes)
{
    free(notes->text);
    *notes = {};
}

void notes_move(Notes* to, Notes* from)
{
    notes_clear(to);
    *to = *from;
    *from = {};
}
