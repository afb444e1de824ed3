// What is told for which events, on a sysfs of files; nobody listens, the queue is looked at.
#include "agent/announcer.h"

#include "fake/fake_log.h"
#include "fake_medium.h"
#include "fake_sysfs.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "test_daemon.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

using Told = std::vector<std::string>;

class AnnouncerTest : public testing::Test {
  protected:
    AnnouncerTest()
    {
        courier_init(&courier_, {nullptr, nullptr, nullptr, nullptr});
        const SurveyView view = {FakeSysfs::root, FakeSysfs::proc, FakeSysfs::mounts,
                                 nullptr,         false,           false};
        announcer_init(&announcer_, view, &courier_);
    }
    ~AnnouncerTest() override { message_queue_cut(&courier_.queue, 0); }

    void event(UeventAction action, const std::string& name, int major, int minor,
               uint64_t sequence = 0)
    {
        Uevent event = {};
        event.action = action;
        ASSERT_TRUE(block_name_parse(name.c_str(), &event.name)) << name;
        event.major = major;
        event.minor = minor;
        event.media_change = action == UEVENT_CHANGE;
        event.sequence = sequence;
        announcer_event(&announcer_, event);
    }

    // A stick sda with a partition, and their events.
    void plug(const std::string& serial = "ABC")
    {
        sysfs_.add_stick("sda", "8:0", {{"serial", serial}});
        sysfs_.add_partition("sda", "sda1", "8:1");
        event(UEVENT_ADD, "sda", 8, 0);
        event(UEVENT_ADD, "sda1", 8, 1);
    }

    // What waits in the queue, which then counts as delivered.
    Told told()
    {
        Told texts;
        while (const QueuedMessage* head = message_queue_head(&courier_.queue)) {
            texts.push_back(short_form(head->text));
            announcer_delivered(&announcer_, head);
            message_queue_pop(&courier_.queue);
        }
        return texts;
    }

    void walk() { announcer_walk(&announcer_); }

    // The stick has been told of, and is pulled.
    void pull()
    {
        sysfs_.remove_disk("sda");
        event(UEVENT_REMOVE, "sda1", 8, 1);
        event(UEVENT_REMOVE, "sda", 8, 0);
    }

    // Another card is in the drive sda, while a partition of the one before is mounted.
    void change_in_use()
    {
        medium_.add_node("sda");
        medium_.answer(EBUSY);
        event(UEVENT_CHANGE, "sda", 8, 0);
    }

    // The kernel reads the new card's partitions once nothing is in use.
    void end_use()
    {
        medium_.answer(0);
        sysfs_.remove_partition("sda", "sda1");
        sysfs_.add_partition("sda", "sda2", "8:2");
        announcer_advance(&announcer_, announcer_.changed.due);
    }

    FakeMedium medium_;
    FakeSysfs sysfs_;
    Courier courier_;
    Announcer announcer_;
};

TEST_F(AnnouncerTest, TellsOfWhatComesAndGoes)
{
    plug();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    sysfs_.remove_disk("sda");
    event(UEVENT_REMOVE, "sda1", 8, 1);
    event(UEVENT_REMOVE, "sda", 8, 0);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
}

TEST_F(AnnouncerTest, TellsOfAWalkAndItsEventsOnce)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.add_partition("sda", "sda1", "8:1");
    walk();
    event(UEVENT_ADD, "sda", 8, 0);
    event(UEVENT_ADD, "sda1", 8, 1);
    walk();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    walk();
    event(UEVENT_ADD, "sda1", 8, 1);
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, WalksInOrder)
{
    sysfs_.add_card("mmcblk0", "179:0");
    for (const char* disk : {"sdb", "sda"}) {
        const int first = disk[2] == 'b' ? 16 : 0;
        sysfs_.add_stick(disk, "8:" + std::to_string(first));
        for (const int number : {10, 2, 1})
            sysfs_.add_partition(disk, disk + std::to_string(number),
                                 "8:" + std::to_string(first + number));
    }
    walk();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1", "+8:2", "+8:10", "+8:16", "+8:17", "+8:18", "+8:26",
                            "+179:0"}));
}

