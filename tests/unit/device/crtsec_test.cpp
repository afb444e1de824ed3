#include "device/crtsec.h"

#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <string.h>

#include <thread>
#include <vector>

namespace {

class Crtsec : public testing::Test {
  protected:
    Crtsec() { EXPECT_EQ(crtsec_init(), 0); }
    ~Crtsec() override { crtsec_term(); }
};

// ---- making and disposing of both ----

TEST(CrtsecInit, MakesNothingWhenMemoryRunsOut)
{
    for (const int nth : {1, 2}) {
        memory_fail(nth);
        const int result = crtsec_init();
        EXPECT_TRUE(memory_failed()) << "list " << nth;
        EXPECT_EQ(result, -1) << "list " << nth;
        crtsec_term();
    }
    EXPECT_EQ(crtsec_init(), 0);
    crtsec_term();
}

TEST(CrtsecInit, StartsAnewAfterTerm)
{
    HotplugCmd cmd = {};
    HotplugDev dev = {};
    MountEntry entry = {};
    entry.dev = &dev;
    ASSERT_EQ(crtsec_init(), 0);
    ASSERT_EQ(crtsec_cmd_enqueue(&cmd), 0);
    ASSERT_EQ(crtsec_blk_add(&entry), 0);
    crtsec_term();
    ASSERT_EQ(crtsec_init(), 0);
    HotplugCmd* taken = nullptr;
    MountEntry* found = nullptr;
    EXPECT_EQ(crtsec_cmd_dequeue(&taken), -1);
    EXPECT_EQ(crtsec_blk_search(&found, 0), -1);
    crtsec_term();
}

TEST(CrtsecTerm, IsHarmlessWithoutInitAndTwice)
{
    crtsec_term();
    ASSERT_EQ(crtsec_init(), 0);
    crtsec_term();
    crtsec_term();
}

// Whoever put them in still frees them; a second free would be found by a sanitizer.
TEST(CrtsecTerm, LeavesTheElementsAlive)
{
    ASSERT_EQ(crtsec_init(), 0);
    HotplugCmd* cmd = hotplug_cmd_create();
    ASSERT_NE(cmd, nullptr);
    strcpy(cmd->text, "ACTION=add,");
    auto* dev = new HotplugDev();
    auto* entry = new MountEntry();
    entry->dev = dev;
    dev->minor = 17;
    ASSERT_EQ(crtsec_cmd_enqueue(cmd), 0);
    ASSERT_EQ(crtsec_blk_add(entry), 0);
    crtsec_term();
    EXPECT_STREQ(cmd->text, "ACTION=add,");
    EXPECT_EQ(entry->dev->minor, 17);
    hotplug_cmd_free(cmd);
    delete entry;
    delete dev;
}

// ---- a command ----

TEST(HotplugCmdCreate, HasNoConnectionNoTextAndNoDelay)
{
    HotplugCmd* cmd = hotplug_cmd_create();
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->fd, -1);
    EXPECT_EQ(cmd->len, 0);
    EXPECT_EQ(cmd->reserved, 0);
    EXPECT_EQ(cmd->due, 0U);
    const std::vector<char> zeroes(HOTPLUG_CMD_TEXT + 1, '\0');
    EXPECT_EQ(memcmp(cmd->text, zeroes.data(), zeroes.size()), 0);
    hotplug_cmd_free(cmd);
}

TEST(HotplugCmdCreate, TakesAWholeMessageOf512BytesAndStaysTerminated)
{
    EXPECT_EQ(HOTPLUG_CMD_TEXT, 512U);
    HotplugCmd* cmd = hotplug_cmd_create();
    ASSERT_NE(cmd, nullptr);
    memset(cmd->text, 'x', HOTPLUG_CMD_TEXT);
    EXPECT_EQ(strlen(cmd->text), 512U);
    hotplug_cmd_free(cmd);
}

TEST(HotplugCmdCreate, IsNullWhenMemoryRunsOut)
{
    for (const int nth : {1, 2}) {
        memory_fail(nth);
        HotplugCmd* cmd = hotplug_cmd_create();
        EXPECT_TRUE(memory_failed());
        EXPECT_EQ(cmd, nullptr) << "allocation " << nth;
    }
}

