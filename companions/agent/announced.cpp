#include "agent/announced.h"

#include <string.h>

static bool has_numbers(const Announced& entry, int32_t major, int32_t minor)
{
    return entry.state != ANNOUNCED_FREE && entry.major == major && entry.minor == minor;
}

void announced_clear(AnnouncedTable* table)
{
    memset(table->entries, 0, sizeof table->entries); // ids are not used again
}

// An entry that a new one may overwrite.
static Announced* find_place(AnnouncedTable* table, int32_t major, int32_t minor)
{
    Announced* place = announced_find_state(table, major, minor, ANNOUNCED_GONE);
    if (place != nullptr)
        return place;
    for (Announced& entry : table->entries) {
        if (entry.state == ANNOUNCED_FREE)
            return &entry;
        if (place == nullptr && (entry.state == ANNOUNCED_GONE || !entry.ours))
            place = &entry;
    }
    return place;
}

Announced* announced_put(AnnouncedTable* table, AnnouncedState state, bool ours,
                         const BlockName& name, int32_t major, int32_t minor)
{
    Announced* entry = find_place(table, major, minor);
    if (entry == nullptr)
        return nullptr;
    *entry = {};
    entry->id = ++table->last_id;
    entry->state = state;
    entry->ours = ours;
    entry->name = name;
    entry->major = major;
    entry->minor = minor;
    return entry;
}

Announced* announced_find(AnnouncedTable* table, int32_t major, int32_t minor)
{
    for (Announced& entry : table->entries) {
        if (has_numbers(entry, major, minor) && announced_is_here(&entry))
            return &entry;
    }
    return nullptr;
}

Announced* announced_find_state(AnnouncedTable* table, int32_t major, int32_t minor,
                                AnnouncedState state)
{
    for (Announced& entry : table->entries) {
        if (has_numbers(entry, major, minor) && entry.state == state)
            return &entry;
    }
    return nullptr;
}

Announced* announced_find_id(AnnouncedTable* table, uint32_t id)
{
    for (Announced& entry : table->entries) {
        if (entry.state != ANNOUNCED_FREE && entry.id == id)
            return &entry;
    }
    return nullptr;
}

bool announced_is_ours(const AnnouncedTable* table, int32_t major, int32_t minor)
{
    for (const Announced& entry : table->entries) {
        if (has_numbers(entry, major, minor) && entry.ours)
            return true;
    }
    return false;
}

bool announced_is_here(const Announced* entry)
{
    return entry->state == ANNOUNCED_COMING || entry->state == ANNOUNCED_TOLD;
}

// One remove message will do for all that left under the same numbers.
static AnnouncedState lose(AnnouncedTable* table, const Announced& entry)
{
    const bool known =
        announced_find_state(table, entry.major, entry.minor, ANNOUNCED_LOST) != nullptr;
    return known || !entry.ours ? ANNOUNCED_FREE : ANNOUNCED_LOST;
}

void announced_lose_queue(AnnouncedTable* table, uint32_t kept)
{
    for (Announced& entry : table->entries) {
        if (entry.id == kept)
            continue;
        if (entry.state == ANNOUNCED_COMING)
            entry.state = ANNOUNCED_FREE;
        else if (entry.state == ANNOUNCED_LEAVING)
            entry.state = lose(table, entry);
    }
}

int announced_leaving(AnnouncedTable* table)
{
    int leaving = 0;
    for (const Announced& entry : table->entries) {
        if (entry.state != ANNOUNCED_LEAVING)
            continue;
        leaving = 1;
        // Not the first with its numbers.
        if (announced_find_state(table, entry.major, entry.minor, ANNOUNCED_LEAVING) != &entry)
            return 2;
    }
    return leaving;
}
