// What is not mounted and why, on a sysfs of files, a blkid that the test scripts and a clock of
// its own.
#include "agent/lookout.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "fake_sysfs.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <filesystem>

using Texts = std::vector<std::string>;

// ---- the table ----

TEST(LookTable, IsThis)
{
    const struct {
        LookState state;
        LookState next[4]; // after time, answer, open, found
    } rows[] = {
        {LOOK_WAITS, {LOOK_ASKS, LOOK_WAITS, LOOK_WAITS, LOOK_MOUNTED}},
        {LOOK_ASKS, {LOOK_ASKS, LOOK_TOLD, LOOK_PATIENT, LOOK_MOUNTED}},
        {LOOK_PATIENT, {LOOK_INSISTS, LOOK_PATIENT, LOOK_PATIENT, LOOK_MOUNTED}},
        {LOOK_INSISTS, {LOOK_INSISTS, LOOK_TOLD, LOOK_TOLD, LOOK_MOUNTED}},
        {LOOK_TOLD, {LOOK_TOLD, LOOK_TOLD, LOOK_TOLD, LOOK_MOUNTED}},
        {LOOK_MOUNTED, {LOOK_MOUNTED, LOOK_MOUNTED, LOOK_MOUNTED, LOOK_MOUNTED}},
    };
    for (const auto& row : rows) {
        for (int event = LOOK_TIME; event <= LOOK_FOUND; event++)
            EXPECT_EQ(look_next(row.state, static_cast<LookEvent>(event)), row.next[event])
                << int{row.state} << " " << event;
    }
}

// ---- the lookout ----

class LookoutTest : public testing::Test {
  protected:
    static constexpr char file[] = "/run/not-mounted";
    static constexpr char config[] = "/tmp/vyhotplugd.conf";
    static constexpr char kernel_log[] = "/dev/kmsg";

    LookoutTest()
    {
        settings_.sysfs = FakeSysfs::root;
        settings_.proc = FakeSysfs::proc;
        settings_.mounts = FakeSysfs::mounts;
        settings_.state = "";
        settings_.config = config;
        settings_.not_mounted = file;
        announcer_.settings = &settings_;
        EXPECT_EQ(mkfifo(kernel_log, 0600), 0);
        kernel_.reset(open(kernel_log, O_RDWR));
        write_file(std::string(FakeSysfs::proc) + "/filesystems",
                   "\text4\n\tvfat\n\txfs\n\tbtrfs\n");
        configure("");
        fake_log_clear();
        lookout_open(&lookout_, &settings_);
    }
    ~LookoutTest() override
    {
        lookout_close(&lookout_);
        EXPECT_FALSE(exists(file));
        fake_world_reset();
        std::filesystem::remove(kernel_log);
    }

    static void configure(const std::string& lines)
    {
        write_file(config, "mountpath = /media/vyhotplug\n" + lines);
    }

    static void blkid_says(const std::string& type, const std::string& usage = "filesystem",
                           int status = 0)
    {
        FakeRun run;
        run.output = (type.empty() ? "" : "ID_FS_TYPE=" + type + "\n") +
                     (usage.empty() ? "" : "ID_FS_USAGE=" + usage + "\n");
        run.wait_status = status << 8;
        fake_world().programs["blkid"].push_back(run);
    }

    void kernel_says(const std::string& text)
    {
        const std::string record = "3,1,2,-;" + text + "\n";
        EXPECT_EQ(write(kernel_.get(), record.data(), record.size()),
                  static_cast<ssize_t>(record.size()));
        advance(1); // a FIFO does not keep records apart
    }

    // A stick with a partition, of which the daemon is told.
    void plug(const std::string& disk = "sda", int minor = 0)
    {
        sysfs_.add_stick(disk, "8:" + std::to_string(minor));
        sysfs_.add_partition(disk, disk + "1", "8:" + std::to_string(minor + 1));
        tell_all();
    }

    void tell_all()
    {
        announcer_ask_for_walk(&announcer_);
        announcer_advance(&announcer_, true, now_);
        char text[agent_message_size];
        while (announcer_take_message(&announcer_, text))
            announcer_delivered(&announcer_, now_);
        advance(0);
    }

