// Looks whether what the daemon was told of is mounted, and finds out why not: in the log, once for
// each device, and in a file that other programs read (docs/not-mounted.md).
//
// A device has agent_first_answer to be mounted. Then blkid is asked what it holds, one device at a
// time and beside everything else (common/tool.h); where that leaves it open whether somebody is
// still at it, it is asked once more after agent_patience, and what is true then is told. What is
// mounted meanwhile is not told, and what was told is taken back from the file as soon as the
// device is mounted or gone.
#pragma once

#include "agent/announcer.h"
#include "agent/diagnosis.h"
#include "agent/kernel_log.h"
#include "common/tool.h"

enum LookState : uint8_t {
    LOOK_WAITS,   // it may be mounted any moment
    LOOK_ASKS,    // blkid is to be asked, or is at it
    LOOK_PATIENT, // the answer left it open
    LOOK_INSISTS, // blkid is to be asked once more, or is at it
    LOOK_TOLD,    // why it is not mounted has been told
    LOOK_MOUNTED, // and with that its look is over, even if it is unmounted
};

enum LookEvent : uint8_t {
    LOOK_TIME,   // its time has come
    LOOK_ANSWER, // blkid's answer tells why
    LOOK_OPEN,   // it leaves that open
    LOOK_FOUND,  // it is mounted
};

// The one table of states and events. Pure.
LookState look_next(LookState state, LookEvent event);

// Of one device that the daemon was told of.
struct Look {
    LookState state = LOOK_WAITS;
    bool present = false;     // while the list is brought up to date
    bool hibernation = false; // it is mounted, and whether its Windows sleeps is to be read
    int32_t major = 0;
    int32_t minor = 0;
    BlockName name = {};
    uint64_t identity = 0;
    uint64_t since = 0;
    uint64_t due = 0;
    Trouble trouble = TROUBLE_NONE;
    char* line = nullptr; // that of the file, without its line feed; owned, null for none
};

constexpr size_t lookout_again_limit = 16;

// Its fields are its own.
struct Lookout {
    const AgentSettings* settings = nullptr; // borrowed
    MemGuard<Look> looks;
    size_t count = 0;
    KernelLog kernel;
    FdGuard mounts; // whose changes the kernel tells of
    bool mounts_changed = true;
    Retry retry = {}; // of reading the table of mounts
    Tool tool;
    Look asked = {};                          // whom it runs for
    char printed[1024];                       // by it
    MemGuard<char> written;                   // the file's content
    bool file_failed = false;                 // it could not be written, and is tried again
    uint64_t file_due = 0;                    // then; agent_never: when it is to be another
    uint64_t again[lookout_again_limit] = {}; // identities of what was announced again,
    size_t again_next = 0;                    // the oldest's place
};

// Begins with no device.
void lookout_open(Lookout* lookout, const AgentSettings* settings);

// Ends: the file goes, and a tool that runs.
void lookout_close(Lookout* lookout);

// Does what is due at the time `now`. Never waits for a device. // What is to be announced again it
// tells the announcer.
void lookout_advance(Lookout* lookout, Announcer* announcer, uint64_t now);

// When it is to be advanced if none of its descriptors becomes ready before; agent_never.
uint64_t lookout_due(const Lookout* lookout, uint64_t now);

// Lends the descriptor that has an exceptional condition (POLLPRI) when the mounts have changed,
// which is to be told by lookout_mounts_changed, and the one that becomes readable when there is
// something to do; -1 for none.
inline int lookout_mounts_descriptor(const Lookout* lookout)
{
    return lookout->mounts.get();
}
inline int lookout_tool_descriptor(const Lookout* lookout)
{
    return tool_descriptor(&lookout->tool);
}
void lookout_mounts_changed(Lookout* lookout);