TEST_F(AnnouncerTest, TellsOfNothingThatHasGoneByTheTimeOfItsEvent)
{
    event(UEVENT_ADD, "sda", 8, 0);
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, TellsOfNothingThatIsAnotherDeviceByNow)
{
    sysfs_.add_stick("sda", "8:32");
    event(UEVENT_ADD, "sda", 8, 0);
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, PassesARemoveOfAnUnknownDeviceOnOnce)
{
    event(UEVENT_REMOVE, "sdb1", 8, 17);
    event(UEVENT_REMOVE, "sdb1", 8, 17);
    EXPECT_EQ(told(), Told{"-8:17"});
    event(UEVENT_REMOVE, "sdb1", 8, 17);
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, PassesARemoveOnAgainAfterTheDeviceWasBack)
{
    for (int turn = 0; turn < 3; turn++) {
        plug();
        sysfs_.remove_disk("sda");
        event(UEVENT_REMOVE, "sda1", 8, 1);
        event(UEVENT_REMOVE, "sda1", 8, 1);
        event(UEVENT_REMOVE, "sda", 8, 0);
        EXPECT_EQ(told(), (Told{"+8:0", "+8:1", "-8:1", "-8:0"})) << turn;
    }
}

TEST_F(AnnouncerTest, TellsOfADeviceThatCameBackBeforeAnythingWasDelivered)
{
    plug("FIRST");
    sysfs_.remove_disk("sda");
    event(UEVENT_REMOVE, "sda1", 8, 1);
    event(UEVENT_REMOVE, "sda", 8, 0);
    plug("SECOND");
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1", "-8:1", "-8:0", "+8:0", "+8:1"}));
    walk();
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, TakesADeviceBackThatAnotherOneReplaced)
{
    plug("FIRST");
    sysfs_.remove_disk("sda");
    plug("SECOND"); // the remove events were lost
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1", "-8:0", "+8:0", "-8:1", "+8:1"}));
}

TEST_F(AnnouncerTest, FindsInAWalkWhatChanged)
{
    plug();
    sysfs_.add_stick("sdb", "8:16");
    sysfs_.add_partition("sdb", "sdb1", "8:17");
    walk();
    (void)told();
    sysfs_.remove_disk("sda");
    sysfs_.remove_partition("sdb", "sdb1");
    sysfs_.add_partition("sdb", "sdb2", "8:18");
    walk();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:17", "-8:0", "+8:18"}));
}

TEST_F(AnnouncerTest, FindsInAWalkADeviceThatWasPulledAndPluggedAgain)
{
    plug();
    (void)told();
    sysfs_.remove_disk("sda");
    sysfs_.add_stick("sda", "8:0"); // the very same
    sysfs_.add_partition("sda", "sda1", "8:1");
    walk();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:1"}));
}

TEST_F(AnnouncerTest, FindsInAWalkADriveThatWasEmptied)
{
    plug();
    (void)told();
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.set("sda/size", "0");
    walk();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
}

TEST_F(AnnouncerTest, TellsNothingOfADiskOfTheMachines)
{
    sysfs_.set_mounts({"8:1 / /dev/root"});
    plug();
    walk();
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(fake_log_texts().front(), "announcer(#)sda not announced: sda1 is mounted at /");
}

TEST_F(AnnouncerTest, TellsOfNewPartitionsOfADiskThatTheServiceHasMounted)
{
    plug();
    (void)told();
    sysfs_.set_mounts({"8:1 /anywhere /dev/x/sda1"});
    sysfs_.add_partition("sda", "sda2", "8:2");
    event(UEVENT_ADD, "sda2", 8, 2);
    EXPECT_EQ(told(), Told{"+8:2"});
    walk();
    EXPECT_EQ(told(), Told{}); // nothing is taken back either
}

TEST_F(AnnouncerTest, TellsOfAChangedMedium)
{
    plug();
    (void)told();
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.add_partition("sda", "sda2", "8:2");
    event(UEVENT_CHANGE, "sda", 8, 0);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:2"}));
}

