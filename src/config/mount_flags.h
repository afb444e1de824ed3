// Words for the flags that every mount gets besides those of its filesystem: one row each.
#pragma once

#include <stdint.h>

struct MountFlag {
    const char* word; // in the configuration, and as an option of mount(8)
    uint32_t flag;    // of mount(2)
    bool drivers;     // a driver that mounts by itself takes the word, too, and it has effect
};

constexpr int mount_flag_count = 8;
extern const MountFlag mount_flags[mount_flag_count];
