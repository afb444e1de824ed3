// What can be counted rather than timed: allocations, and, under callgrind, instructions.
#pragma once

#include <stddef.h>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else // without callgrind there is nobody to be told
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#endif

struct Allocations {
    size_t count;
    size_t bytes;
};

// What malloc(3), calloc(3) and realloc(3) were asked for so far, by anybody in this process.
Allocations allocations_so_far();
