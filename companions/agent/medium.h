// Has the kernel look at what is in a drive. A drive that hangs can hold whoever asks for minutes,
// so a child does it, one for each disk.
#pragma once

#include "agent/block_device.h"
#include "common/tool.h"

enum MediumQuestion : uint8_t {
    MEDIUM_ANOTHER, // whether it is another one: the kernel sends an event then
    MEDIUM_IN_USE,  // its partitions, anew; whether something of it is in use keeps it from that
};

enum MediumAnswer : uint8_t {
    MEDIUM_SILENT,  // not yet
    MEDIUM_READ,    // it has looked, or cannot do what is asked
    MEDIUM_BUSY,    // in use
    MEDIUM_UNASKED, // there was no process to be had, or it ended before it could answer
};

// A question under way. Its fields are its own. It is not moved. Whoever wants no answer any more
// drops it, or lets it go: then the child is killed by nobody.
struct MediumLook {
    Tool tool;
    char printed[8] = "";
};

// Asks.
void medium_ask(MediumLook* look, const BlockName& disk, MediumQuestion question);

// What is known by now. Never blocks.
MediumAnswer medium_answer(MediumLook* look);

// Takes no answer any more. The child may live on while the kernel holds it.
void medium_drop(MediumLook* look);

// Asks MEDIUM_ANOTHER in this process, and waits.
void medium_touch(const BlockName& disk);