    void advance(uint64_t milliseconds)
    {
        now_ += milliseconds;
        lookout_advance(&lookout_, &announcer_, now_);
    }

    // Until nothing runs any more.
    void finish()
    {
        for (int i = 0; i < 100 && lookout_.tool.state == ToolState::running; i++)
            advance(5);
        advance(0);
        EXPECT_NE(lookout_.tool.state, ToolState::running);
    }

    void wait_for_answer(uint64_t milliseconds = agent_first_answer)
    {
        advance(milliseconds);
        finish();
    }

    void mount(const std::string& lines = "8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1")
    {
        sysfs_.set_mounts({lines});
        lookout_mounts_changed(&lookout_);
        advance(1);
    }

    static Texts logged()
    {
        Texts lines;
        for (const std::string& line : fake_log_texts()) {
            if (line.rfind("lookout(#)", 0) == 0)
                lines.push_back(line.substr(10));
        }
        return lines;
    }

    static std::string kept() { return read_file(file); }

    FakeSysfs sysfs_;
    FdGuard kernel_;
    AgentSettings settings_;
    Announcer announcer_;
    Lookout lookout_;
    uint64_t now_ = 1000000;
};

static constexpr char exfat_line[] =
    "sda1\t8:1\tnot-named\texfat\tsda1 holds exfat, which otherfs does not name\t-\n";

TEST_F(LookoutTest, SaysOnceWhyADeviceIsNotMounted)
{
    plug();
    EXPECT_EQ(kept(), "");
    EXPECT_TRUE(exists(file));
    advance(agent_first_answer - 1);
    EXPECT_TRUE(fake_world().spawned.empty());
    blkid_says("exfat");
    wait_for_answer(1);
    EXPECT_EQ(fake_world().spawned,
              (std::vector<Texts>{{"blkid", "-p", "-s", "TYPE", "-s", "USAGE", "-s", "PTTYPE", "-o",
                                   "udev", "/dev/sda1"}}));
    EXPECT_EQ(logged(), Texts{"sda1 holds exfat, which otherfs does not name"});
    EXPECT_EQ(kept(), exfat_line);
    wait_for_answer(10 * agent_patience);
    EXPECT_EQ(logged().size(), 1U);
    EXPECT_EQ(fake_world().spawned.size(), 1U);
    EXPECT_EQ(kept(), exfat_line);
}

// No process, or no descriptor, to be had: the answer is there at once, for one device after the
// other, and nothing else wakes the agent for it.
TEST_F(LookoutTest, SaysOfEachDeviceThatBlkidCannotBeRun)
{
    plug();
    plug("sdb", 16);
    fake_world().fail("spawn", 0, EAGAIN);
    advance(agent_first_answer);
    for (int i = 0; i < 10 && lookout_due(&lookout_, now_) <= now_; i++)
        advance(0);
    EXPECT_EQ(logged(), (Texts{"sda1 cannot be read: blkid cannot be run",
                               "sdb1 cannot be read: blkid cannot be run"}));
    EXPECT_GT(lookout_due(&lookout_, now_), now_);
}

TEST_F(LookoutTest, SaysNothingOfWhatIsMountedInTime)
{
    plug();
    mount();
    wait_for_answer(10 * agent_patience);
    EXPECT_EQ(kept(), "");
    EXPECT_TRUE(logged().empty());
    EXPECT_TRUE(fake_world().spawned.empty());
}

TEST_F(LookoutTest, SaysNothingOfWhatIsMountedWhileBlkidIsAtIt)
{
    plug();
    blkid_says("exfat");
    advance(agent_first_answer);
    mount();
    finish();
    EXPECT_EQ(kept(), "");
    EXPECT_TRUE(logged().empty());
}

TEST_F(LookoutTest, TakesBackWhatIsMountedAfterAll)
{
    plug();
    blkid_says("exfat");
    wait_for_answer();
    EXPECT_EQ(kept(), exfat_line);
    mount();
    EXPECT_EQ(kept(), "");
    sysfs_.set_mounts({});
    lookout_mounts_changed(&lookout_);
    wait_for_answer(10 * agent_patience);
    EXPECT_EQ(kept(), "") << "somebody has unmounted it, which is nobody's trouble";
}

