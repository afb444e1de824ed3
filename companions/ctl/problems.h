// What is wrong with the installation, each with what to type. Reads only.
#pragma once

#include "ctl/problem_look.h"

enum ProblemScope : uint8_t {
    PROBLEMS_CONFIGURATION, // the configuration and the paths that it names
    PROBLEMS_QUICK,         // and everything that can be seen without starting a program
    PROBLEMS_ALL,           // and what programs tell that are asked
};

// Looks for problems. Returns how many there are that are no notes; -ENOMEM, or another negated
// errno where the machine lacks what a look takes. Either way the table is to be ended by
// problems_end.
[[nodiscard]] int problems_find(const Setup& setup, const View& view, ProblemScope scope,
                                ProblemTable* table);
