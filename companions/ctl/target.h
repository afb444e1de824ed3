// What people mean by a TARGET: a disk, a partition, an identity, a share's name, a label or a
// directory. Touches no world.
#pragma once

#include "ctl/view.h"

// Marks the items that a word names. Looked at in this order, and the first that fits anything
// counts: partition (the service's name, the kernel's, a node's path), disk, identity, directory,
// share, label. Letter case counts for identities and directories only.
struct Targets {
    const Item** items; // borrowed ones of the view; owned
    size_t count;
    bool disk; // the word names a whole disk
};

// Returns 0, with no items where nothing fits; -ENOMEM.
[[nodiscard]] int targets_find(const View& view, const char* word, Targets* targets);
void targets_end(Targets* targets);

// As targets_find for exactly one item, and tells what is wrong on standard error. Returns the
// item; null with the exit status in `status`.
[[nodiscard]] const Item* target_find_one(const View& view, const char* word, int* status);

// Tells that nothing fits. Returns the exit status.
[[nodiscard]] int target_missing(const char* word);

// Whether the item is on the disk of that name, the service's ("sda") or the kernel's ("mmcblk0").
[[nodiscard]] bool item_is_on_disk(const Item& item, const char* disk);
