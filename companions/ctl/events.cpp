#include "ctl/events.h"

#include "ctl/settings.h"

#include <string.h>

static constexpr const char* event_words[EVENT_KINDS] = {
    "present", "plugged",   "mounted",     "shared", "changed",
    "busy",    "unmounted", "not_mounted", "pulled", "forgotten",
};

// What a state that is new means. EVENT_PRESENT: nothing is told of it.
static constexpr EventKind state_events[ITEM_STATES] = {
    EVENT_SHARED,  EVENT_MOUNTED, EVENT_BUSY,    EVENT_UNMOUNTED, EVENT_NOT_MOUNTED,
    EVENT_PRESENT, EVENT_SHARED,  EVENT_CHANGED, EVENT_PRESENT,
};

namespace {

struct Teller {
    void (*tell)(void* context, EventKind kind, const Item& item);
    void* context;
};

} // namespace

const char* event_word(EventKind kind)
{
    return event_words[kind];
}

static bool is_equal(const char* a, const char* b)
{
    return a == b || (a != nullptr && b != nullptr && strcmp(a, b) == 0);
}

static bool is_same_item(const Item& a, const Item& b)
{
    // What is mounted and not shared yet may have no identity.
    const bool unknown = a.name[0] != '\0' && (a.identity == nullptr || b.identity == nullptr);
    return strcmp(a.name, b.name) == 0 && (unknown || is_equal(a.identity, b.identity));
}

// The item as it was, if it was there; of what is not plugged, by its settings.
static const Item* find(const View* view, const Item& item)
{
    for (size_t i = 0; view != nullptr && i < view->count; i++) {
        if (item_is_present(view->items[i]) == item_is_present(item) &&
            is_same_item(view->items[i], item))
            return &view->items[i];
    }
    return nullptr;
}

static bool is_known(const View& view, const char* identity)
{
    for (size_t i = 0; i < view.count; i++) {
        if (is_equal(view.items[i].identity, identity))
            return true;
    }
    return false;
}

static bool has_other_settings(const ConfDev* a, const ConfDev* b)
{
    // Without one: the service makes an empty record for each, and drops it again.
    return a != nullptr && b != nullptr && !setting_is_equal(nullptr, *a, *b);
}

static bool is_mounted(ItemState state)
{
    return state == ITEM_SHARED || state == ITEM_MOUNTED || state == ITEM_BUSY;
}

static void tell_new(const Teller& teller, const Item& item)
{
    if (item.name[0] != '\0')
        teller.tell(teller.context, EVENT_PLUGGED, item);
    if (item.state == ITEM_SHARED)
        teller.tell(teller.context, EVENT_MOUNTED, item);
    if (state_events[item.state] != EVENT_PRESENT)
        teller.tell(teller.context, state_events[item.state], item);
}

static void tell_changes(const Teller& teller, const Item& before, const Item& after)
{
    const bool other_state = before.state != after.state;
    if (other_state && after.state == ITEM_SHARED && !is_mounted(before.state))
        teller.tell(teller.context, EVENT_MOUNTED, after);
    if (other_state && state_events[after.state] != EVENT_PRESENT)
        teller.tell(teller.context, state_events[after.state], after);
    else if (!is_equal(before.reason, after.reason) && after.state == ITEM_NOT_MOUNTED)
        teller.tell(teller.context, EVENT_NOT_MOUNTED, after);
    const bool renamed = before.share != nullptr && !is_equal(before.share, after.share);
    if (has_other_settings(before.settings, after.settings) || (renamed && !other_state))
        teller.tell(teller.context, EVENT_CHANGED, after);
}

void events_find(const View* before, const View& after,
                 void (*tell)(void* context, EventKind kind, const Item& item), void* context)
{
    const Teller teller = {.tell = tell, .context = context};
    for (size_t i = 0; before != nullptr && i < before->count; i++) {
        const Item& item = before->items[i];
        if (item_is_present(item) && find(&after, item) == nullptr)
            tell(context, EVENT_PULLED, item);
        else if (!item_is_present(item) && !is_known(after, item.identity))
            tell(context, EVENT_FORGOTTEN, item);
    }
    for (size_t i = 0; i < after.count; i++) {
        const Item& item = after.items[i];
        const Item* old = find(before, item);
        if (!item_is_present(item)) {
            const bool is_new = before != nullptr && !is_known(*before, item.identity);
            if (is_new || (old != nullptr && has_other_settings(old->settings, item.settings)))
                tell(context, EVENT_CHANGED, item);
            continue;
        }
        if (before == nullptr)
            tell(context, EVENT_PRESENT, item);
        else if (old == nullptr)
            tell_new(teller, item);
        else
            tell_changes(teller, *old, item);
    }
}