TEST_F(AnnouncerTest, TellsOfAChangedMediumThatLooksTheSame)
{
    plug();
    (void)told();
    event(UEVENT_CHANGE, "sda", 8, 0);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:1"}));
}

TEST_F(AnnouncerTest, TellsOfAMediumTakenOutAndPutIn)
{
    plug();
    (void)told();
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.set("sda/size", "0");
    event(UEVENT_CHANGE, "sda", 8, 0);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    sysfs_.set("sda/size", "4096");
    sysfs_.add_partition("sda", "sda1", "8:1");
    event(UEVENT_CHANGE, "sda", 8, 0);
    event(UEVENT_ADD, "sda1", 8, 1); // the kernel's, for what the agent has found already
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
}

TEST_F(AnnouncerTest, TakesBackOnlyTheDiskWhoseMediumChanged)
{
    plug();
    sysfs_.add_stick("sdb", "8:16");
    walk();
    (void)told();
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.set("sda/size", "0");
    event(UEVENT_CHANGE, "sda", 8, 0);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
}

TEST_F(AnnouncerTest, KnowsRemoveEventsFromBeforeTheMediumWasRead)
{
    plug();
    (void)told();
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.add_partition("sda", "sda1", "8:1");
    sysfs_.set_event_count(102); // the kernel took the old partition away and made the new one
    event(UEVENT_CHANGE, "sda", 8, 0, 100);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:1"}));
    event(UEVENT_REMOVE, "sda1", 8, 1, 101);
    event(UEVENT_ADD, "sda1", 8, 1, 102);
    EXPECT_EQ(told(), Told{});
    event(UEVENT_REMOVE, "sda1", 8, 1, 103); // a new one
    EXPECT_EQ(told(), Told{"-8:1"});
}

TEST_F(AnnouncerTest, TellsOfNothingTwiceWhenThePartitionsOfAMediumGoForGood)
{
    plug();
    (void)told();
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.set_event_count(101);
    event(UEVENT_CHANGE, "sda", 8, 0, 100);
    event(UEVENT_REMOVE, "sda1", 8, 1, 101);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0"}));
}

TEST_F(AnnouncerTest, OpensTheDiskWhoseMediumChanged)
{
    // A pipe opens only when somebody else opens its other end: a file will do, its access time
    // tells nothing here, so the failure's line stands for the attempt.
    plug();
    event(UEVENT_CHANGE, "sda", 8, 0);
    const auto lines = fake_log_texts();
    EXPECT_NE(std::find(lines.begin(), lines.end(), "medium(#)/dev/sda: No such file or directory"),
              lines.end());
}

TEST_F(AnnouncerTest, TellsOfAMediumThatWasChangedInUseOnceTheKernelHasReadIt)
{
    plug();
    (void)told();
    change_in_use();
    EXPECT_EQ(fake_log_texts().back(),
              "announcer(#)sda not announced yet: the medium before is in use");
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    walk();
    event(UEVENT_ADD, "sda1", 8, 1);
    announcer_advance(&announcer_, announcer_.changed.due - 1);
    announcer_advance(&announcer_, announcer_.changed.due);
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(medium_.requests(), 2);
    end_use();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:2"}));
    walk();
    EXPECT_EQ(told(), Told{});
    announcer_advance(&announcer_, announcer_.changed.due);
    EXPECT_EQ(medium_.requests(), 3);
}

TEST_F(AnnouncerTest, KnowsTheEventsOfPartitionsThatItHadRead)
{
    plug();
    (void)told();
    change_in_use();
    sysfs_.set_event_count(102);
    end_use();
    event(UEVENT_REMOVE, "sda1", 8, 1, 101);
    event(UEVENT_ADD, "sda2", 8, 2, 102);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:2"}));
}

TEST_F(AnnouncerTest, LeavesAMediumThatWasChangedInUseToAWalkThatIsDue)
{
    plug();
    (void)told();
    change_in_use();
    announcer_forget(&announcer_); // the daemon has gone
    announcer_.walk_due = true;
    end_use();
    EXPECT_EQ(told(), Told{});
    walk();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:2"}));
}

