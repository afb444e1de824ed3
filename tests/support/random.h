// Random choices that come out the same on every machine: the generator's own numbers, no library
// distribution.
#pragma once

#include <stdint.h>

#include <random>
#include <vector>

struct Random {
    std::mt19937 engine;

    explicit Random(uint32_t seed) : engine(seed) {}

    // A number below `limit`.
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(engine() % limit); }
    bool chance(uint32_t percent) { return below(100) < percent; }

    template <typename T>
    const T& pick(const std::vector<T>& choices)
    {
        return choices[below(static_cast<uint32_t>(choices.size()))];
    }
};
