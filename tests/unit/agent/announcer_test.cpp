// What is told for which events, on a sysfs of files and a clock of the test's; nobody listens, the
// messages are looked at.
#include "agent/announcer.h"

#include "fake/fake_log.h"
#include "fake_medium.h"
#include "fake_sysfs.h"
#include "support/child.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "test_daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>

using Told = std::vector<std::string>;

// ---- the table ----

TEST(DeviceTable, IsThis)
{
    const struct {
        DeviceState state;
        DeviceState next[5]; // after out, added, went, taken, mounted
    } rows[] = {
        {DEVICE_UNSEEN, {DEVICE_SENT, DEVICE_UNSEEN, DEVICE_PASSING, DEVICE_UNSEEN, DEVICE_UNSEEN}},
        {DEVICE_SENT, {DEVICE_SENT, DEVICE_TOLD, DEVICE_LEAVING, DEVICE_SENT, DEVICE_SENT}},
        {DEVICE_TOLD, {DEVICE_TOLD, DEVICE_TOLD, DEVICE_LEAVING, DEVICE_TOLD, DEVICE_TOLD}},
        {DEVICE_LEAVING,
         {DEVICE_LEAVING, DEVICE_LEAVING, DEVICE_LEAVING, DEVICE_GONE, DEVICE_LEAVING}},
        {DEVICE_GONE, {DEVICE_SENT, DEVICE_GONE, DEVICE_GONE, DEVICE_GONE, DEVICE_LEAVING}},
        {DEVICE_PASSING,
         {DEVICE_PASSING, DEVICE_PASSING, DEVICE_PASSING, DEVICE_PASSED, DEVICE_PASSING}},
        {DEVICE_PASSED, {DEVICE_SENT, DEVICE_PASSED, DEVICE_PASSED, DEVICE_PASSED, DEVICE_PASSED}},
    };
    for (const auto& row : rows) {
        for (int event = DEVICE_OUT; event <= DEVICE_MOUNTED; event++)
            EXPECT_EQ(device_next(row.state, static_cast<DeviceEvent>(event)), row.next[event])
                << int{row.state} << " " << event;
    }
}

// ---- the announcer ----

class AnnouncerTest : public testing::Test {
  protected:
    AnnouncerTest()
    {
        announcer_.settings = &settings_;
        fake_log_clear();
    }

    void event(UeventAction action, const std::string& name, int major, int minor,
               uint64_t sequence = 0)
    {
        event_at_once(action, name, major, minor, sequence);
        settle();
    }

    void event_at_once(UeventAction action, const std::string& name, int major, int minor,
                       uint64_t sequence = 0)
    {
        Uevent event = {};
        event.action = action;
        ASSERT_TRUE(block_name_parse(name.c_str(), &event.name)) << name;
        event.major = major;
        event.minor = minor;
        event.media_change = action == UEVENT_CHANGE;
        event.sequence = sequence;
        announcer_event(&announcer_, event, now_);
    }

    // Whether a drive is asked about.
    bool asks() const
    {
        return std::any_of(
            std::begin(announcer_.drives), std::end(announcer_.drives),
            [](const Drive& drive) { return drive.look.tool.state == ToolState::running; });
    }

    // Has the answers of all drives taken, which come from children.
    void settle()
    {
        while (asks()) {
            announcer_advance(&announcer_, false, now_);
            usleep(500);
        }
    }

    // A stick sda with a partition, and their events.
    void plug(const std::string& serial = "ABC")
    {
        sysfs_.add_stick("sda", "8:0", {{"serial", serial}});
        sysfs_.add_partition("sda", "sda1", "8:1");
        event(UEVENT_ADD, "sda", 8, 0);
        event(UEVENT_ADD, "sda1", 8, 1);
    }

    void walk()
    {
        announcer_ask_for_walk(&announcer_);
        announcer_advance(&announcer_, true, now_);
        settle();
    }

    // Does what is due at that time, but for walks.
    void advance(uint64_t now)
    {
        now_ = now;
        announcer_advance(&announcer_, false, now_);
        settle();
    }

    // When something is due; `walks`: walks too.
    uint64_t due(bool walks = false) { return announcer_due(&announcer_, walks); }

    // Hands the next message out; "" for none.
    std::string take()
    {
        char text[agent_message_size];
        return announcer_take_message(&announcer_, text) ? short_form(text) : "";
    }

