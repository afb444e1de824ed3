// How problems are looked for: what each look is given, and where it puts what it has found.
#pragma once

#include "ctl/file_server.h"
#include "ctl/view.h"

struct Problem {
    const char* id; // for programs: "service_not_running"
    bool note;      // worth knowing, and nothing wrong
    char* text;     // owned
    const char* remedy;
};

struct ProblemTable {
    Problem* problems; // owned
    size_t count;
    size_t room;
    bool failed; // memory has run out
};

// Borrowed.
struct ProblemLook {
    const Setup* setup;
    const View* view;
    ProblemTable* table;
    const FileServer* server; // that the shares are made for; null without one
};

// Adds a problem, or a note. Borrows `id` and `remedy`, which are to last.
__attribute__((format(printf, 5, 6))) void problem_add(ProblemLook* look, const char* id, bool note,
                                                       const char* remedy, const char* format, ...);

void problems_end(ProblemTable* table);
