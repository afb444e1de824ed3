// Looks at files that a test scripts: which one turns unreadable, and how large a filesystem is.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

struct FakeFiles {
    std::string unreadable;            // access(2) to this path fails ...
    int readable_times = 0;            // ... after so many times that it did not
    std::vector<std::string> accesses; // the paths that were asked for

    // When `scripted`, what statvfs(3) answers for every path.
    bool scripted = false;
    uint64_t block_size = 0;
    uint64_t preferred_size = 0; // for reading and writing; no count is in it. 0: as block_size
    uint64_t blocks = 0;
    uint64_t free_blocks = 0;      // those kept back for root included
    uint64_t available_blocks = 0; // to everybody
    std::string statvfs_path;      // what was asked for
};

FakeFiles& fake_files();
void fake_files_reset();