    // All that is to be told, which then counts as delivered. A walk that is due comes first.
    Told told()
    {
        announcer_advance(&announcer_, true, now_);
        Told texts;
        for (std::string text = take(); text != ""; text = take()) {
            texts.push_back(text);
            announcer_delivered(&announcer_, now_);
        }
        EXPECT_FALSE(announcer_has_message(&announcer_));
        return texts;
    }

    // The stick is pulled.
    void pull()
    {
        sysfs_.remove_disk("sda");
        event(UEVENT_REMOVE, "sda1", 8, 1);
        event(UEVENT_REMOVE, "sda", 8, 0);
    }

    void mount() { sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"}); }

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
        advance(due());
    }

    static int logged(const std::string& text)
    {
        const auto lines = fake_log_texts();
        return static_cast<int>(std::count(lines.begin(), lines.end(), "announcer(#)" + text));
    }

    FakeMedium medium_;
    FakeSysfs sysfs_;
    AgentSettings settings_ = {AGENT_MONITOR,     false, 0, FakeSysfs::root, FakeSysfs::proc,
                               FakeSysfs::mounts, ""};
    Announcer announcer_;
    uint64_t now_ = 1000000;
};

TEST_F(AnnouncerTest, TellsOfWhatComesAndGoes)
{
    plug();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
}