TEST_F(LookoutTest, TakesBackWhatIsGone)
{
    plug();
    blkid_says("exfat");
    wait_for_answer();
    sysfs_.remove_disk("sda");
    tell_all();
    EXPECT_EQ(kept(), "");
}

TEST_F(LookoutTest, DropsTheAnswerOnADeviceThatIsGoneOrAnother)
{
    plug();
    blkid_says("exfat");
    advance(agent_first_answer);
    sysfs_.remove_disk("sda");
    sysfs_.add_stick("sda", "8:0", {{"serial", "OTHER"}});
    sysfs_.add_partition("sda", "sda1", "8:1");
    tell_all();
    finish();
    EXPECT_EQ(kept(), "");
    EXPECT_TRUE(logged().empty());
    blkid_says("swap", "other");
    wait_for_answer();
    EXPECT_EQ(logged(), Texts{"sda1 is a swap area"});
}

TEST_F(LookoutTest, ForgetsAllWithTheDaemonAndSaysItAnewToTheNext)
{
    plug();
    blkid_says("exfat");
    wait_for_answer();
    announcer_forget(&announcer_);
    advance(1);
    EXPECT_EQ(kept(), "");
    tell_all();
    blkid_says("exfat");
    wait_for_answer();
    EXPECT_EQ(kept(), exfat_line);
    EXPECT_EQ(logged().size(), 2U);
}

TEST_F(LookoutTest, AsksOneAfterTheOtherAndWritesInTheOrderOfNames)
{
    plug("sdb", 16);
    plug("sda", 0);
    blkid_says("swap", "other");
    blkid_says("exfat");
    wait_for_answer();
    EXPECT_EQ(fake_world().spawned.size(), 2U);
    EXPECT_EQ(kept(), std::string(exfat_line) + "sdb1\t8:17\tswap\tswap\tsdb1 is a swap area\t-\n");
}

TEST_F(LookoutTest, LooksAtAWholeDiskOnlyWithoutPartitions)
{
    sysfs_.add_stick("sda", "8:0");
    tell_all();
    blkid_says("", "", 2);
    wait_for_answer();
    EXPECT_EQ(logged(), Texts{"sda has no filesystem that is known"});
}

TEST_F(LookoutTest, PassesOverAnExtendedPartition)
{
    plug();
    sysfs_.set("sda/sda1/size", "2");
    tell_all();
    wait_for_answer(10 * agent_patience);
    EXPECT_TRUE(fake_world().spawned.empty());
}

// ---- patience ----

TEST_F(LookoutTest, WaitsForWhoMayBeAtItStillAndAsksOnceMore)
{
    configure("otherfs = xfs\n");
    plug();
    blkid_says("xfs");
    wait_for_answer();
    EXPECT_EQ(kept(), "");
    blkid_says("xfs");
    wait_for_answer(agent_patience - agent_first_answer - 100);
    EXPECT_EQ(kept(), "");
    wait_for_answer(100);
    EXPECT_EQ(logged(), Texts{"sda1 holds xfs, but the kernel refused it; to check it: xfs_repair "
                              "/dev/sda1"});
    EXPECT_EQ(kept(), "sda1\t8:1\trefused\txfs\tsda1 holds xfs, but the kernel refused it\t"
                      "xfs_repair /dev/sda1\n");
}

TEST_F(LookoutTest, IsNotPatientWhereTheKernelHasSpoken)
{
    configure("otherfs = xfs\n");
    kernel_says("XFS (sda1): of an earlier stick -5");
    plug();
    kernel_says("FAT-fs (sda1): bogus number of FATs");
    kernel_says("XFS (sda1): SB validate failed with error -5.");
    advance(1);
    blkid_says("xfs");
    wait_for_answer();
    ASSERT_EQ(logged().size(), 1U);
    EXPECT_EQ(logged()[0], "sda1 holds xfs, but the kernel refused it: Input/output error (XFS "
                           "(sda1): SB validate failed with error -5.); to check it: xfs_repair "
                           "/dev/sda1");
}

TEST_F(LookoutTest, WhatIsMountedWhileItWaitsIsNotTold)
{
    plug();
    blkid_says("ext4");
    wait_for_answer();
    mount();
    wait_for_answer(agent_patience);
    EXPECT_EQ(kept(), "");
    EXPECT_EQ(fake_world().spawned.size(), 1U);
}

