// Memory that runs out where a test wants it to, and what is held. The allocations of the product
// and of what is linked with it come here first; the C++ library's own do not.
#pragma once

#include <stddef.h>

// Makes the nth allocation from now on (1 = the next) fail with ENOMEM, and with `onwards` each one
// behind it; 0 takes the plan back.
void memory_fail(int nth, bool onwards = false);

// Whether the planned failure has struck. Takes the plan back.
bool memory_failed();

// Blocks allocated and not freed since the process began.
long memory_blocks();

// While on, allocations are counted, and it is known which of them are not freed yet. On begins
// anew.
void memory_watch(bool on);
int memory_allocations();
size_t memory_kept();

// Frees what is kept: for what outlives a run on purpose.
void memory_free_kept();

// No plan, no watch.
void memory_reset();
