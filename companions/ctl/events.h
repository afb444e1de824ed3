// What happened between two looks. Touches no world.
#pragma once

#include "ctl/view.h"

enum EventKind : uint8_t {
    EVENT_PRESENT, // it was there when the watching began
    EVENT_PLUGGED,
    EVENT_MOUNTED,
    EVENT_SHARED,
    EVENT_CHANGED, // a setting, or the share's name
    EVENT_BUSY,
    EVENT_UNMOUNTED,
    EVENT_NOT_MOUNTED,
    EVENT_PULLED,
    EVENT_FORGOTTEN, // what is not plugged has no settings any more
    EVENT_KINDS,
};

// The word of an event: "not_mounted".
[[nodiscard]] const char* event_word(EventKind kind);

// Calls `tell` for each event, in the order in which they are likely to have happened. Without
// `before` all that is there is told as present.
void events_find(const View* before, const View& after,
                 void (*tell)(void* context, EventKind kind, const Item& item), void* context);
