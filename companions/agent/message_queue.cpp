#include "agent/message_queue.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

static QueuedMessage* at(MessageQueue* queue, uint32_t index)
{
    return &queue->ring[(queue->first + index) % agent_queue_limit];
}

int message_queue_put(MessageQueue* queue, MessageKind kind, uint32_t id, const char* text)
{
    if (queue->count == agent_queue_limit)
        return -ENOBUFS;
    char* copy = strdup(text);
    if (copy == nullptr)
        return -ENOMEM;
    *at(queue, queue->count++) = {.kind = kind, .id = id, .text = copy};
    return 0;
}

const QueuedMessage* message_queue_head(const MessageQueue* queue)
{
    return queue->count > 0 ? &queue->ring[queue->first] : nullptr;
}

void message_queue_pop(MessageQueue* queue)
{
    free(queue->ring[queue->first].text);
    queue->ring[queue->first] = {};
    queue->first = (queue->first + 1) % agent_queue_limit;
    queue->count--;
}

void message_queue_cut(MessageQueue* queue, uint32_t kept)
{
    while (queue->count > kept) {
        QueuedMessage* last = at(queue, --queue->count);
        free(last->text);
        *last = {};
    }
}