// ---- the queue ----

TEST_F(Crtsec, CommandsComeOutInTheOrderTheyWentIn)
{
    HotplugCmd cmds[3] = {};
    for (HotplugCmd& cmd : cmds)
        EXPECT_EQ(crtsec_cmd_enqueue(&cmd), 0);
    for (HotplugCmd& cmd : cmds) {
        HotplugCmd* taken = nullptr;
        EXPECT_EQ(crtsec_cmd_dequeue(&taken), 0);
        EXPECT_EQ(taken, &cmd);
    }
}

// A due time does not change the order: the queue is first in, first out.
TEST_F(Crtsec, CommandsAreNotSortedByTheirDueTime)
{
    HotplugCmd late = {};
    HotplugCmd early = {};
    late.due = 5000000;
    EXPECT_EQ(crtsec_cmd_enqueue(&late), 0);
    EXPECT_EQ(crtsec_cmd_enqueue(&early), 0);
    HotplugCmd* taken = nullptr;
    EXPECT_EQ(crtsec_cmd_dequeue(&taken), 0);
    EXPECT_EQ(taken, &late);
}

TEST_F(Crtsec, DequeueFromAnEmptyQueueLeavesTheOutArgument)
{
    HotplugCmd before = {};
    HotplugCmd* taken = &before;
    EXPECT_EQ(crtsec_cmd_dequeue(&taken), -1);
    EXPECT_EQ(taken, &before);
}

TEST_F(Crtsec, DequeuedCommandIsGoneFromTheQueue)
{
    HotplugCmd cmd = {};
    ASSERT_EQ(crtsec_cmd_enqueue(&cmd), 0);
    HotplugCmd* taken = nullptr;
    ASSERT_EQ(crtsec_cmd_dequeue(&taken), 0);
    EXPECT_EQ(crtsec_cmd_dequeue(&taken), -1);
}

TEST_F(Crtsec, NullIsNoCommandAndNoPlaceForOne)
{
    EXPECT_EQ(crtsec_cmd_enqueue(nullptr), -1);
    HotplugCmd cmd = {};
    ASSERT_EQ(crtsec_cmd_enqueue(&cmd), 0);
    EXPECT_EQ(crtsec_cmd_dequeue(nullptr), -1);
    HotplugCmd* taken = nullptr;
    EXPECT_EQ(crtsec_cmd_dequeue(&taken), 0) << "the command was lost";
    EXPECT_EQ(taken, &cmd);
}

TEST_F(Crtsec, EnqueueWithoutMemoryTakesNothing)
{
    HotplugCmd cmd = {};
    memory_fail(1);
    const int result = crtsec_cmd_enqueue(&cmd);
    EXPECT_TRUE(memory_failed());
    EXPECT_EQ(result, -1);
    HotplugCmd* taken = nullptr;
    EXPECT_EQ(crtsec_cmd_dequeue(&taken), -1);
}

// One thread puts in, another takes out: every command once, in order. A thread sanitizer sees
// whether the lock is there.
TEST_F(Crtsec, QueuePassesCommandsBetweenTwoThreads)
{
    constexpr int count = 20000;
    std::vector<HotplugCmd> cmds(count);
    std::thread receiver([&cmds] {
        for (int i = 0; i < count; i++) {
            cmds[static_cast<size_t>(i)].len = i;
            EXPECT_EQ(crtsec_cmd_enqueue(&cmds[static_cast<size_t>(i)]), 0);
        }
    });
    int misplaced = 0;
    for (int i = 0; i < count;) {
        HotplugCmd* taken = nullptr;
        if (crtsec_cmd_dequeue(&taken) != 0) {
            sched_yield();
            continue;
        }
        misplaced += taken->len != i ? 1 : 0;
        i++;
    }
    receiver.join();
    EXPECT_EQ(misplaced, 0);
    HotplugCmd* more = nullptr;
    EXPECT_EQ(crtsec_cmd_dequeue(&more), -1);
}

// ---- the busy-device set ----

