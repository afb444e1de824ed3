// The table of devices that the daemon has been told of, or is about to be. It knows no daemon and
// no sysfs: the announcer keeps it.
#pragma once

#include "agent/block_name.h"
#include "agent/limits.h"

#include <stddef.h>
#include <stdint.h>

enum AnnouncedState : uint8_t {
    ANNOUNCED_FREE,    // no entry
    ANNOUNCED_COMING,  // its add message waits in the queue
    ANNOUNCED_TOLD,    // the daemon has it
    ANNOUNCED_LEAVING, // its remove message waits in the queue
    ANNOUNCED_LOST,    // its remove message was dropped with the queue and must be made anew
    ANNOUNCED_GONE,    // the daemon has been told that it went
};

struct Announced {
    uint32_t id; // in use once in the life of a table; its messages carry it
    AnnouncedState state;
    bool ours; // the daemon was told of it; not so for a remove event of an unknown device
    int32_t major;
    int32_t minor;
    BlockName name;
    uint64_t identity; // block_device_identity
    uint64_t seen;     // how many events the kernel had sent before the device was read
    uint8_t checks;    // looks, had or due, whether it is still mounted since it went
    uint64_t due;      // the next one's time, milliseconds, monotonic; 0: none is due
};

// All zero is an empty table.
struct AnnouncedTable {
    uint32_t last_id;
    Announced entries[agent_table_limit];
};

void announced_clear(AnnouncedTable* table);

// Puts an entry in: in the place of one with its numbers that is gone; in a full table, of any that
// is gone or not ours. Lends the entry; null when there is no place.
Announced* announced_put(AnnouncedTable* table, AnnouncedState state, bool ours,
                         const BlockName& name, int32_t major, int32_t minor);

// Lends the entry with these numbers that is coming or told; null without one. There is one at
// most.
Announced* announced_find(AnnouncedTable* table, int32_t major, int32_t minor);

// Lends the first entry with these numbers in that state; null without one.
Announced* announced_find_state(AnnouncedTable* table, int32_t major, int32_t minor,
                                AnnouncedState state);

// Lends the entry with that id; null when it has left the table.
Announced* announced_find_id(AnnouncedTable* table, uint32_t id);

// Whether the daemon was ever told of a device with these numbers, gone or not: what is mounted
// there is the service's.
bool announced_is_ours(const AnnouncedTable* table, int32_t major, int32_t minor);

// Whether the entry is coming or told.
bool announced_is_here(const Announced* entry);

// The queue is lost, but for the message of the entry `kept` (0: none): what was coming leaves the
// table, and so does what is not ours; what was leaving is lost.
void announced_lose_queue(AnnouncedTable* table, uint32_t kept);

// Returns 0 when nothing is leaving; 1 when something is; 2 when some numbers are leaving more than
// once, so that to lose the queue would make room.
int announced_leaving(AnnouncedTable* table);