TEST_F(LookoutTest, AStickThatChangesItsMindIsBelievedTheSecondTime)
{
    plug();
    blkid_says("ext4");
    wait_for_answer();
    blkid_says("exfat");
    wait_for_answer(agent_patience);
    EXPECT_EQ(kept(), exfat_line);
}

// ---- blkid ----

TEST_F(LookoutTest, NamesADiskWhoseReadingHangs)
{
    plug();
    FakeRun hangs;
    hangs.polls = -1;
    fake_world().programs["blkid"].push_back(hangs);
    advance(agent_first_answer);
    advance(agent_reading - 1);
    EXPECT_EQ(kept(), "");
    advance(1);
    EXPECT_EQ(fake_world().calls("kill "), Texts{"kill 5001 9"});
    EXPECT_EQ(logged(), Texts{"sda1 does not answer: it cannot be read in time"});
    EXPECT_EQ(kept(), "sda1\t8:1\tsilent\t-\tsda1 does not answer: it cannot be read in time\t-\n");
}

TEST_F(LookoutTest, TellsWhyThereIsNoAnswer)
{
    const struct {
        int status;
        const char* words;
    } rows[] = {
        {1 << 8, "sda1 cannot be read: blkid cannot be run"},
        {4 << 8, "sda1 cannot be read: blkid failed"},
        {11, "sda1 cannot be read: blkid failed"},
        {8 << 8, "sda1 looks like several filesystems; to check it: wipefs /dev/sda1"},
        {2 << 8, "sda1 has no filesystem that is known"},
    };
    for (const auto& row : rows) {
        FakeRun run;
        run.wait_status = row.status;
        fake_world().programs["blkid"].push_back(run);
        plug();
        wait_for_answer();
        EXPECT_EQ(logged(), Texts{row.words});
        sysfs_.remove_disk("sda");
        tell_all();
        fake_log_clear();
    }
}

TEST_F(LookoutTest, TellsThatTheKernelCannotReadIt)
{
    plug();
    kernel_says("I/O error, dev sda, sector 2048 op 0x0:(READ)");
    blkid_says("", "", 2);
    wait_for_answer();
    EXPECT_EQ(logged(), Texts{"sda1 cannot be read: Input/output error"});
}

TEST_F(LookoutTest, TakesNoWordsForThoseOfAStickThatHadTheNameBefore)
{
    plug();
    kernel_says("EXT4-fs (sda1): the first of one");
    kernel_says("EXT4-fs (sda1): the first of both");
    sysfs_.remove_disk("sda");
    tell_all();
    plug();
    kernel_says("EXT4-fs (sda1): the first of both");
    kernel_says("EXT4-fs (sda1): the first of one");
    blkid_says("ext4");
    wait_for_answer();
    EXPECT_EQ(logged(),
              Texts{"sda1 holds ext4, but the kernel refused it: EXT4-fs (sda1): the first "
                    "of both; to check it: e2fsck -f /dev/sda1"});
}

TEST_F(LookoutTest, WithoutTheServicesConfigurationEverythingMayBeWanted)
{
    unlink(config);
    plug();
    blkid_says("exfat");
    wait_for_answer();
    EXPECT_EQ(logged(), Texts{"sda1 holds exfat, which this kernel has no module for"});
}

// ---- mounted, but not for writing ----

TEST_F(LookoutTest, TellsOfWhatIsMountedReadOnly)
{
    plug();
    mount("8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1 hfsplus ro");
    EXPECT_EQ(kept(),
              "sda1\t8:1\tread-only\thfsplus\tsda1 holds hfsplus with a journal, or locked: "
              "mounted read-only\tfsck.hfsplus /dev/sda1\n");
    mount("9:9 /x /y");
    EXPECT_EQ(kept(), "");
}

TEST_F(LookoutTest, SaysNothingOfAProtectedDeviceOrAnImage)
{
    plug();
    sysfs_.set("sda/sda1/ro", "1");
    tell_all();
    mount("8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1 vfat ro");
    EXPECT_EQ(kept(), "");
    plug("sdb", 16);
    mount("8:17 /media/vyhotplug/sdb1 /dev/vyhotplug/sdb1 iso9660 ro");
    EXPECT_EQ(kept(), "");
    EXPECT_TRUE(logged().empty());
}

