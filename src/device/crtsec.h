// The command queue, which carries control messages from the receive thread to the run loop, and
// the busy-device set, which holds an entry for every partition that is mounted or tracked. Both
// are process-wide, each behind a mutex of its own; the two are never held together.
//
// All functions return 0, and -1 on failure. The lists never free an element: a queued command
// belongs to the queue until it is dequeued, an entry in the set to the run loop.
#pragma once

#include "device/mount_entry.h"
#include "lib/vylist.h"

#include <stdint.h>

constexpr uint32_t HOTPLUG_CMD_TEXT = 512; // bytes of a message, its zero byte included

// A control message on its way to the run loop.
struct HotplugCmd {
    int32_t fd;  // its connection, -1 for none
    int32_t len; // bytes received
    // Owned; HOTPLUG_CMD_TEXT bytes, zero behind what was received, and one more zero byte behind
    // them: a sender may have left out its own.
    char* text;
    int32_t reserved; // always 0
    uint64_t due;     // monotonic microseconds before which it must not be handled; 0 = at once
};

// Returns owned: a command with an empty text and no connection; null when memory runs out.
[[nodiscard]] HotplugCmd* hotplug_cmd_create();

// Takes the command: frees its text and itself. Its connection is left alone.
void hotplug_cmd_free(HotplugCmd* cmd);

// Makes both lists and mutexes; -1, with nothing made, when memory runs out.
[[nodiscard]] int crtsec_init();

// Disposes of mutexes and lists; what is still inside stays alive. Harmless without crtsec_init.
void crtsec_term();

// Takes the command, at the end of the queue; -1, not taken, when it is null or memory runs out.
[[nodiscard]] int crtsec_cmd_enqueue(HotplugCmd* cmd);

// How many commands wait.
[[nodiscard]] uint32_t crtsec_cmd_count();

// Hands over the first command; -1, `cmd` untouched, when the queue is empty.
[[nodiscard]] int crtsec_cmd_dequeue(HotplugCmd** cmd);

// Appends to the set; -1 when the entry or its description is null or memory runs out.
[[nodiscard]] int crtsec_blk_add(MountEntry* entry);

// Takes this very entry out of the set, without freeing it; -1 when it is not there. The entries
// behind it move down one position.
int crtsec_blk_del(const MountEntry* entry);

// Lends the entry at a position (0 = oldest); -1 when there is none.
[[nodiscard]] int crtsec_blk_search(MountEntry** entry, int32_t position);

// A walk over the whole set, oldest entry first: begins as {}. While it goes on, entries may be
// added, and taken out through crtsec_blk_drop only.
struct BusyWalk {
    vylist_node* at; // of the entry lent last; null before the first
};

// Lends the next entry; -1 behind the last one.
[[nodiscard]] int crtsec_blk_next(BusyWalk* walk, MountEntry** entry);

// Takes the entry that was lent last out of the set, without freeing it; the walk goes on behind
// it.
void crtsec_blk_drop(BusyWalk* walk);
