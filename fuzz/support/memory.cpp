// Memory of the second opinions: blocks of a fixed area behind C++'s new and delete, because the
// sanitizers' allocator took longer than the readers. What is tested does not use new. Each block
// has poison on both sides and, once it is given back, all over, so that a reader that leaves a
// text of these is caught as on the heap. new[], which makes the copies that are exactly as long as
// their text, stays the sanitizer's.
#include "support/memory.h"

#include <sanitizer/asan_interface.h>
#include <stdint.h>
#include <stdlib.h>

#include <new>

static constexpr size_t unit = 16; // alignment, and at least as much poison between two blocks
static constexpr size_t most_units = 256;
static constexpr size_t area_size = size_t{8} << 20;

namespace {

// Stands before each block. `next` leads from one that is given back to the next of its size.
struct alignas(unit) Head {
    size_t units;
    Head* next;
};

} // namespace

alignas(unit) static char area[area_size];
static size_t used;
static Head* unused[most_units + 1]; // by units
static bool begun;
static thread_local bool lending;

void second_opinion_begins()
{
    if (!begun)
        __asan_poison_memory_region(area, sizeof area);
    begun = true;
    lending = true;
}

void second_opinion_ends()
{
    lending = false;
}

static Head* take(size_t units)
{
    Head* head = unused[units];
    if (head != nullptr) {
        unused[units] = head->next;
        return head;
    }
    const size_t wanted = sizeof(Head) + units * unit;
    if (sizeof area - used < wanted + unit)
        return nullptr;
    head = reinterpret_cast<Head*>(area + used);
    head->units = units;
    used += wanted;
    return head;
}

void* operator new(size_t size)
{
    const size_t units = (size + unit - 1) / unit;
    Head* head = lending && units <= most_units ? take(units) : nullptr;
    if (head == nullptr) {
        void* memory = malloc(size);
        if (memory == nullptr)
            abort();
        return memory;
    }
    __asan_unpoison_memory_region(head + 1, size);
    return head + 1;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return operator new(size);
}

// Nothing that pointed to tested memory stays, where the look for leaks would find it.
__attribute__((no_builtin)) static void wipe(Head* head)
{
    auto* words = reinterpret_cast<uint64_t*>(head + 1);
    for (size_t i = 0; i < head->units * unit / sizeof *words; i++)
        words[i] = 0;
}

void operator delete(void* memory) noexcept
{
    const auto place = reinterpret_cast<uintptr_t>(memory) - reinterpret_cast<uintptr_t>(area);
    if (place >= sizeof area) {
        free(memory);
        return;
    }
    Head* head = static_cast<Head*>(memory) - 1;
    wipe(head);
    __asan_poison_memory_region(memory, head->units * unit);
    head->next = unused[head->units];
    unused[head->units] = head;
}

// The C++ library's own calls.
void operator delete(void* memory, size_t size) noexcept;
void operator delete(void* memory, size_t) noexcept
{
    operator delete(memory);
}