class BusySet : public Crtsec {
  protected:
    BusySet()
    {
        for (int i = 0; i < 4; i++)
            entries[i].dev = &devs[i];
    }
    void add(int number) { EXPECT_EQ(crtsec_blk_add(&entries[number]), 0); }
    // The numbers of the entries in the set, by position.
    std::vector<int> positions()
    {
        std::vector<int> found;
        MountEntry* entry = nullptr;
        for (int32_t position = 0; crtsec_blk_search(&entry, position) == 0; position++)
            found.push_back(static_cast<int>(entry - entries));
        return found;
    }

    HotplugDev devs[4] = {};
    MountEntry entries[4] = {};
};

TEST_F(BusySet, KeepsTheOrderInWhichEntriesCame)
{
    add(2);
    add(0);
    add(1);
    EXPECT_EQ(positions(), (std::vector<int>{2, 0, 1}));
}

TEST_F(BusySet, RefusesNullAndAnEntryWithoutADevice)
{
    add(0);
    entries[1].dev = nullptr;
    EXPECT_EQ(crtsec_blk_add(nullptr), -1);
    EXPECT_EQ(crtsec_blk_add(&entries[1]), -1);
    EXPECT_EQ(positions(), std::vector<int>{0});
}

TEST_F(BusySet, WithoutMemoryAddsNothing)
{
    add(0);
    memory_fail(1);
    const int result = crtsec_blk_add(&entries[1]);
    EXPECT_TRUE(memory_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(positions(), std::vector<int>{0});
}

TEST_F(BusySet, FindsNothingOutsideItsPositions)
{
    add(0);
    add(1);
    MountEntry* entry = nullptr;
    EXPECT_EQ(crtsec_blk_search(&entry, 1), 0);
    for (const int32_t position : {-1, INT32_MIN, 2, 3, INT32_MAX})
        EXPECT_EQ(crtsec_blk_search(&entry, position), -1) << position;
}

TEST_F(BusySet, FindsNothingWhenEmpty)
{
    MountEntry* entry = nullptr;
    EXPECT_EQ(crtsec_blk_search(&entry, 0), -1);
}

TEST_F(BusySet, SearchNeedsAPlaceForTheEntry)
{
    add(0);
    EXPECT_EQ(crtsec_blk_search(nullptr, 0), -1);
}

TEST_F(BusySet, SearchLeavesTheEntryInTheSet)
{
    add(0);
    MountEntry* entry = nullptr;
    EXPECT_EQ(crtsec_blk_search(&entry, 0), 0);
    EXPECT_EQ(positions(), std::vector<int>{0});
}

TEST_F(BusySet, EntriesBehindADeletedOneMoveDown)
{
    for (int number = 0; number < 4; number++)
        add(number);
    EXPECT_EQ(crtsec_blk_del(&entries[1]), 0);
    EXPECT_EQ(positions(), (std::vector<int>{0, 2, 3}));
    EXPECT_EQ(crtsec_blk_del(&entries[0]), 0);
    EXPECT_EQ(positions(), (std::vector<int>{2, 3}));
    EXPECT_EQ(crtsec_blk_del(&entries[3]), 0);
    EXPECT_EQ(positions(), std::vector<int>{2});
}

TEST_F(BusySet, WalkGoesOnAtThePositionOfADeletedEntry)
{
    for (int number = 0; number < 4; number++)
        add(number);
    entries[1].gone = 1;
    entries[2].gone = 1;
    MountEntry* entry = nullptr;
    for (int32_t position = 0; crtsec_blk_search(&entry, position) == 0;) {
        if (entry->gone)
            EXPECT_EQ(crtsec_blk_del(entry), 0);
        else
            position++;
    }
    EXPECT_EQ(positions(), (std::vector<int>{0, 3}));
}

TEST_F(BusySet, AWalkMeetsEveryEntryOnceAndThenTheEnd)
{
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    EXPECT_EQ(crtsec_blk_next(&walk, &entry), -1) << "empty set";
    for (int number = 0; number < 3; number++)
        add(number);
    walk = {};
    for (int number = 0; number < 3; number++) {
        ASSERT_EQ(crtsec_blk_next(&walk, &entry), 0);
        EXPECT_EQ(entry, &entries[number]);
    }
    entry = nullptr;
    EXPECT_EQ(crtsec_blk_next(&walk, &entry), -1);
    EXPECT_EQ(crtsec_blk_next(&walk, &entry), -1) << "the end stays the end";
    EXPECT_EQ(entry, nullptr);
}

TEST_F(BusySet, WalksAreIndependentOfEachOther)
{
    for (int number = 0; number < 3; number++)
        add(number);
    BusyWalk outer = {};
    MountEntry* entry = nullptr;
    int met = 0;
    while (crtsec_blk_next(&outer, &entry) == 0) {
        BusyWalk inner = {};
        while (crtsec_blk_next(&inner, &entry) == 0)
            met++;
    }
    EXPECT_EQ(met, 9);
}

TEST_F(BusySet, AWalkMeetsWhatIsAddedMeanwhile)
{
    add(0);
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    ASSERT_EQ(crtsec_blk_next(&walk, &entry), 0);
    ASSERT_EQ(crtsec_blk_next(&walk, &entry), -1);
    add(1);
    ASSERT_EQ(crtsec_blk_next(&walk, &entry), 0);
    EXPECT_EQ(entry, &entries[1]);
}

// Every choice of entries: the walk goes on behind each that it drops.
TEST_F(BusySet, AWalkDropsAnyOfItsEntries)
{
    for (unsigned choice = 0; choice < 16; choice++) {
        for (int number = 0; number < 4; number++)
            add(number);
        BusyWalk walk = {};
        MountEntry* entry = nullptr;
        std::vector<int> kept;
        int met = 0;
        for (; crtsec_blk_next(&walk, &entry) == 0; met++) {
            EXPECT_EQ(entry, &entries[met]);
            if ((choice >> met & 1U) != 0)
                crtsec_blk_drop(&walk);
            else
                kept.push_back(met);
        }
        EXPECT_EQ(met, 4);
        EXPECT_EQ(positions(), kept) << choice;
        for (const int number : kept)
            EXPECT_EQ(crtsec_blk_del(&entries[number]), 0);
    }
}

TEST_F(BusySet, DeletesByIdentityAndNotByContent)
{
    add(0);
    const MountEntry twin = entries[0];
    EXPECT_EQ(crtsec_blk_del(&twin), -1);
    EXPECT_EQ(positions(), std::vector<int>{0});
}

TEST_F(BusySet, DeleteOfWhatIsNotThereFails)
{
    EXPECT_EQ(crtsec_blk_del(&entries[0]), -1) << "empty set";
    add(0);
    EXPECT_EQ(crtsec_blk_del(&entries[1]), -1);
    EXPECT_EQ(crtsec_blk_del(nullptr), -1);
    EXPECT_EQ(positions(), std::vector<int>{0});
    EXPECT_EQ(crtsec_blk_del(&entries[0]), 0);
    EXPECT_EQ(crtsec_blk_del(&entries[0]), -1) << "deleted already";
}

TEST_F(BusySet, DeleteTakesOutTheFirstOfTwo)
{
    add(0);
    add(1);
    add(0);
    EXPECT_EQ(crtsec_blk_del(&entries[0]), 0);
    EXPECT_EQ(positions(), (std::vector<int>{1, 0}));
}

TEST_F(BusySet, DeleteLeavesTheEntryAlive)
{
    auto* entry = new MountEntry(entries[0]);
    entry->fstype = 4;
    ASSERT_EQ(crtsec_blk_add(entry), 0);
    EXPECT_EQ(crtsec_blk_del(entry), 0);
    EXPECT_EQ(entry->fstype, 4);
    delete entry;
}

TEST_F(BusySet, AndTheQueueHaveNothingInCommon)
{
    HotplugCmd cmd = {};
    ASSERT_EQ(crtsec_cmd_enqueue(&cmd), 0);
    EXPECT_EQ(positions(), std::vector<int>{});
    add(0);
    HotplugCmd* taken = nullptr;
    EXPECT_EQ(crtsec_cmd_dequeue(&taken), 0);
    EXPECT_EQ(taken, &cmd);
    EXPECT_EQ(crtsec_cmd_dequeue(&taken), -1);
    EXPECT_EQ(positions(), std::vector<int>{0});
}

} // namespace
