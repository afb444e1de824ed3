// Decides what the daemon is told: events and walks through sysfs in, messages for the courier out,
// the table of what was told between them. A device is announced once, however many events and
// walks tell of it, until it goes.
//
// When the queue overflows (agent_queue_limit) or memory runs out, all that waits is dropped, and a
// walk is due: what is plugged is announced, what is not any more is taken back. Only states in
// between are lost.
//
// The daemon takes a remove message for the first device with its numbers, which is another one if
// that went shortly before; what came and went behind it stays mounted. So when a remove message
// has been delivered it is looked, agent_check_first later, whether the device is still mounted in
// the service's directory though nothing with its numbers is announced, and if so the message is
// sent again: agent_checks times at the most, each time after twice as long. Nothing new is hit by
// it, for the kernel gives a mounted device's numbers to no other.
#pragma once

#include "agent/announced.h"
#include "agent/courier.h"
#include "agent/medium.h"
#include "agent/survey.h"
#include "agent/uevent.h"

struct Announcer {
    SurveyView view; // its table is `table`
    AnnouncedTable table;
    Courier* courier;     // borrowed; its queue is filled
    bool walk_due;        // set where one is to be made; the owner makes it at the next connection
    bool in_trouble;      // something could not be looked at; has been logged
    uint64_t check_due;   // the first of the table's looks; 0: none
    ChangedDisks changed; // of these nothing is announced
};

void announcer_init(Announcer* announcer, const SurveyView& view, Courier* courier);

// Carries an event out.
void announcer_event(Announcer* announcer, const Uevent& event);

// Walks through sysfs and announces the differences to the table. Clears walk_due, unless something
// could not be looked at.
void announcer_walk(Announcer* announcer);

// The daemon has gone, and all it knew: empties the table and the queue. Which media were changed
// is none of it.
void announcer_forget(Announcer* announcer);

// A message has been delivered.
void announcer_delivered(Announcer* announcer, const QueuedMessage* message);

// Does what is due at the time `now` (milliseconds, monotonic) without an event.
void announcer_advance(Announcer* announcer, uint64_t now);

// How long until then, in milliseconds; -1: nothing will be due.
int announcer_timeout(const Announcer* announcer, uint64_t now);
