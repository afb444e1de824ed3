// A growing string. Touches no world.
#pragma once

#include "lib/guard.h"

#include <stddef.h>

struct TextBuffer {
    char* text; // owned; null while nothing was added
    size_t size;
    size_t room;
    bool failed; // memory has run out; nothing is added any more
};

void text_buffer_add(TextBuffer* buffer, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Frees the text.
void text_buffer_clear(TextBuffer* buffer);
using TextBufferGuard = Guard<TextBuffer, text_buffer_clear>; // of a record on the stack
