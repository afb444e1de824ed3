// Arrays that grow by one element at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

// Room for one more element, of `size` bytes, in an array from malloc(3) that has `count` of them;
// null has none. It is moved when it is full only: where 16, 32, 64 and so on are in it. Takes the
// array and returns it owned; null without memory, and the array is as it was.
inline void* array_room(void* array, size_t count, size_t size)
{
    constexpr size_t first = 16;
    const bool full = count == 0 || (count >= first && (count & (count - 1)) == 0);
    if (!full)
        return array;
    const size_t room = count == 0 ? first : 2 * count;
    return room <= SIZE_MAX / size ? realloc(array, room * size) : nullptr;
}
