// What the administrator wrote into the device file, and whether a later one still has it.
#pragma once

#include <stddef.h>

// Whether `before` holds a setting that `after` has not, or has otherwise: a section with settings
// that is gone, a name, a switch that is on, a word of a user list. Spellings of the same setting
// are the same; sections without settings, and what is new, do not count. True also when memory
// runs out: who cannot know keeps both. Pure.
[[nodiscard]] bool settings_lost(const char* before, size_t before_size, const char* after,
                                 size_t after_size);
