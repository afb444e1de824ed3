// Log lines about one reading of the share file. They are collected first, so that only those are
// logged that the reading before did not have. Touches no world.
#pragma once

#include "lib/guard.h"

#include <stddef.h>

struct Notes {
    char* text; // lines: a digit (the priority), the message, a line feed; owned, may be null
    size_t size;
};

// Adds a line, cut to 511 bytes, with "_" for what is not printable. Without memory the line is
// lost, and nothing else.
void notes_add(Notes* notes, int priority, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Calls `tell` for each line of `notes` that is not in `before`.
void notes_new(const Notes* notes, const Notes* before,
               void (*tell)(int priority, const char* message));

// Frees the lines; the record can be used again.
void notes_clear(Notes* notes);

// Moves the lines of `from` to `to`, whose own are freed.
void notes_move(Notes* to, Notes* from);

inline void notes_release(Notes* notes)
{
    notes_clear(notes);
}
using NotesGuard = Guard<Notes, notes_release>; // of a record on the stack
