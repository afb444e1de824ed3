// Memory that runs out where a test wants it to, and a count of what is held. For executables
// linked with "-Wl,--wrap" for malloc, calloc, realloc, strdup, strndup and free, whose calls then
// come here first; the C++ library's own do not.
#pragma once

// Makes the nth allocation from now on (1 = the next) fail with ENOMEM; 0 takes the plan back.
void memory_fail(int nth);

// Whether the planned failure has struck. Takes the plan back.
bool memory_failed();

// Blocks allocated and not freed since the process began.
long memory_blocks();
