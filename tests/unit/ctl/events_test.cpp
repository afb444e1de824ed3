#include "ctl/events.h"

#include "unit/ctl/made_view.h"

#include <gtest/gtest.h>

#include <string>

namespace {

void note(void* context, EventKind kind, const Item& item)
{
    auto* told = static_cast<std::string*>(context);
    *told += std::string(told->empty() ? "" : ", ") + item_name(item) + " " + event_word(kind);
}

std::string events(const View* before, const View& after)
{
    std::string told;
    events_find(before, after, note, &told);
    return told;
}

// What is told of a partition that was in one state and is in another.
std::string between(ItemState first, ItemState second)
{
    MadeView before;
    MadeView after;
    before.add("sda1", "a:1", first);
    after.add("sda1", "a:1", second);
    return events(&before.view, after.view);
}

// What is told of one that was not there before.
std::string of_new(const char* name, ItemState state)
{
    const MadeView before;
    MadeView after;
    after.add(name, "a:1", state);
    return events(&before.view, after.view);
}

} // namespace

TEST(EventsOfAState, AreToldOfWhatIsNew)
{
    EXPECT_EQ(of_new("sda1", ITEM_SHARED), "sda1 plugged, sda1 mounted, sda1 shared");
    EXPECT_EQ(of_new("sda1", ITEM_MOUNTED), "sda1 plugged, sda1 mounted");
    EXPECT_EQ(of_new("sda1", ITEM_BUSY), "sda1 plugged, sda1 busy");
    EXPECT_EQ(of_new("sda1", ITEM_UNMOUNTED), "sda1 plugged, sda1 unmounted");
    EXPECT_EQ(of_new("sda1", ITEM_NOT_MOUNTED), "sda1 plugged, sda1 not_mounted");
    EXPECT_EQ(of_new("sda1", ITEM_WAITING), "sda1 plugged");
    EXPECT_EQ(of_new("", ITEM_DIRECTORY), "a:1 shared");
    EXPECT_EQ(of_new("", ITEM_GONE), "a:1 changed");
    EXPECT_EQ(of_new("", ITEM_ABSENT), "a:1 changed") << "settings of what is not plugged";
}

TEST(EventsOfAState, AreToldOfAChange)
{
    for (const ItemState mounted : {ITEM_MOUNTED, ITEM_BUSY})
        EXPECT_EQ(between(mounted, ITEM_SHARED), "sda1 shared") << item_state_word(mounted);
    for (const ItemState unmounted : {ITEM_UNMOUNTED, ITEM_NOT_MOUNTED, ITEM_WAITING})
        EXPECT_EQ(between(unmounted, ITEM_SHARED), "sda1 mounted, sda1 shared")
            << item_state_word(unmounted);
    EXPECT_EQ(between(ITEM_SHARED, ITEM_BUSY), "sda1 busy");
    EXPECT_EQ(between(ITEM_SHARED, ITEM_UNMOUNTED), "sda1 unmounted");
    EXPECT_EQ(between(ITEM_WAITING, ITEM_NOT_MOUNTED), "sda1 not_mounted");
    EXPECT_EQ(between(ITEM_NOT_MOUNTED, ITEM_WAITING), "");
    EXPECT_EQ(between(ITEM_WAITING, ITEM_MOUNTED), "sda1 mounted");
    EXPECT_EQ(between(ITEM_DIRECTORY, ITEM_GONE), "sda1 changed");
    for (int state = 0; state < ITEM_STATES; state++)
        EXPECT_EQ(between(static_cast<ItemState>(state), static_cast<ItemState>(state)), "");
}

TEST(EventsOfAState, AnotherReasonCountsWhereItIsNotMounted)
{
    for (const ItemState state : {ITEM_NOT_MOUNTED, ITEM_SHARED}) {
        MadeView before;
        MadeView after;
        before.add("sda1", "a:1", state).reason = before.text("damaged");
        after.add("sda1", "a:1", state).reason = after.text("empty");
        EXPECT_EQ(events(&before.view, after.view), state == ITEM_SHARED ? "" : "sda1 not_mounted");
    }
}

