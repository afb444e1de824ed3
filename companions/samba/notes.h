// What there is to say about one reading of the share file: lines for the log, gathered first, so
// that only those are logged that the reading before did not give. Touches no world.
#pragma once

#include "lib/guard.h"

#include <stddef.h>

struct Notes {
    char* text; // lines, each a digit (the priority), the message, a line feed; owned, may be null
    size_t size;
};

// Adds a line. What is no printable text in it becomes "_", and it is cut to 511 bytes. Without
// memory the line is lost: the work that it tells of has been done all the same.
void notes_add(Notes* notes, int priority, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Calls `tell` for each line of `notes` that `before` does not hold.
void notes_new(const Notes* notes, const Notes* before,
               void (*tell)(int priority, const char* message));

// Frees the lines; the record can be used again.
void notes_clear(Notes* notes);

// Moves the lines, in place of those that are there.
void notes_move(Notes* to, Notes* from);

inline void notes_release(Notes* notes)
{
    notes_clear(notes);
}
using NotesGuard = Guard<Notes, notes_release>; // of a record on the stack
