#include "support/failing_memory.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <new>
#include <set>

static std::atomic<int> left; // allocations until one fails; 0: none will
static std::atomic<bool> onwards_too;
static std::atomic<bool> struck;
static std::atomic<long> blocks;
static std::atomic<bool> watched;
static std::atomic<int> allocations;
static std::mutex mutex;
static std::set<void*> kept; // while watched

void memory_fail(int nth, bool onwards)
{
    struck = false;
    onwards_too = onwards;
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

void memory_watch(bool on)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (on) {
        allocations = 0;
        kept.clear();
    }
    watched = on;
}

int memory_allocations()
{
    return allocations;
}

size_t memory_kept()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return kept.size();
}

void memory_reset()
{
    memory_fail(0);
    memory_watch(false);
}

static bool runs_out()
{
    allocations += watched ? 1 : 0;
    if (left == 0 || --left != 0)
        return false;
    if (onwards_too)
        left = 1;
    struck = true;
    errno = ENOMEM;
    return true;
}

static void* counted(void* block)
{
    if (block == nullptr)
        return block;
    blocks++;
    if (watched) {
        const std::lock_guard<std::mutex> lock(mutex);
        kept.insert(block);
    }
    return block;
}

static void given_back(void* block)
{
    if (block == nullptr)
        return;
    blocks--;
    const std::lock_guard<std::mutex> lock(mutex);
    kept.erase(block);
}

// The linker turns a call of NAME into one of __wrap_NAME, and __real_NAME into NAME.
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
    given_back(block); // before it is somebody else's
    return counted(__real_realloc(block, size));
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
    given_back(block);
    __real_free(block);
}

} // extern "C"

void memory_free_kept()
{
    std::set<void*> all;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        all.swap(kept);
    }
    for (void* block : all)
        __wrap_free(block);
}

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