TEST_F(AnnouncerTest, TellsANewDaemonNothingOfAMediumThatWasChangedInUse)
{
    plug();
    (void)told();
    change_in_use();
    announcer_forget(&announcer_);
    walk();
    EXPECT_EQ(told(), Told{});
    end_use();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:2"}));
}

TEST_F(AnnouncerTest, AsksForNoMediumOfADriveThatHasGone)
{
    plug();
    (void)told();
    change_in_use();
    EXPECT_GE(announcer_timeout(&announcer_, courier_now()), 0);
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    announcer_advance(&announcer_, courier_now() + agent_check_first); // nothing is mounted
    EXPECT_EQ(announcer_timeout(&announcer_, courier_now()), -1);
    plug("OTHER");
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    EXPECT_EQ(medium_.requests(), 1);
}

TEST_F(AnnouncerTest, DoesNothingForOtherChanges)
{
    plug();
    (void)told();
    Uevent change = {};
    change.action = UEVENT_CHANGE;
    ASSERT_TRUE(block_name_parse("sda", &change.name));
    change.major = 8;
    announcer_event(&announcer_, change); // another kind of change
    event(UEVENT_CHANGE, "sda1", 8, 1);   // a partition has no medium
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, TakesBackAgainWhatIsStillMounted)
{
    plug();
    (void)told();
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
    EXPECT_GT(announcer_timeout(&announcer_, courier_now()), 0);
    announcer_advance(&announcer_, announcer_.check_due - 1);
    EXPECT_EQ(told(), Told{});
    announcer_advance(&announcer_, announcer_.check_due + 1000); // of the disk too
    EXPECT_EQ(told(), Told{"-8:1"});
    sysfs_.set_mounts({});
    EXPECT_GT(announcer_timeout(&announcer_, courier_now()), 0);
    announcer_advance(&announcer_, announcer_.check_due);
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(announcer_timeout(&announcer_, courier_now()), -1);
}

TEST_F(AnnouncerTest, TakesWhatStaysMountedBackSoOftenAndNoMore)
{
    plug();
    (void)told();
    pull();
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
    for (int looks = 0; looks < agent_checks; looks++) {
        const uint64_t before = courier_now();
        EXPECT_EQ(told().front(), "-8:1") << looks;
        const Announced* entry = announced_find_state(&announcer_.table, 8, 1, ANNOUNCED_GONE);
        ASSERT_NE(entry, nullptr);
        EXPECT_GE(entry->due, before + (uint64_t{agent_check_first} << looks));
        EXPECT_LE(entry->due, courier_now() + (uint64_t{agent_check_first} << looks));
        announcer_advance(&announcer_, entry->due);
    }
    EXPECT_EQ(told(), Told{"-8:1"});
    EXPECT_EQ(announcer_timeout(&announcer_, courier_now()), -1);
}

TEST_F(AnnouncerTest, TakesNothingBackThatIsMountedElsewhereOrWasNeverAnnounced)
{
    plug();
    (void)told();
    pull();
    event(UEVENT_REMOVE, "sdb1", 8, 17);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "-8:17"}));
    sysfs_.set_mounts({"8:1 /mnt /dev/sda1", "8:0 /media/vyhotplug /dev/sda",
                       "8:17 /media/vyhotplug/sdb1 /dev/sdb1", "9:1 /media/vyhotplug/sda1 /dev/x",
                       "8:2 /media/vyhotplug/sda2 /dev/x"});
    announcer_advance(&announcer_, courier_now() + agent_check_first);
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(announcer_timeout(&announcer_, courier_now()), -1);
}

TEST_F(AnnouncerTest, TakesNothingBackThatHasBeenAnnouncedAgain)
{
    plug();
    (void)told();
    for (int turn = 0; turn < 2; turn++) { // before anything is delivered
        pull();
        plug();
    }
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:1", "-8:1", "-8:0", "+8:0", "+8:1"}));
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
    announcer_advance(&announcer_, courier_now() + agent_check_first);
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, TakesNumbersBackOnceHoweverOftenTheyWent)
{
    plug();
    (void)told();
    pull();
    plug();
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:1", "-8:1", "-8:0"}));
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
    announcer_advance(&announcer_, courier_now() + agent_check_first);
    EXPECT_EQ(told(), Told{"-8:1"});
}