TEST_F(LookoutTest, LooksWhetherAWindowsSleeps)
{
    const struct {
        const char* head; // of the file in which it sleeps
        const char* words;
    } rows[] = {
        {"hibr", "sda1 holds NTFS: hibernated, mounted read-only"},
        {"HIBR", "sda1 holds NTFS: hibernated, mounted read-only"},
        {"wake", "sda1 holds NTFS: dirty, mounted read-only; to check it: ntfsfix /dev/sda1"},
        {"", "sda1 holds NTFS: dirty, mounted read-only; to check it: ntfsfix /dev/sda1"},
    };
    for (const auto& row : rows) {
        fake_world_reset();
        FakeRun run;
        run.output = row.head;
        fake_world().programs["head"].push_back(run);
        plug();
        mount("8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1 fuseblk ro");
        EXPECT_TRUE(fake_world().spawned.empty()) << "its driver may not answer yet";
        EXPECT_LE(lookout_due(&lookout_, now_), now_ + agent_driver_pause);
        wait_for_answer(agent_driver_pause);
        EXPECT_EQ(fake_world().spawned,
                  (std::vector<Texts>{{"head", "-c", "4", "/media/vyhotplug/sda1/hiberfil.sys"}}));
        EXPECT_EQ(logged(), Texts{row.words});
        sysfs_.set_mounts({});
        sysfs_.remove_disk("sda");
        tell_all();
        fake_log_clear();
    }
}

// ---- btrfs ----

TEST_F(LookoutTest, AMemberOfAMountedFilesystemIsMounted)
{
    plug();
    std::filesystem::create_directories(std::string(FakeSysfs::root) +
                                        "/fs/btrfs/1-2/devices/sda1");
    wait_for_answer();
    EXPECT_TRUE(fake_world().spawned.empty());
    plug("sdb", 16);
    mount("0:45 /media/vyhotplug/sdb1 /dev/vyhotplug/sdb1 btrfs");
    wait_for_answer();
    EXPECT_TRUE(fake_world().spawned.empty());
}

TEST_F(LookoutTest, MembersThatCannotBeReadAreLookedAtAfterPausesThatGrow)
{
    const std::string members = std::string(FakeSysfs::root) + "/fs/btrfs";
    std::filesystem::create_directories(std::string(FakeSysfs::root) + "/fs");
    std::filesystem::create_symlink("btrfs", members); // leads nowhere
    plug();
    plug("sdb", 16);
    for (const uint64_t pause : {250U, 500U, 1000U, 2000U, 2000U}) {
        EXPECT_EQ(lookout_due(&lookout_, now_), now_ + pause);
        advance(pause);
    }
    advance(agent_first_answer);
    EXPECT_TRUE(fake_world().spawned.empty());
    std::filesystem::remove(members);
    blkid_says("exfat");
    wait_for_answer(agent_retry_most);
    EXPECT_FALSE(fake_world().spawned.empty());
}

TEST_F(LookoutTest, NamesTheMissingMember)
{
    configure("otherfs = btrfs\n");
    plug();
    kernel_says("BTRFS error (device sda1): devid 2 uuid b6ab09c4 is missing");
    kernel_says("BTRFS error (device sda1): open_ctree failed: -2");
    blkid_says("btrfs");
    wait_for_answer();
    EXPECT_EQ(logged(), Texts{"sda1 holds btrfs, but the kernel refused it: BTRFS error (device "
                              "sda1): devid 2 uuid b6ab09c4 is missing; to check it: btrfs check "
                              "/dev/sda1"});
}

// ---- drives and numbers ----

TEST_F(LookoutTest, NamesAnEmptyDrive)
{
    sysfs_.add_stick("sdb", "8:16", {}, {{"size", "0"}});
    tell_all();
    EXPECT_EQ(kept(), "sdb\t8:16\tno-medium\t-\tsdb is empty: no medium\t-\n");
    EXPECT_TRUE(logged().empty()) << "the announcer has";
}

