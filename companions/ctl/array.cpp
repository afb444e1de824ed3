#include "ctl/array.h"

#include "common/array.h"

#include <string.h>

void* array_grow(void* elements, size_t count, size_t size)
{
    void* grown = array_room(elements, count, size);
    if (grown != nullptr)
        memset(static_cast<char*>(grown) + count * size, 0, size);
    return grown;
}