TEST_F(AnnouncerTest, LooksLaterWhenTheMountsCannotBeRead)
{
    plug();
    (void)told();
    pull();
    (void)told();
    unlink("/tmp/fake-proc/self/mountinfo");
    announcer_advance(&announcer_, courier_now() + agent_check_first);
    EXPECT_EQ(told(), Told{});
    EXPECT_GT(announcer_timeout(&announcer_, courier_now()), static_cast<int>(agent_check_first));
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
    announcer_advance(&announcer_, courier_now() + 2 * agent_check_first);
    EXPECT_EQ(told(), Told{"-8:1"});
}

TEST_F(AnnouncerTest, LosesNoLookWhereverMemoryRunsOut)
{
    for (int nth = 1;; nth++) {
        sysfs_.set_mounts({});
        plug();
        (void)told();
        pull();
        (void)told();
        sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
        memory_fail(nth);
        announcer_advance(&announcer_, courier_now() + agent_check_first);
        const bool failed = memory_failed();
        walk(); // one may be due
        announcer_advance(&announcer_, courier_now() + 2 * agent_check_first);
        EXPECT_EQ(told(), Told{"-8:1"}) << nth;
        if (!failed)
            break;
        ASSERT_LT(nth, 100);
    }
}

TEST_F(AnnouncerTest, LooksForNoMountOfAnotherDaemons)
{
    plug();
    (void)told();
    pull();
    (void)told();
    announcer_forget(&announcer_);
    EXPECT_EQ(announcer_timeout(&announcer_, courier_now()), -1);
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
    announcer_advance(&announcer_, courier_now() + agent_check_first);
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, ForgetsWhatTheDaemonKnew)
{
    plug();
    announcer_forget(&announcer_);
    EXPECT_EQ(told(), Told{});
    walk();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
}

TEST_F(AnnouncerTest, TellsOfEverythingAfterItsQueueOverflowed)
{
    plug();
    sysfs_.add_stick("sdb", "8:16");
    walk();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1", "+8:16"}));
    sysfs_.remove_partition("sda", "sda1"); // nothing is delivered from here on
    event(UEVENT_REMOVE, "sda1", 8, 1);
    sysfs_.add_partition("sda", "sda1", "8:1");
    event(UEVENT_ADD, "sda1", 8, 1);
    while (courier_.queue.count < agent_queue_limit)
        event(UEVENT_REMOVE, "sdc1", 8, static_cast<int>(1000 + courier_.queue.count));
    EXPECT_FALSE(announcer_.walk_due);
    sysfs_.remove_disk("sdb");
    event(UEVENT_REMOVE, "sdb", 8, 16); // one too many
    EXPECT_TRUE(announcer_.walk_due);
    EXPECT_TRUE(courier_.visit);
    EXPECT_EQ(courier_.queue.count, 0U);
    walk();
    EXPECT_FALSE(announcer_.walk_due);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:16", "+8:1"})); // sda is as it was
    walk();
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, TellsOfADeviceThatCameAndWentMoreOftenThanTheTableHolds)
{
    plug();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    for (uint32_t i = 0; i <= agent_table_limit; i++) { // nothing is delivered
        sysfs_.remove_partition("sda", "sda1");
        event(UEVENT_REMOVE, "sda1", 8, 1);
        sysfs_.add_partition("sda", "sda1", "8:1");
        event(UEVENT_ADD, "sda1", 8, 1);
    }
    EXPECT_TRUE(announcer_.walk_due);
    walk();
    const Told all = told();
    EXPECT_EQ(all.front(), "-8:1");
    EXPECT_EQ(all.back(), "+8:1");
    EXPECT_LT(all.size(), 8U);
    walk();
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, MakesALostRemoveGoodBeforeTheNextAdd)
{
    plug();
    (void)told();
    sysfs_.remove_partition("sda", "sda1");
    event(UEVENT_REMOVE, "sda1", 8, 1);
    for (uint32_t i = 0; courier_.queue.count != 0; i++)
        event(UEVENT_REMOVE, "sdb1", 8, static_cast<int>(100 + i)); // until it overflows
    sysfs_.add_partition("sda", "sda1", "8:1");
    event(UEVENT_ADD, "sda1", 8, 1); // before the walk is made
    EXPECT_EQ(told(), (Told{"-8:1", "+8:1"}));
}

