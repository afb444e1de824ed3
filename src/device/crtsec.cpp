#include "device/crtsec.h"

#include "lib/guard.h"
#include "lib/vylist.h"

#include <stdlib.h>

static Mutex queue_mutex;
static Mutex set_mutex;
static vylist* queue VY_PT_GUARDED_BY(queue_mutex);
static vylist* busy VY_PT_GUARDED_BY(set_mutex);

HotplugCmd* hotplug_cmd_create()
{
    MemGuard<HotplugCmd> cmd(static_cast<HotplugCmd*>(calloc(1, sizeof(HotplugCmd))));
    if (!cmd)
        return nullptr;
    cmd->fd = -1;
    cmd->text = static_cast<char*>(calloc(1, HOTPLUG_CMD_TEXT + 1));
    if (cmd->text == nullptr)
        return nullptr;
    return cmd.take();
}

void hotplug_cmd_free(HotplugCmd* cmd)
{
    free(cmd->text);
    free(cmd);
}

int crtsec_init()
{
    ListGuard new_queue(vylist_create());
    ListGuard new_busy(vylist_create());
    if (!new_queue || !new_busy)
        return -1;
    if (queue_mutex.init() != 0)
        return -1;
    if (set_mutex.init() != 0) {
        queue_mutex.term();
        return -1;
    }
    queue = new_queue.take();
    busy = new_busy.take();
    return 0;
}

// One thread is left when this runs, so the lists are let go without their locks.
void crtsec_term() VY_NO_THREAD_ANALYSIS
{
    if (queue != nullptr) {
        queue_mutex.term();
        vylist_dispose(queue);
        queue = nullptr;
    }
    if (busy != nullptr) {
        set_mutex.term();
        vylist_dispose(busy);
        busy = nullptr;
    }
}

int crtsec_cmd_enqueue(HotplugCmd* cmd)
{
    if (cmd == nullptr)
        return -1;
    const LockGuard lock(queue_mutex);
    return vylist_insert(queue, vylist_end(queue), cmd) != nullptr ? 0 : -1;
}

uint32_t crtsec_cmd_count()
{
    const LockGuard lock(queue_mutex);
    return queue->count;
}

int crtsec_cmd_dequeue(HotplugCmd** cmd)
{
    if (cmd == nullptr)
        return -1;
    const LockGuard lock(queue_mutex);
    if (queue->count == 0)
        return -1;
    *cmd = static_cast<HotplugCmd*>(queue->next->data);
    vylist_erase(queue, queue->next);
    return 0;
}

int crtsec_blk_add(MountEntry* entry)
{
    if (entry == nullptr || entry->dev == nullptr)
        return -1;
    const LockGuard lock(set_mutex);
    return vylist_insert(busy, vylist_end(busy), entry) != nullptr ? 0 : -1;
}

int crtsec_blk_del(const MountEntry* entry)
{
    if (entry == nullptr)
        return -1;
    const LockGuard lock(set_mutex);
    for (vylist_node* node = busy->next; node != vylist_end(busy); node = node->next) {
        if (node->data != entry)
            continue;
        vylist_erase(busy, node);
        return 0;
    }
    return -1;
}

int crtsec_blk_search(MountEntry** entry, int32_t position)
{
    if (entry == nullptr || position < 0)
        return -1;
    const LockGuard lock(set_mutex);
    vylist_node* node = busy->next;
    while (node != vylist_end(busy) && position-- > 0)
        node = node->next;
    if (node == vylist_end(busy))
        return -1;
    *entry = static_cast<MountEntry*>(node->data);
    return 0;
}

int crtsec_blk_next(BusyWalk* walk, MountEntry** entry)
{
    const LockGuard lock(set_mutex);
    vylist_node* node = walk->at != nullptr ? walk->at->next : busy->next;
    if (node == vylist_end(busy))
        return -1;
    walk->at = node;
    *entry = static_cast<MountEntry*>(node->data);
    return 0;
}

void crtsec_blk_drop(BusyWalk* walk)
{
    const LockGuard lock(set_mutex);
    vylist_node* dropped = walk->at;
    walk->at = dropped->prev; // the one before, or the head, which stands before the first
    vylist_erase(busy, dropped);
}
