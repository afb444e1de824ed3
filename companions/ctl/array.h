// Arrays that grow as elements come.
#pragma once

#include <stddef.h>

// Makes room for one more element of `size` bytes behind the `count` that there are, all zero; null
// has none. Takes the array, which is of this function, and returns it, owned, where it is now;
// null, with the array as it was, when memory has run out.
[[nodiscard]] void* array_grow(void* elements, size_t count, size_t size);