TEST_F(AnnouncerTest, KeepsTheMessageUnderWayWhenItsQueueOverflows)
{
    plug();
    courier_.under_way = true;
    for (uint32_t i = 0; courier_.queue.count > 1; i++)
        event(UEVENT_REMOVE, "sdb1", 8, static_cast<int>(100 + i));
    courier_.under_way = false;
    EXPECT_EQ(told(), Told{"+8:0"});
    walk();
    EXPECT_EQ(told().back(), "+8:1");
}

TEST_F(AnnouncerTest, TellsOfNoMoreDevicesThanFit)
{
    sysfs_.add_stick("sda", "8:0");
    for (uint32_t i = 1; i <= agent_table_limit; i++)
        sysfs_.add_partition("sda", "sda" + std::to_string(i), "8:" + std::to_string(i));
    walk();
    EXPECT_EQ(told().size(), agent_table_limit);
    EXPECT_EQ(fake_log_texts().back(), "announcer(#)sda512 not announced: more than 512 devices");
}

TEST_F(AnnouncerTest, TellsOfADeviceOnceOthersHaveMadeRoom)
{
    sysfs_.add_stick("sda", "8:0");
    for (uint32_t i = 1; i < agent_table_limit; i++)
        sysfs_.add_partition("sda", "sda" + std::to_string(i), "8:" + std::to_string(i));
    walk();
    EXPECT_EQ(told().size(), agent_table_limit);
    sysfs_.remove_partition("sda", "sda7");
    event(UEVENT_REMOVE, "sda7", 8, 7); // waits
    sysfs_.add_stick("sdz", "65:144");
    event(UEVENT_ADD, "sdz", 65, 144);
    EXPECT_TRUE(announcer_.walk_due);
    EXPECT_EQ(told(), Told{"-8:7"});
    walk();
    EXPECT_EQ(told(), Told{"+65:144"});
    EXPECT_FALSE(announcer_.walk_due);
}

TEST_F(AnnouncerTest, LooksAgainWhenSysfsCannotBeRead)
{
    plug();
    (void)told();
    announcer_.view.sysfs = "/tmp/nothing";
    walk();
    EXPECT_EQ(told(), Told{}); // nothing is taken back
    EXPECT_TRUE(announcer_.walk_due);
    EXPECT_TRUE(courier_.visit);
    EXPECT_GT(courier_timeout(&courier_, courier_now()), 0); // a little later
    walk();
    int errors = 0;
    for (const FakeLogLine& line : fake_log_lines())
        errors += line.priority == LOG_ERR ? 1 : 0;
    EXPECT_EQ(errors, 1); // told once
    announcer_.view.sysfs = FakeSysfs::root;
    sysfs_.remove_disk("sda");
    walk();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    EXPECT_FALSE(announcer_.walk_due);
    EXPECT_FALSE(announcer_.in_trouble);
}

TEST_F(AnnouncerTest, LooksAgainWhenTheMountsCannotBeRead)
{
    unlink("/tmp/fake-proc/self/mountinfo");
    plug();
    EXPECT_EQ(told(), Told{});
    EXPECT_TRUE(announcer_.walk_due);
    sysfs_.set_mounts({});
    walk();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    EXPECT_FALSE(announcer_.walk_due);
}

