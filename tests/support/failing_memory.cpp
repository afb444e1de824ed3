#include "support/failing_memory.h"

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <new>

static std::atomic<int> left; // allocations until one fails; 0: none will
static std::atomic<bool> struck;
static std::atomic<long> blocks;

void memory_fail(int nth)
{
    struck = false;
    left = nth;
}

bool memory_failed()
{
    left = 0;
    return struck;
}

long memory_blocks()
{
    return blocks;
}

static bool runs_out()
{
    if (left == 0 || --left != 0)
        return false;
    struck = true;
    errno = ENOMEM;
    return true;
}

static void* counted(void* block)
{
    if (block != nullptr)
        blocks++;
    return block;
}

// The linker's names for "instead of" and "the real one" (ld --wrap).
extern "C" {

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);

void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* block, size_t size);
char* __wrap_strdup(const char* text);
char* __wrap_strndup(const char* text, size_t size);
void __wrap_free(void* block);

void* __wrap_malloc(size_t size)
{
    return runs_out() ? nullptr : counted(__real_malloc(size));
}

void* __wrap_calloc(size_t count, size_t size)
{
    return runs_out() ? nullptr : counted(__real_calloc(count, size));
}

void* __wrap_realloc(void* block, size_t size)
{
    if (runs_out())
        return nullptr;
    void* moved = __real_realloc(block, size);
    if (block == nullptr)
        counted(moved);
    return moved;
}

char* __wrap_strdup(const char* text)
{
    return __wrap_strndup(text, strlen(text));
}

char* __wrap_strndup(const char* text, size_t size)
{
    const size_t length = strnlen(text, size);
    auto* copy = static_cast<char*>(__wrap_malloc(length + 1));
    if (copy == nullptr)
        return nullptr;
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

void __wrap_free(void* block)
{
    if (block != nullptr)
        blocks--;
    __real_free(block);
}

} // extern "C"

// The test's own containers are not concerned, even where the C++ library is linked statically and
// takes its memory from here.
void* operator new(size_t size)
{
    void* block = __real_malloc(size);
    if (block == nullptr)
        abort();
    return block;
}

void operator delete(void* block) noexcept
{
    __real_free(block);
}

void operator delete(void* block,
                     size_t) noexcept; // some compilers do not declare it by themselves
void operator delete(void* block, size_t) noexcept
{
    __real_free(block);
}
