// Decides what the daemon is told: the kernel's events and walks through sysfs in, messages out,
// and between them what the daemon knows of each device. A message is what makes the difference
// between that and what sysfs shows: first what is to be removed, partitions before their disk,
// then what is to be added, in the order of names. What came and went in between is not told.
//
// When a remove message has been delivered it is looked, agent_look_first later, whether the device
// is still mounted in the service's directory, and if so the message is sent again: agent_looks
// times at the most, each time after twice as long (docs/decisions/0012-what-went-twice.md).
//
// While something of a disk is in use the kernel does not read its partitions anew when its medium
// is changed, and sysfs shows those of the medium before. Whoever takes these for the new medium's
// has them mounted under wrong numbers, so nothing of such a disk is announced until it could be
// read. Nobody waits for a drive that does not answer: the others are announced meanwhile.
#pragma once

#include "agent/block_device.h"
#include "agent/device_table.h"
#include "agent/medium.h"
#include "agent/settings.h"
#include "agent/uevent.h"

// A drive whose medium the kernel is asked about.
struct Drive {
    BlockName disk = {}; // without a name: this place is free
    bool unread = false; // nothing of it is announced until the kernel has read it anew
    bool in_use = false; // which has been told, and why not
    uint64_t since = 0;  // when it was asked about
    bool silent = false; // it is told that there is no answer
    MediumLook look;
};

struct Announcer {
    const AgentSettings* settings = nullptr; // borrowed
    DeviceTable devices;
    BlockList shown;       // what the last walk found
    Device* out = nullptr; // whose message was handed out,
    DeviceEvent end = {};  // and what its delivery is
    bool walk_due = false; // a walk is to be made,
    Retry walk = {};       // but not before this time
    Drive drives[agent_drive_limit];
    Retry drives_retry = {}; // when the kernel is asked again; 0: not
};

// Takes an event of the kernel. A walk is due then.
void announcer_event(Announcer* announcer, const Uevent& event, uint64_t now);

// Has a walk made as soon as it can be.
void announcer_ask_for_walk(Announcer* announcer);

// Does what is due at the time `now`: looks for mounts, asks for media, and, where the daemon is
// known, walks through sysfs. Where something could not be looked at another walk is due, a little
// later.
void announcer_advance(Announcer* announcer, bool daemon_known, uint64_t now);

// When there will be something to do for it; agent_never.
uint64_t announcer_due(const Announcer* announcer, bool daemon_known);

// Whether there is a message. Writes the next one, which counts as handed out; returns false
// without one.
bool announcer_has_message(Announcer* announcer);
bool announcer_take_message(Announcer* announcer, char (&text)[agent_message_size]);

// The message that was handed out last has been delivered.
void announcer_delivered(Announcer* announcer, uint64_t now);

// The daemon has gone, and all it knew. Which media were changed is none of it. A walk is due.
void announcer_forget(Announcer* announcer);

// Has a device that is announced taken back and announced again.
void announcer_repeat(Announcer* announcer, int32_t major, int32_t minor);

// Ends it: no answer is waited for any more.
void announcer_end(Announcer* announcer);