TEST_F(AnnouncerTest, LooksAgainWhereverMemoryRunsOut)
{
    for (int nth = 1;; nth++) {
        sysfs_.add_stick("sda", "8:0");
        sysfs_.add_partition("sda", "sda1", "8:1");
        memory_fail(nth);
        event(UEVENT_ADD, "sda", 8, 0);
        event(UEVENT_ADD, "sda1", 8, 1);
        const bool failed = memory_failed();
        Told all = told();
        EXPECT_EQ(announcer_.walk_due, failed) << nth;
        walk();
        for (const std::string& text : told())
            all.push_back(text);
        std::sort(all.begin(), all.end());
        EXPECT_EQ(all, (Told{"+8:0", "+8:1"})) << nth;
        EXPECT_FALSE(announcer_.walk_due) << nth;
        sysfs_.remove_disk("sda");
        event(UEVENT_REMOVE, "sda1", 8, 1);
        event(UEVENT_REMOVE, "sda", 8, 0);
        (void)told();
        if (!failed)
            break;
        ASSERT_LT(nth, 100);
    }
}

// What a daemon has that was told all of this. No device may be told of that it has.
static Told carry_out(const Told& told)
{
    Told has;
    for (const std::string& text : told) {
        const std::string numbers = text.substr(1);
        const auto at = std::find(has.begin(), has.end(), numbers);
        EXPECT_TRUE(text[0] == '-' || at == has.end()) << text;
        if (at != has.end())
            has.erase(at);
        if (text[0] == '+')
            has.push_back(numbers);
    }
    std::sort(has.begin(), has.end());
    return has;
}

// Makes a change, memory running out once in it, and a walk. Whatever was lost, the daemon has in
// the end what is plugged.
TEST_F(AnnouncerTest, TellsEverythingInTheEndWhereverMemoryRanOut)
{
    const std::function<void()> changes[] = {
        [this] { event(UEVENT_CHANGE, "sda", 8, 0); },
        [this] {
            sysfs_.remove_partition("sda", "sda1");
            sysfs_.add_partition("sda", "sda1", "8:1");
            event(UEVENT_ADD, "sda1", 8, 1); // the remove event was lost
        },
        [this] {
            sysfs_.remove_disk("sda");
            event(UEVENT_REMOVE, "sda1", 8, 1);
            event(UEVENT_REMOVE, "sda", 8, 0);
            sysfs_.add_stick("sda", "8:0", {{"serial", "OTHER"}});
            sysfs_.add_partition("sda", "sda1", "8:1");
            event(UEVENT_ADD, "sda", 8, 0);
            event(UEVENT_ADD, "sda1", 8, 1);
        },
        [this] {
            sysfs_.remove_disk("sda");
            sysfs_.add_stick("sda", "8:0", {{"serial", "OTHER"}});
            sysfs_.add_partition("sda", "sda1", "8:1");
            walk();
        },
    };
    plug();
    for (const auto& change : changes) {
        for (int nth = 1;; nth++) {
            announcer_forget(&announcer_);
            walk();
            Told all = told();
            memory_fail(nth);
            change();
            const bool failed = memory_failed();
            for (int i = 0; i < 2; i++) {
                for (const std::string& text : told())
                    all.push_back(text);
                walk();
            }
            EXPECT_EQ(carry_out(all), (Told{"8:0", "8:1"})) << nth;
            EXPECT_GE(all.size(), 4U) << nth; // it was told of the change
            EXPECT_FALSE(announcer_.walk_due) << nth;
            if (!failed)
                break;
            ASSERT_LT(nth, 200);
        }
    }
}

TEST_F(AnnouncerTest, LosesNoRemoveWhenMemoryRunsOut)
{
    for (int nth = 1;; nth++) {
        plug();
        (void)told();
        sysfs_.remove_disk("sda");
        memory_fail(nth);
        event(UEVENT_REMOVE, "sda1", 8, 1);
        event(UEVENT_REMOVE, "sda", 8, 0);
        const bool failed = memory_failed();
        Told all = told();
        walk();
        for (const std::string& text : told())
            all.push_back(text);
        std::sort(all.begin(), all.end());
        EXPECT_EQ(all, (Told{"-8:0", "-8:1"})) << nth;
        if (!failed)
            break;
        ASSERT_LT(nth, 100);
    }
}

TEST_F(AnnouncerTest, LeavesNoMemoryBehind)
{
    const long before = memory_blocks();
    plug();
    walk();
    EXPECT_EQ(memory_blocks(), before + 2); // the two messages
    announcer_forget(&announcer_);
    EXPECT_EQ(memory_blocks(), before);
}