TEST_F(LookoutTest, NamesWhatIsOutOfRangeWithoutReadingIt)
{
    sysfs_.add_stick("sdaa", "65:160");
    tell_all();
    wait_for_answer();
    EXPECT_TRUE(fake_world().spawned.empty());
    EXPECT_EQ(logged(), Texts{"sdaa is the 27th disk: out of range"});
    EXPECT_EQ(kept(), "sdaa\t65:160\tout-of-range\t-\tsdaa is the 27th disk: out of range\t-\n");
}

// ---- failures ----

TEST_F(LookoutTest, ATableOfMountsThatCannotBeReadMeansNothing)
{
    plug();
    const std::string table = std::string(FakeSysfs::proc) + "/self/mountinfo";
    std::filesystem::rename(table, table + ".x");
    wait_for_answer();
    EXPECT_TRUE(fake_world().spawned.empty());
    EXPECT_GT(lookout_due(&lookout_, now_), now_);
    EXPECT_LE(lookout_due(&lookout_, now_), now_ + agent_retry_most);
    std::filesystem::rename(table + ".x", table);
    blkid_says("exfat");
    wait_for_answer(agent_retry_most);
    EXPECT_EQ(kept(), exfat_line);
}

TEST_F(LookoutTest, AFileThatCannotBeWrittenIsToldOnceAndTriedAgain)
{
    plug();
    blkid_says("exfat");
    fake_world().fail("rename", 0, EROFS);
    wait_for_answer();
    EXPECT_EQ(lookout_due(&lookout_, now_), now_ + agent_file_pause);
    advance(agent_file_pause);
    advance(agent_file_pause);
    EXPECT_EQ(logged(), (Texts{"sda1 holds exfat, which otherfs does not name",
                               "/run/not-mounted is not written: Read-only file system"}));
    EXPECT_EQ(kept(), "");
    fake_world_reset();
    advance(agent_file_pause);
    EXPECT_EQ(kept(), exfat_line);
}

TEST_F(LookoutTest, NothingIsTriedAgainWhileThereIsNothingToTell)
{
    lookout_close(&lookout_);
    settings_.not_mounted = "/run/none/not-mounted";
    lookout_open(&lookout_, &settings_);
    advance(1);
    EXPECT_EQ(logged(), Texts{"/run/none/not-mounted is not written: No such file or directory"});
    EXPECT_EQ(lookout_due(&lookout_, now_), agent_never);
    settings_.not_mounted = file;
}

TEST_F(LookoutTest, WithoutAPathNothingIsWritten)
{
    settings_.not_mounted = "";
    plug();
    blkid_says("exfat");
    wait_for_answer();
    EXPECT_EQ(logged().size(), 1U);
    std::filesystem::remove(file);
}

TEST_F(LookoutTest, IsDueWhenThereIsSomethingToDo)
{
    EXPECT_EQ(lookout_due(&lookout_, now_), agent_never);
    plug();
    EXPECT_EQ(lookout_due(&lookout_, now_), now_ + agent_first_answer);
    FakeRun hangs;
    hangs.polls = -1;
    fake_world().programs["blkid"].push_back(hangs);
    advance(agent_first_answer);
    EXPECT_LE(lookout_due(&lookout_, now_), now_ + agent_reading);
    mount();
    advance(agent_reading);
    EXPECT_EQ(lookout_due(&lookout_, now_), agent_never);
}

// Whoever asked a drive may have been given up.
TEST_F(LookoutTest, ForgetsChildrenThatHaveEndedWhereNothingIsAnnounced)
{
    advance(1);
    EXPECT_EQ(fake_world().calls("waitpid").size(), 1U);
}

TEST_F(LookoutTest, EveryAllocationMayFail)
{
    for (int nth = 1; nth < 60; nth++) {
        plug();
        blkid_says("exfat");
        memory_fail(nth);
        wait_for_answer();
        memory_fail(0);
        wait_for_answer(agent_retry_most);
        wait_for_answer(agent_first_answer);
        // Without the configuration in memory it is not known what it names.
        const bool is_so = kept() == exfat_line || kept() == "" ||
                           kept().find("which this kernel has no module for") != std::string::npos;
        EXPECT_TRUE(is_so) << nth << kept();
        sysfs_.remove_disk("sda");
        tell_all();
        EXPECT_EQ(kept(), "") << nth;
        fake_world_reset();
    }
}
