// How problems are looked for: what each look is given, and where it puts what it has found.
#pragma once

#include "ctl/file_server.h"
#include "ctl/view.h"

constexpr size_t problem_text_size = 768; // bytes with the NUL
constexpr size_t problem_arguments = 3;   // at most

// Where something that is named stands in a text.
struct TextPart {
    size_t begin;
    size_t end;
};

struct Problem {
    const char* id; // for programs: "service_not_running"
    bool note;      // worth knowing, and nothing wrong
    char* text;     // owned
    const char* remedy;
    TextPart arguments[problem_arguments]; // of `text`, in its order
    size_t argument_count;
};

struct ProblemTable {
    Problem* problems; // owned
    size_t count;
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

// The same, of texts that name nothing.
void problem_add_texts(ProblemLook* look, bool note, const FaultTexts& texts);

void problems_end(ProblemTable* table);