TEST_F(AnnouncerTest, LogsWhatComesAndGoes)
{
    plug();
    (void)told();
    pull();
    (void)told();
    EXPECT_EQ(fake_log_texts(),
              (Told{"announcer(#)sda (8:0) is announced", "announcer(#)sda1 (8:1) is announced",
                    "announcer(#)sda1 (8:1) has gone", "announcer(#)sda (8:0) has gone"}));
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

TEST_F(AnnouncerTest, TellsInOrder)
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

TEST_F(AnnouncerTest, TellsOfADeviceThatIsAnotherByNowOnce)
{
    sysfs_.add_stick("sda", "8:32");
    event(UEVENT_ADD, "sda", 8, 0);
    EXPECT_EQ(told(), Told{"+8:32"});
    event(UEVENT_ADD, "sda", 8, 32); // its own event follows
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

TEST_F(AnnouncerTest, PassesARemoveOnBeforeTheDeviceIsTold)
{
    event(UEVENT_REMOVE, "sda1", 8, 1); // the daemon may have it from elsewhere
    plug();
    EXPECT_EQ(told(), (Told{"-8:1", "+8:0", "+8:1"}));
}

TEST_F(AnnouncerTest, PassesARemoveOnAgainAfterTheDeviceWasBack)
{
    for (int turn = 0; turn < 3; turn++) {
        plug();
        EXPECT_EQ(told(), (Told{"+8:0", "+8:1"})) << turn;
        pull();
        event(UEVENT_REMOVE, "sda1", 8, 1);
        EXPECT_EQ(told(), (Told{"-8:1", "-8:0"})) << turn;
    }
}

TEST_F(AnnouncerTest, TellsNothingOfWhatCameAndWentBeforeItCouldTell)
{
    plug("FIRST");
    walk();
    sysfs_.remove_disk("sda");
    plug("SECOND");
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    for (int turn = 0; turn < 100; turn++) { // nothing is delivered
        pull();
        plug("THIRD");
    }
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:1"}));
    pull();
    plug();
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, TakesADeviceBackThatAnotherOneReplaced)
{
    plug("FIRST");
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    sysfs_.remove_disk("sda");
    plug("SECOND"); // the remove events were lost
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:1"}));
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

TEST_F(AnnouncerTest, TakesADeviceBackWhoseEventSaysSoThoughItLooksTheSame)
{
    plug();
    (void)told();
    event(UEVENT_REMOVE, "sda1", 8, 1); // kernels that use the numbers of directories again
    EXPECT_EQ(told(), (Told{"-8:1", "+8:1"}));
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
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(fake_log_texts().front(), "announcer(#)sda not announced: sda1 is mounted at /");
    event(UEVENT_ADD, "sdx", 65, 112); // of others it is not told again
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(logged("sda not announced: sda1 is mounted at /"), 1);
    sysfs_.set_mounts({"8:1 /home /dev/root"});
    walk();
    EXPECT_EQ(logged("sda not announced: sda1 is mounted at /home"), 1);
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

TEST_F(AnnouncerTest, TakesNothingBackThatTheMachineUsesByNow)
{
    plug();
    (void)told();
    sysfs_.set_swaps({"/dev/sda1"});
    walk();
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(logged("sda1 not announced: used as swap"), 0);
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
}

// ---- delivery ----

TEST_F(AnnouncerTest, HandsAMessageOutAgainThatWasNotDelivered)
{
    plug();
    walk();
    EXPECT_EQ(take(), "+8:0");
    EXPECT_EQ(take(), "+8:0");
    EXPECT_EQ(logged("sda (8:0) is announced"), 1);
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    pull();
    EXPECT_EQ(take(), "-8:1");
    EXPECT_EQ(take(), "-8:1");
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
}

TEST_F(AnnouncerTest, TakesBackWhatWentWhileItsMessageWasUnderWay)
{
    plug();
    walk();
    EXPECT_EQ(take(), "+8:0");
    pull();
    announcer_delivered(&announcer_, now_);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"})); // the one that was not told of is passed on
}

TEST_F(AnnouncerTest, TakesBackWhatWentAfterItsMessageMayHaveArrived)
{
    plug();
    walk();
    EXPECT_EQ(take(), "+8:0"); // and the connection was reset
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
}

TEST_F(AnnouncerTest, TellsOfWhatCameWhileTheRemoveWasUnderWay)
{
    plug();
    (void)told();
    pull();
    EXPECT_EQ(take(), "-8:1");
    plug();
    announcer_delivered(&announcer_, now_);
    EXPECT_EQ(told(), (Told{"-8:0", "+8:0", "+8:1"}));
}

// ---- media ----

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
    event(UEVENT_REMOVE, "sda1", 8, 1, 102); // the last one before it was read
    EXPECT_EQ(told(), Told{});
    sysfs_.remove_partition("sda", "sda1");
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

TEST_F(AnnouncerTest, HasTheKernelReadTheDiskWhoseMediumChanged)
{
    medium_.add_node("sda");
    plug();
    event(UEVENT_CHANGE, "sda", 8, 0);
    EXPECT_EQ(medium_.requests(), 1);
}

// A pipe opens only when somebody else opens its other end, or at once for who does not wait: it
// stands for a drive that waits for its medium.
TEST_F(AnnouncerTest, DoesNotWaitForAMediumToHaveItRead)
{
    ASSERT_EQ(mkfifo("/dev/sda", 0600), 0);
    const ChildResult result = run_child([this] {
        alarm(20);
        event(UEVENT_CHANGE, "sda", 8, 0);
        return medium_.requests();
    });
    EXPECT_EQ(result.status, 1);
    unlink("/dev/sda");
}

TEST_F(AnnouncerTest, OpensAnEmptyDriveSoThatTheKernelLooks)
{
    ASSERT_EQ(mkfifo("/dev/sda", 0600), 0);
    const pid_t other_end = fork();
    if (other_end == 0)
        _exit(open("/dev/sda", O_WRONLY) >= 0 ? 0 : 1); // returns when the drive is opened
    sysfs_.add_stick("sda", "8:0", {}, {{"size", "0"}});
    walk();
    EXPECT_EQ(told(), Told{});
    int status = -1;
    EXPECT_EQ(waitpid(other_end, &status, 0), other_end);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(logged("sda not announced: no medium"), 1);
    unlink("/dev/sda");
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
    advance(due() - 1);
    EXPECT_EQ(medium_.requests(), 1);
    advance(due());
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(medium_.requests(), 2);
    end_use();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:2"}));
    walk();
    EXPECT_EQ(told(), Told{});
    advance(now_ + 60000);
    EXPECT_EQ(medium_.requests(), 3);
}

TEST_F(AnnouncerTest, AsksForAMediumInUseAfterPausesThatGrow)
{
    plug();
    (void)told();
    change_in_use();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    advance(now_ + agent_look_first); // the looks for mounts
    event(UEVENT_CHANGE, "sda", 8, 0);
    for (const uint32_t pause : {250U, 500U, 1000U, 2000U, 2000U}) {
        const int requests = medium_.requests();
        EXPECT_EQ(due(), now_ + pause);
        advance(now_ + pause - 1);
        EXPECT_EQ(medium_.requests(), requests);
        advance(now_ + 1);
        EXPECT_EQ(medium_.requests(), requests + 1);
    }
    event(UEVENT_CHANGE, "sda", 8, 0); // changed once more
    EXPECT_EQ(due(), now_ + 250);
}

// A drive that hangs, and another stick.
class HangingDriveTest : public AnnouncerTest {
  protected:
    HangingDriveTest()
    {
        plug();
        (void)told();
        medium_.add_node("sda");
        medium_.hold(true);
    }
    ~HangingDriveTest() override { announcer_end(&announcer_); }

    Told told_at_once()
    {
        Told texts;
        announcer_advance(&announcer_, true, now_);
        for (std::string text = take(); text != ""; text = take()) {
            texts.push_back(text);
            announcer_delivered(&announcer_, now_);
        }
        return texts;
    }

    // Waits until the kernel has been asked so often.
    void await_requests(int count) const
    {
        while (medium_.requests() < count)
            usleep(500);
    }

    void change() { event_at_once(UEVENT_CHANGE, "sda", 8, 0); }
};

TEST_F(HangingDriveTest, KeepsNoOtherFromBeingAnnounced)
{
    change();
    sysfs_.add_stick("sdb", "8:16");
    EXPECT_EQ(told_at_once(), (Told{"-8:1", "-8:0", "+8:16"}));
    await_requests(1);
    for (const uint64_t pause : {250U, 1000U, 2000U, 60000U}) {
        now_ += pause;
        EXPECT_EQ(told_at_once(), Told{});
    }
    EXPECT_EQ(logged("sda not announced yet: it does not answer"), 1);
    EXPECT_EQ(medium_.requests(), 1) << "it is asked by one at a time";
    medium_.hold(false);
    settle();
    EXPECT_EQ(told_at_once(), (Told{"+8:0", "+8:1"}));
    EXPECT_EQ(logged("sda not announced yet: it does not answer"), 1);
}

// It answers each time that it is in use; the last question is hardly put.
TEST_F(HangingDriveTest, IsNoneThatIsInUseForLong)
{
    medium_.hold(false);
    change_in_use();
    for (int i = 0; i < 20; i++)
        advance(now_ + agent_retry_most);
    medium_.hold(true);
    now_ += agent_retry_most;
    (void)told_at_once();
    (void)told_at_once();
    EXPECT_TRUE(asks());
    EXPECT_EQ(logged("sda not announced yet: it does not answer"), 0);
    now_ += agent_reading;
    (void)told_at_once();
    EXPECT_EQ(logged("sda not announced yet: it does not answer"), 1);
}

// The card before may be mounted still.
TEST_F(HangingDriveTest, IsAskedAgainWhenWhoAskedHasEndedWithoutAnAnswer)
{
    change();
    await_requests(1);
    EXPECT_EQ(kill(announcer_.drives[0].look.tool.pid, SIGKILL), 0);
    medium_.hold(false);
    settle();
    EXPECT_EQ(told_at_once(), (Told{"-8:1", "-8:0"}));
    EXPECT_EQ(medium_.requests(), 1);
    EXPECT_EQ(due(), now_ + agent_retry_first);
    advance(due());
    EXPECT_EQ(medium_.requests(), 2);
    EXPECT_EQ(told_at_once(), (Told{"+8:0", "+8:1"}));
}

TEST_F(HangingDriveTest, IsForgottenWhenItGoes)
{
    change();
    await_requests(1);
    sysfs_.remove_disk("sda");
    event_at_once(UEVENT_REMOVE, "sda", 8, 0);
    EXPECT_EQ(told_at_once(), (Told{"-8:1", "-8:0"}));
    int status = 0;
    const pid_t ended = waitpid(-1, &status, 0); // it was killed
    EXPECT_GT(ended, 0);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    plug("OTHER");
    EXPECT_EQ(told_at_once(), (Told{"+8:0", "+8:1"}));
}

TEST_F(HangingDriveTest, IsAskedAnewWhenItsMediumChangesAgain)
{
    change();
    await_requests(1);
    change();
    await_requests(2);
    medium_.hold(false);
    settle();
    EXPECT_EQ(told_at_once(), (Told{"-8:1", "-8:0", "+8:0", "+8:1"}));
}

TEST_F(AnnouncerTest, ADriveThatWaitsForItsMediumHoldsNobody)
{
    sysfs_.add_stick("sda", "8:0", {}, {{"size", "0"}});
    sysfs_.add_stick("sdb", "8:16");
    ASSERT_EQ(mkfifo("/dev/sda", 0600), 0); // opens when somebody opens its other end
    const ChildResult result = run_child([this] {
        alarm(20);
        for (int i = 0; i < 3; i++) {
            announcer_ask_for_walk(&announcer_);
            announcer_advance(&announcer_, true, now_);
        }
        const bool is_told = take() == "+8:16" && asks();
        announcer_end(&announcer_);
        int count = 0;
        while (waitpid(-1, nullptr, 0) > 0)
            count++;
        return is_told ? count : 0;
    });
    EXPECT_EQ(result.status, 1) << "it is asked by one at a time";
    unlink("/dev/sda");
}

TEST_F(AnnouncerTest, BelievesSysfsWhereTheKernelCannotBeAsked)
{
    plug();
    (void)told();
    event(UEVENT_CHANGE, "sda", 8, 0); // no node
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:1"}));
    medium_.add_node("sda");
    for (const int error : {EACCES, EINVAL, EIO, ENOTTY}) {
        medium_.answer(error);
        event(UEVENT_CHANGE, "sda", 8, 0);
        EXPECT_EQ(told(), (Told{"-8:1", "-8:0", "+8:0", "+8:1"})) << error;
    }
}

TEST_F(AnnouncerTest, KeepsNoMoreMediaInUseThanFit)
{
    medium_.answer(EBUSY);
    Told all;
    for (uint32_t i = 0; i <= agent_drive_limit; i++) {
        const std::string name = std::string("sd") + static_cast<char>('a' + i);
        sysfs_.add_stick(name, "8:" + std::to_string(i));
        medium_.add_node(name);
        event(UEVENT_CHANGE, name, 8, static_cast<int>(i));
        all.push_back("+8:" + std::to_string(i));
    }
    EXPECT_EQ(told(), Told{all.back()}); // is believed
    all.pop_back();
    medium_.answer(0);
    advance(due());
    EXPECT_EQ(told(), all);
}

// Empty drives that do not answer, one more than there are places.
class EmptyDrivesTest : public AnnouncerTest {
  protected:
    EmptyDrivesTest()
    {
        for (uint32_t i = 0; i <= agent_drive_limit; i++) {
            const int minor = static_cast<int>(16 * i);
            sysfs_.add_stick(name(i), "8:" + std::to_string(minor), {}, {{"size", "0"}});
            EXPECT_EQ(mkfifo(node(i).c_str(), 0600), 0); // opens when its other end is opened
        }
        announcer_ask_for_walk(&announcer_);
        announcer_advance(&announcer_, true, now_);
    }
    ~EmptyDrivesTest() override
    {
        for (uint32_t i = 0; i <= agent_drive_limit; i++) {
            (void)close(open(node(i).c_str(), O_RDWR)); // who waits for it goes on
            unlink(node(i).c_str());
        }
        announcer_end(&announcer_);
        while (waitpid(-1, nullptr, 0) > 0) {
        }
    }

    static std::string name(uint32_t i) { return std::string("sd") + static_cast<char>('a' + i); }
    static std::string node(uint32_t i) { return "/dev/" + name(i); }
};

TEST_F(EmptyDrivesTest, AreAllAskedAboutOnce)
{
    EXPECT_TRUE(asks());
    EXPECT_EQ(due(true), agent_never);
    for (uint32_t i = 0; i <= agent_drive_limit; i++) {
        int end = -1;
        for (int look = 0; look < 10000 && end < 0; look++) {
            end = open(node(i).c_str(), O_WRONLY | O_NONBLOCK); // ENXIO until somebody reads
            usleep(1000);
        }
        EXPECT_GE(end, 0) << name(i);
        (void)close(end);
    }
}

TEST_F(EmptyDrivesTest, LeaveAPlaceToOneThatWasChanged)
{
    const std::string last = name(agent_drive_limit);
    const int end = open(node(agent_drive_limit).c_str(), O_RDWR); // who asks about it goes on
    unlink(node(agent_drive_limit).c_str());
    (void)close(end);
    medium_.add_node(last);
    medium_.hold(true);
    sysfs_.set(last + "/size", "2048");
    event_at_once(UEVENT_CHANGE, last, 8, 16 * static_cast<int>(agent_drive_limit));
    announcer_advance(&announcer_, true, now_);
    EXPECT_EQ(take(), "") << "it is not read yet";
    medium_.hold(false);
}

TEST_F(AnnouncerTest, ForgetsAMediumInUseOfADriveThatHasGone)
{
    medium_.answer(EBUSY);
    for (const char* name : {"sda", "sdb", "sdc"}) {
        const int minor = (name[2] - 'a') * 16;
        sysfs_.add_stick(name, "8:" + std::to_string(minor));
        sysfs_.add_partition(name, std::string(name) + "1", "8:" + std::to_string(minor + 1));
        medium_.add_node(name);
        event(UEVENT_CHANGE, name, 8, minor);
    }
    sysfs_.remove_disk("sda");
    event(UEVENT_REMOVE, "sda", 8, 0);
    event(UEVENT_REMOVE, "sdd", 8, 48);  // never kept
    event(UEVENT_REMOVE, "sdb1", 8, 17); // not the drive
    EXPECT_EQ(told(), (Told{"-8:17", "-8:0", "-8:48"}));
    sysfs_.add_stick("sda", "8:0"); // another drive
    event(UEVENT_ADD, "sda", 8, 0);
    EXPECT_EQ(told(), Told{"+8:0"});
    medium_.answer(0);
    event(UEVENT_CHANGE, "sdb", 8, 16); // another medium yet, not in use
    EXPECT_EQ(told(), (Told{"+8:16", "+8:17"}));
    advance(due());
    EXPECT_EQ(told(), (Told{"+8:32", "+8:33"}));
    EXPECT_EQ(due(), agent_never);
}

TEST_F(AnnouncerTest, KnowsTheEventsOfPartitionsThatItHadRead)
{
    plug();
    (void)told();
    change_in_use();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    sysfs_.set_event_count(102);
    end_use();
    event(UEVENT_REMOVE, "sda1", 8, 1, 101);
    event(UEVENT_ADD, "sda2", 8, 2, 102);
    EXPECT_EQ(told(), (Told{"+8:0", "+8:2"}));
}

TEST_F(AnnouncerTest, TellsANewDaemonNothingOfAMediumThatWasChangedInUse)
{
    plug();
    (void)told();
    change_in_use();
    announcer_forget(&announcer_); // the daemon has gone
    EXPECT_EQ(told(), Told{});
    end_use();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:2"}));
}

TEST_F(AnnouncerTest, AsksForNoMediumOfADriveThatHasGone)
{
    plug();
    (void)told();
    change_in_use();
    EXPECT_NE(due(), agent_never);
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    advance(now_ + agent_look_first); // nothing is mounted
    EXPECT_EQ(due(), agent_never);
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
    announcer_event(&announcer_, change, now_); // another kind of change
    event(UEVENT_CHANGE, "sda1", 8, 1);         // a partition has no medium
    EXPECT_EQ(due(true), agent_never);
    EXPECT_EQ(told(), Told{});
}

// ---- what went, and is still mounted ----

TEST_F(AnnouncerTest, TakesBackAgainWhatIsStillMounted)
{
    plug();
    (void)told();
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    mount();
    EXPECT_EQ(due(), now_ + agent_look_first);
    advance(due() - 1);
    EXPECT_EQ(told(), Told{});
    advance(due()); // of the disk too
    EXPECT_EQ(logged("sda1 (8:1) is still mounted"), 1);
    EXPECT_EQ(logged("sda1 (8:1) has gone"), 2);
    EXPECT_EQ(told(), Told{"-8:1"});
    sysfs_.set_mounts({});
    advance(due());
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(due(), agent_never);
}

TEST_F(AnnouncerTest, TakesWhatStaysMountedBackSoOftenAndNoMore)
{
    for (int turn = 0; turn < 2; turn++) { // a device that was announced anew has as many
        sysfs_.set_mounts({});
        plug();
        (void)told();
        pull();
        mount();
        EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
        for (int looks = 0; looks < agent_looks; looks++) {
            EXPECT_EQ(due(), now_ + (uint64_t{agent_look_first} << looks)) << looks;
            advance(due());
            EXPECT_EQ(told(), Told{"-8:1"}) << looks;
        }
        EXPECT_EQ(due(), agent_never);
    }
}

TEST_F(AnnouncerTest, TakesNothingBackThatIsMountedElsewhereOrWasNeverAnnounced)
{
    plug();
    (void)told();
    pull();
    event(UEVENT_REMOVE, "sdb1", 8, 17);
    EXPECT_EQ(told(), (Told{"-8:1", "-8:17", "-8:0"}));
    sysfs_.set_mounts({"8:1 /mnt /dev/sda1", "8:0 /media/vyhotplug /dev/sda",
                       "8:17 /media/vyhotplug/sdb1 /dev/sdb1", "9:1 /media/vyhotplug/sda1 /dev/x",
                       "8:2 /media/vyhotplug/sda2 /dev/x"});
    advance(due());
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(due(), agent_never);
}

TEST_F(AnnouncerTest, TakesNothingBackThatHasBeenAnnouncedAgain)
{
    plug();
    (void)told();
    pull();
    (void)told();
    plug();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    mount();
    advance(now_ + agent_look_first);
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(due(), agent_never);
}

TEST_F(AnnouncerTest, LooksLaterWhenTheMountsCannotBeRead)
{
    plug();
    (void)told();
    pull();
    (void)told();
    unlink("/tmp/fake-proc/self/mountinfo");
    advance(due());
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(due(), now_ + uint64_t{agent_look_first} * 2);
    mount();
    advance(due());
    EXPECT_EQ(told(), Told{"-8:1"});
}

TEST_F(AnnouncerTest, LooksForNoMountOfAnotherDaemons)
{
    plug();
    (void)told();
    pull();
    (void)told();
    announcer_forget(&announcer_);
    EXPECT_EQ(due(), agent_never);
    mount();
    advance(now_ + agent_look_first);
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, ForgetsWhatTheDaemonKnew)
{
    plug();
    walk();
    announcer_forget(&announcer_);
    EXPECT_FALSE(announcer_has_message(&announcer_));
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    announcer_forget(&announcer_);
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"})); // as of any that is unknown
}

// ---- many ----

TEST_F(AnnouncerTest, TellsOfNoMoreDevicesThanFit)
{
    sysfs_.add_stick("sda", "8:0");
    for (uint32_t i = 1; i <= agent_table_limit; i++)
        sysfs_.add_partition("sda", "sda" + std::to_string(i), "8:" + std::to_string(i));
    walk();
    EXPECT_EQ(told().size(), agent_table_limit);
    EXPECT_EQ(fake_log_texts().back(), "announcer(#)sda512 not announced: more than 512 devices");
    EXPECT_EQ(told(), Told{});
}

TEST_F(AnnouncerTest, TellsOfADeviceOnceOthersHaveMadeRoom)
{
    sysfs_.add_stick("sda", "8:0");
    for (uint32_t i = 1; i < agent_table_limit; i++)
        sysfs_.add_partition("sda", "sda" + std::to_string(i), "8:" + std::to_string(i));
    walk();
    EXPECT_EQ(told().size(), agent_table_limit);
    sysfs_.remove_partition("sda", "sda7");
    event(UEVENT_REMOVE, "sda7", 8, 7);
    sysfs_.add_stick("sdz", "65:144");
    event(UEVENT_ADD, "sdz", 65, 144);
    EXPECT_EQ(told(), (Told{"-8:7", "+65:144"}));
}

TEST_F(AnnouncerTest, PassesRemovesOnOfAnyNumberOfDevices)
{
    for (uint32_t i = 0; i < 2 * agent_table_limit; i++) {
        event(UEVENT_REMOVE, "sdb1", 8, static_cast<int>(1000 + i));
        EXPECT_EQ(told(), Told{"-8:" + std::to_string(1000 + i)});
    }
    plug(); // has a place still
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
}

// ---- trouble ----

TEST_F(AnnouncerTest, LooksAgainWhenSysfsCannotBeRead)
{
    plug();
    (void)told();
    settings_.sysfs = "/tmp/nothing";
    walk();
    EXPECT_EQ(told(), Told{});        // nothing is taken back
    EXPECT_EQ(due(true), now_ + 250); // a little later
    EXPECT_EQ(due(false), agent_never);
    now_ += 249;
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(due(true), now_ + 1);
    now_++;
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(due(true), now_ + 500);
    int errors = 0;
    for (const FakeLogLine& line : fake_log_lines())
        errors += line.priority == LOG_ERR ? 1 : 0;
    EXPECT_EQ(errors, 1); // told once
    EXPECT_EQ(logged(std::string("/tmp/nothing/block: ") + strerror(ENOENT)), 1);
    settings_.sysfs = FakeSysfs::root;
    sysfs_.remove_disk("sda");
    walk();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    EXPECT_EQ(due(true), now_ + agent_look_first); // for the mounts only
    settings_.sysfs = "/tmp/nothing";
    walk();
    EXPECT_EQ(logged(std::string("/tmp/nothing/block: ") + strerror(ENOENT)), 2);
}

TEST_F(AnnouncerTest, LooksAtOnceForAnEventWhileItIsInTrouble)
{
    settings_.sysfs = "/tmp/nothing";
    walk();
    settings_.sysfs = FakeSysfs::root;
    EXPECT_GT(due(true), now_);
    plug();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
}

TEST_F(AnnouncerTest, LooksAgainWhenTheMountsCannotBeRead)
{
    unlink("/tmp/fake-proc/self/mountinfo");
    plug();
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(due(true), now_ + 250);
    sysfs_.set_mounts({});
    now_ = due(true);
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    EXPECT_EQ(due(true), agent_never);
}

TEST_F(AnnouncerTest, TellsOfTheOthersWhileOneDeviceCannotBeLookedAt)
{
    plug();
    sysfs_.add_stick("sdb", "8:16");
    const std::string file = std::string(FakeSysfs::root) + "/block/sdb/removable";
    ASSERT_EQ(unlink(file.c_str()), 0);
    ASSERT_EQ(symlink("removable", file.c_str()), 0);
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    EXPECT_EQ(logged(std::string("sdb not announced: /tmp/fake-sysfs: ") + strerror(ELOOP)), 1);
    now_ = due(true);
    EXPECT_EQ(told(), Told{});
    EXPECT_EQ(logged(std::string("sdb not announced: /tmp/fake-sysfs: ") + strerror(ELOOP)), 1);
    ASSERT_EQ(unlink(file.c_str()), 0);
    now_ = due(true);
    EXPECT_EQ(told(), Told{"+8:16"});
}

TEST_F(AnnouncerTest, TakesNothingBackThatCannotBeLookedAt)
{
    plug();
    (void)told();
    const std::string disk = std::string(FakeSysfs::root) + "/block/sda";
    for (const std::string& file :
         {disk + "/removable", disk + "/dev", sysfs_.usb("sda") + "/serial"}) {
        const std::string content = read_file(file);
        ASSERT_EQ(unlink(file.c_str()), 0);
        ASSERT_EQ(symlink(file.c_str(), file.c_str()), 0); // leads nowhere
        walk();
        EXPECT_EQ(told(), Told{}) << file;
        ASSERT_EQ(unlink(file.c_str()), 0);
        write_file(file, content);
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

// Makes a change, memory running out once in what follows, and walks until none is due. Whatever
// failed, the daemon has in the end what is plugged.
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
            pull();
            plug("OTHER");
        },
        [this] {
            sysfs_.remove_disk("sda");
            sysfs_.add_stick("sda", "8:0", {{"serial", "OTHER"}});
            sysfs_.add_partition("sda", "sda1", "8:1");
            announcer_ask_for_walk(&announcer_);
        },
    };
    plug();
    for (const auto& change : changes) {
        for (int nth = 1;; nth++) {
            announcer_forget(&announcer_);
            Told all = told();
            change();
            memory_fail(nth);
            bool failed = false;
            for (int i = 0; i < 3; i++) {
                const Told more = told();
                all.insert(all.end(), more.begin(), more.end());
                failed = memory_failed() || failed;
                now_ += agent_retry_most;
            }
            EXPECT_EQ(carry_out(all), (Told{"8:0", "8:1"})) << nth;
            EXPECT_GE(all.size(), 4U) << nth; // it was told of the change
            EXPECT_GT(due(true), now_) << nth;
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
        pull();
        memory_fail(nth);
        EXPECT_EQ(told(), (Told{"-8:1", "-8:0"})) << nth; // needs none
        if (!memory_failed())
            break;
        now_ += agent_retry_most;
        EXPECT_EQ(told(), Told{});
        ASSERT_LT(nth, 100);
    }
}

TEST_F(AnnouncerTest, LosesNoLookWhereverMemoryRunsOut)
{
    for (int nth = 1;; nth++) {
        sysfs_.set_mounts({});
        plug();
        (void)told();
        pull();
        (void)told();
        mount();
        memory_fail(nth);
        advance(now_ + agent_look_first);
        const bool failed = memory_failed();
        EXPECT_EQ(told().empty(), failed) << nth;
        advance(now_ + 2 * agent_look_first);
        EXPECT_EQ(told(), Told{"-8:1"}) << nth;
        if (!failed)
            break;
        ASSERT_LT(nth, 100);
    }
}

TEST_F(AnnouncerTest, TakesADeviceBackAndAnnouncesItAgainWhenAsked)
{
    plug();
    EXPECT_EQ(told(), (Told{"+8:0", "+8:1"}));
    announcer_repeat(&announcer_, 8, 1);
    EXPECT_EQ(told(), (Told{"-8:1", "+8:1"}));
    announcer_repeat(&announcer_, 8, 9);
    EXPECT_EQ(told(), Told{}) << "one that is not known";
    pull();
    EXPECT_EQ(told(), (Told{"-8:1", "-8:0"}));
    announcer_repeat(&announcer_, 8, 1);
    EXPECT_EQ(told(), Told{}) << "one that has gone";
}

TEST_F(AnnouncerTest, LeavesNoMemoryBehind)
{
    const long before = memory_blocks();
    {
        Announcer announcer;
        announcer.settings = &settings_;
        sysfs_.add_stick("sda", "8:0");
        for (int i = 0; i < 3; i++) {
            announcer_ask_for_walk(&announcer);
            announcer_advance(&announcer, true, now_);
        }
        EXPECT_EQ(memory_blocks(), before + 2); // the disk that the last walk found, and its texts
    }
    EXPECT_EQ(memory_blocks(), before);
}
