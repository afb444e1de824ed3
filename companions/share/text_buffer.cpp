#include "share/text_buffer.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

static constexpr size_t first_room = 2048; // bytes; at least doubled as the text needs

// Makes room for `more` bytes and a NUL behind them. Returns false without memory.
static bool make_room(TextBuffer* buffer, size_t more)
{
    size_t room = buffer->room != 0 ? buffer->room : first_room;
    while (room - buffer->size <= more) {
        if (room > SIZE_MAX / 2)
            return false;
        room *= 2;
    }
    if (room == buffer->room)
        return true;
    auto* larger = static_cast<char*>(realloc(buffer->text, room));
    if (larger == nullptr)
        return false;
    buffer->text = larger;
    buffer->room = room;
    return true;
}

void text_buffer_add(TextBuffer* buffer, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    if (length < 0 || buffer->failed || !make_room(buffer, static_cast<size_t>(length))) {
        buffer->failed = true;
    } else {
        (void)vsnprintf(buffer->text + buffer->size, static_cast<size_t>(length) + 1, format,
                        again);
        buffer->size += static_cast<size_t>(length);
    }
    va_end(again);
    va_end(arguments);
}

void text_buffer_clear(TextBuffer* buffer)
{
    free(buffer->text);
    *buffer = {};
}
