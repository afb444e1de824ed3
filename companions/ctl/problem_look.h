// How problems are looked for: what each look is given, and where it puts what it has found.
#pragma once

#include "ctl/file_server.h"
#include "ctl/processes.h"
#include "ctl/view.h"

constexpr size_t problem_text_size = 768; // bytes with the NUL
constexpr size_t problem_arguments = 3;   // at most

// Where something that is named stands in a text.
struct TextPart {
    size_t begin;
    size_t end;
};

// What is to be done: a command to be typed, or a sentence. In a command $0, $1 ... stand for the
// arguments of the problem's text.
struct Remedy {
    const char* text; // borrowed, and is to last
    bool prose;
};

constexpr Remedy typed(const char* command)
{
    return {.text = command, .prose = false};
}

constexpr Remedy prose(const char* sentence)
{
    return {.text = sentence, .prose = true};
}

struct Problem {
    const char* id; // for programs: "service_not_running"
    bool note;      // worth knowing, and nothing wrong
    char* text;     // owned
    Remedy remedy;
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
    const FileServer* server;      // that the shares are made for; null without one
    const ProcessTable* processes; // null where only the configuration is looked at
    bool asks;                     // programs, which takes its time
};

// Adds a problem, or a note. Borrows `id`, which is to last.
__attribute__((format(printf, 5, 6))) void problem_add(ProblemLook* look, const char* id, bool note,
                                                       Remedy remedy, const char* format, ...);

// The same, of texts that name nothing.
void problem_add_texts(ProblemLook* look, bool note, const FaultTexts& texts);

// Writes what is to be done, with the arguments as a shell takes them; cut where it is longer.
void problem_remedy(const Problem& problem, char (&text)[problem_text_size]);

void problems_end(ProblemTable* table);
