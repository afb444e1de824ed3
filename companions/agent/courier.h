// Carries the messages of a queue to the daemon, one after the other, each over a connection of its
// own. It never blocks: whoever has it waits for its descriptor and its time, and calls
// courier_advance.
//
// A message is delivered when the daemon has closed the connection, or when it has not done so in
// agent_close_wait: then it is busy, and the message lies in its queue. A connection that is reset
// has delivered nothing, and the message is sent again. While there is no daemon, or too many wait
// for it, a connection is tried again after agent_retry_first, doubled up to agent_retry_most.
#pragma once

#include "agent/message_queue.h"

#include <stdint.h>

struct CourierOwner {
    void* self; // handed to each of these; borrowed

    // A connection has been made. Returns whether the head of the queue, if there is one, is to be
    // sent over it; else it is closed. May change the queue.
    bool (*met)(void* self, int connection);

    // No daemon listens. May change the queue.
    void (*missed)(void* self);

    // The head of the queue has been delivered; it is dropped on return.
    void (*delivered)(void* self, const QueuedMessage* message);
};

// The queue, all zero at first, is to be filled by the owner.
struct Courier {
    MessageQueue queue;
    CourierOwner owner;
    bool visit;     // connect, though there may be nothing to send
    bool under_way; // the head of the queue has been sent over `connection`
    int connection; // owned; -1 for none
    uint64_t due;   // milliseconds: while under way, when it counts as delivered; else when a
                    // connection may be tried again
    uint32_t pause; // the last pause before a retry; 0 after a success
};

void courier_init(Courier* courier, const CourierOwner& owner);

// Does all that can be done at the time `now` (milliseconds, monotonic).
void courier_advance(Courier* courier, uint64_t now);

// How long to wait for the connection's descriptor before the next call, in milliseconds; -1: there
// is nothing to wait for but the connection, if there is one.
int courier_timeout(const Courier* courier, uint64_t now);

// Makes the next connection wait, as after a failure; a message that is under way stays so.
void courier_pause(Courier* courier, uint64_t now);

// Drops the message that is under way, if there is one, as undelivered, and its connection.
void courier_hang_up(Courier* courier);

// The monotonic clock in milliseconds.
uint64_t courier_now();
