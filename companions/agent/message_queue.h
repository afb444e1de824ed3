// Messages that wait for the daemon, first in, first out, agent_queue_limit at most.
#pragma once

#include "agent/limits.h"

#include <stdint.h>

enum MessageKind : uint8_t { MESSAGE_ADD, MESSAGE_REMOVE };

struct QueuedMessage {
    MessageKind kind;
    uint32_t id; // of the table's entry it is about
    char* text;  // owned by the queue
};

// All zero is an empty queue.
struct MessageQueue {
    uint32_t first;
    uint32_t count;
    QueuedMessage ring[agent_queue_limit];
};

// Copies the text. Returns 0; -ENOBUFS when the queue is full; -ENOMEM.
[[nodiscard]] int message_queue_put(MessageQueue* queue, MessageKind kind, uint32_t id,
                                    const char* text);

// Lends the oldest message; null when there is none.
const QueuedMessage* message_queue_head(const MessageQueue* queue);

// Drops the oldest message, of which there must be one.
void message_queue_pop(MessageQueue* queue);

// Drops all but the `kept` oldest.
void message_queue_cut(MessageQueue* queue, uint32_t kept);