TEST(EventsOfAnItem, AnotherOfTheSameNameIsAnotherOne)
{
    MadeView before;
    MadeView after;
    before.add("sda1", "a:1", ITEM_UNMOUNTED);
    after.add("sda1", "b:1", ITEM_WAITING);
    EXPECT_EQ(events(&before.view, after.view), "sda1 pulled, sda1 plugged");
    after.add("sdb1", "a:1", ITEM_WAITING);
    EXPECT_EQ(events(&before.view, after.view), "sda1 pulled, sda1 plugged, sdb1 plugged");
}

TEST(EventsOfAnItem, OneWithoutAnIdentityIsTheOneOfItsName)
{
    MadeView known;
    MadeView unknown;
    known.add("sda1", "a:1", ITEM_SHARED);
    unknown.add("sda1", "", ITEM_MOUNTED);
    EXPECT_EQ(events(&unknown.view, known.view), "sda1 shared");
    EXPECT_EQ(events(&known.view, unknown.view), "sda1 mounted");
    MadeView directory;
    directory.add("", "a:2", ITEM_DIRECTORY);
    directory.add("", "", ITEM_DIRECTORY);
    MadeView other;
    other.add("", "", ITEM_DIRECTORY);
    other.add("", "a:2", ITEM_DIRECTORY);
    EXPECT_EQ(events(&directory.view, other.view), "") << "without a name the identity counts";
}

TEST(EventsOfAnItem, WhatIsPulledIsKnownStill)
{
    MadeView plugged;
    MadeView pulled;
    plugged.add("sda1", "a:1", ITEM_SHARED);
    pulled.add("", "a:1", ITEM_ABSENT);
    EXPECT_EQ(events(&plugged.view, pulled.view), "sda1 pulled");
    EXPECT_EQ(events(&pulled.view, plugged.view), "sda1 plugged, sda1 mounted, sda1 shared");
    const MadeView nothing;
    EXPECT_EQ(events(&pulled.view, nothing.view), "a:1 forgotten");
    EXPECT_EQ(events(nullptr, pulled.view), "") << "it is not there";
    EXPECT_EQ(events(nullptr, plugged.view), "sda1 present");
}

TEST(EventsOfSettings, ArePartOfWhatIsTold)
{
    MadeView before;
    MadeView after;
    ConfDev* const first = before.settings();
    ConfDev* const second = after.settings();
    before.add("sda1", "a:1", ITEM_SHARED).settings = first;
    after.add("sda1", "a:1", ITEM_SHARED).settings = second;
    EXPECT_EQ(events(&before.view, after.view), "");
    second->guestaccess = 1;
    EXPECT_EQ(events(&before.view, after.view), "sda1 changed");
    after.view.items[0].state = ITEM_BUSY;
    EXPECT_EQ(events(&before.view, after.view), "sda1 busy, sda1 changed");
    after.view.items[0].state = ITEM_SHARED;
    after.view.items[0].settings = nullptr;
    EXPECT_EQ(events(&before.view, after.view), "") << "an empty record comes and goes";
    EXPECT_EQ(events(&after.view, before.view), "");
}

TEST(EventsOfSettings, AnotherNameOfTheShareIsAChange)
{
    MadeView before;
    MadeView after;
    before.add("sda1", "a:1", ITEM_SHARED).share = before.text("Music");
    after.add("sda1", "a:1", ITEM_SHARED).share = after.text("Songs");
    EXPECT_EQ(events(&before.view, after.view), "sda1 changed");
    after.view.items[0].state = ITEM_BUSY;
    EXPECT_EQ(events(&before.view, after.view), "sda1 busy");
    after.view.items[0].state = ITEM_SHARED;
    before.view.items[0].share = nullptr;
    EXPECT_EQ(events(&before.view, after.view), "") << "its first name is none";
}
