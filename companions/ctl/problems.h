// What is wrong with the installation, each with what to type. Reads only.
#pragma once

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
    size_t room;
    bool failed; // memory has run out
};

enum ProblemScope : uint8_t {
    PROBLEMS_CONFIGURATION, // the configuration and the paths that it names
    PROBLEMS_QUICK,         // and everything that can be seen without starting a program
    PROBLEMS_ALL,
};

// Looks for problems. Returns how many there are that are no notes; -ENOMEM. Either way the table
// is to be ended by problems_end.
[[nodiscard]] int problems_find(const Setup& setup, const View& view, ProblemScope scope,
                                ProblemTable* table);
void problems_end(ProblemTable* table);
