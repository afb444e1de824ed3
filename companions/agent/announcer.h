// Decides what the daemon is told: events and walks through sysfs in, messages for the courier out,
// the table of what was told between them. A device is announced once, however many events and
// walks tell of it, until it goes.
//
// When the queue overflows (agent_queue_limit) or memory runs out, all that waits is dropped, and a
// walk is due: what is plugged is announced, what is not any more is taken back. Only states in
// between are lost.
#pragma once

#include "agent/announced.h"
#include "agent/courier.h"
#include "agent/survey.h"
#include "agent/uevent.h"

struct Announcer {
    SurveyView view; // its table is `table`
    AnnouncedTable table;
    Courier* courier; // borrowed; its queue is filled
    bool walk_due;    // set where one is to be made; the owner makes it at the next connection
    bool in_trouble;  // something could not be looked at; has been logged
};

void announcer_init(Announcer* announcer, const SurveyView& view, Courier* courier);

// Carries an event out.
void announcer_event(Announcer* announcer, const Uevent& event);

// Walks through sysfs and announces the differences to the table. Clears walk_due, unless something
// could not be looked at.
void announcer_walk(Announcer* announcer);

// The daemon has gone, and all it knew: empties the table and the queue.
void announcer_forget(Announcer* announcer);

// A message has been delivered.
void announcer_delivered(Announcer* announcer, const QueuedMessage* message);

// Opens a disk's node, so that the kernel looks at its medium anew. Whether it can be opened is of
// no interest.
void announcer_touch(const BlockName& disk);
