#include "functions/counted.h"

#include <stdlib.h>

// glibc's own names for the functions that are replaced here.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
}

static Allocations total;

static void note(size_t bytes)
{
    total.count++;
    total.bytes += bytes;
}

extern "C" void* malloc(size_t size)
{
    note(size);
    return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size)
{
    note(count * size);
    return __libc_calloc(count, size);
}

extern "C" void* realloc(void* memory, size_t size)
{
    note(size);
    return __libc_realloc(memory, size);
}

Allocations allocations_so_far()
{
    return total;
}
