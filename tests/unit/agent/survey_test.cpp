#include "agent/survey.h"

#include "agent/announcer.h"
#include "fake_sysfs.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

class Survey : public testing::Test {
  protected:
    Survey()
    {
        sysfs_.add_stick("sda", "8:0");
        sysfs_.add_partition("sda", "sda1", "8:1");
        sysfs_.add_partition("sda", "sda2", "8:2");
        sysfs_.add_stick("sdb", "8:16");
        sysfs_.add_partition("sdb", "sdb1", "8:17");
    }

    // "" for a device that is to be announced, else why not.
    std::string verdict(const char* text)
    {
        BlockName name;
        BlockList list;
        EXPECT_TRUE(block_name_parse(text, &name));
        EXPECT_EQ(survey_take(settings_, told_, leaving_, &list), 0);
        const BlockDevice* device = block_list_find(list, name);
        if (device == nullptr)
            return "not there";
        result_ = device->verdict;
        EXPECT_EQ(result_ == 0, device->reason[0] == '\0');
        return device->reason;
    }

    // The daemon has been told of sda1, or of its removal.
    void put(DeviceState state)
    {
        Device* device = announcer_.devices.begin();
        device->state = state;
        device->major = 8;
        device->minor = 1;
    }

    FakeSysfs sysfs_;
    Announcer announcer_;
    AgentSettings settings_ = {AGENT_LIST,        false, 10, FakeSysfs::root, FakeSysfs::proc,
                               FakeSysfs::mounts, ""};
    const DeviceTable* told_ = &announcer_.devices;
    bool leaving_ = false;
    int result_ = 0;
};

TEST_F(Survey, AnnouncesWhatIsNotInUse)
{
    for (const char* name : {"sda", "sda1", "sda2", "sdb", "sdb1"})
        EXPECT_EQ(verdict(name), "") << name;
    EXPECT_EQ(verdict("sdc"), "not there");
    EXPECT_EQ(verdict("sda3"), "not there");
}

TEST_F(Survey, AnnouncesNothingOfADiskThatIsMounted)
{
    sysfs_.set_mounts({"8:2 / /dev/root"});
    EXPECT_EQ(verdict("sda"), "sda2 is mounted at /");
    EXPECT_EQ(verdict("sda1"), "sda2 is mounted at /");
    EXPECT_EQ(verdict("sda2"), "mounted at /");
    EXPECT_EQ(result_, 1);
    EXPECT_EQ(verdict("sdb1"), "");
}

TEST_F(Survey, AnnouncesNoPartitionOfADiskThatIsMountedWhole)
{
    sysfs_.set_mounts({"8:0 /srv /dev/sda"});
    EXPECT_EQ(verdict("sda"), "mounted at /srv");
    EXPECT_EQ(verdict("sda1"), "sda is mounted at /srv");
}

TEST_F(Survey, KnowsAMountByItsSourceToo)
{
    sysfs_.set_mounts({"0:42 /data /dev/sda1"}); // as for btrfs
    EXPECT_EQ(verdict("sda1"), "mounted at /data");
    EXPECT_EQ(verdict("sda2"), "sda1 is mounted at /data");
    sysfs_.set_mounts({"0:42 /data /dev/sda11", "0:43 /more sda1", "0:44 /etc /dev/x/sda1"});
    EXPECT_EQ(verdict("sda1"), "");
}

TEST_F(Survey, ShowsAMountDirectoryAsOneLine)
{
    sysfs_.set_mounts({"8:1 /a\\012b\\040c /dev/sda1"});
    EXPECT_EQ(verdict("sda1"), "mounted at /a_b c");
}

TEST_F(Survey, SurvivesAMountDirectoryOfAnyLength)
{
    sysfs_.set_mounts({"8:1 /" + std::string(4000, 'x') + " /dev/sda1"});
    EXPECT_EQ(verdict("sda1").size(), block_reason_size - 1);
    EXPECT_EQ(verdict("sda2").size(), block_reason_size - 1);
}

TEST_F(Survey, LeavesTheServicesMountsOutOfAccount)
{
    put(DEVICE_TOLD);
    sysfs_.set_mounts({"8:1 /anywhere /dev/x/sda1"});
    EXPECT_EQ(verdict("sda1"), "");
    EXPECT_EQ(verdict("sda2"), "");
}

TEST_F(Survey, LeavesMountsOfAnnouncedDevicesOutOfAccountUntilTheyAreUnmounted)
{
    sysfs_.set_mounts({"8:1 /anywhere /dev/x/sda1"});
    for (const DeviceState state : {DEVICE_SENT, DEVICE_TOLD, DEVICE_LEAVING, DEVICE_GONE}) {
        put(state); // the daemon takes its time
        EXPECT_EQ(verdict("sda1"), "") << state;
    }
}

TEST_F(Survey, TakesARemoveEventOfTheMachinesDiskForNothing)
{
    sysfs_.set_mounts({"8:1 / /dev/root"});
    for (const DeviceState state : {DEVICE_UNSEEN, DEVICE_PASSING, DEVICE_PASSED}) {
        put(state);
        EXPECT_EQ(verdict("sda1"), "mounted at /") << state;
    }
}

TEST_F(Survey, KnowsTheServicesMountsByTheirDirectoryOnOtherPartitions)
{
    told_ = nullptr;
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
    EXPECT_EQ(verdict("sda2"), "");
    EXPECT_EQ(verdict("sda"), "");
    EXPECT_EQ(verdict("sda1"), "mounted at /media/vyhotplug/sda1"); // it would be mounted twice
    sysfs_.set_mounts({"8:1 /media/vyhotplugs/sda1 /dev/vyhotplug/sda1"});
    EXPECT_EQ(verdict("sda2"), "sda1 is mounted at /media/vyhotplugs/sda1");
}

TEST_F(Survey, AnnouncesWhatTheServiceTakesOver)
{
    static constexpr char config[] = "/tmp/vyhotplugd.conf";
    static constexpr char place[] = "8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1";
    settings_.config = config;
    sysfs_.set_mounts({place});
    EXPECT_EQ(verdict("sda1"), "mounted at /media/vyhotplug/sda1") << "without a configuration";
    write_file(config, "adopt = disable\n");
    EXPECT_EQ(verdict("sda1"), "mounted at /media/vyhotplug/sda1");
    write_file(config, "adopt = enable\n");
    EXPECT_EQ(verdict("sda1"), "");
    EXPECT_EQ(verdict("sda"), "");
    for (const char* others : {"8:1 /media/vyhotplug/mine /dev/vyhotplug/sda1", "8:1 / /dev/root",
                               "8:1 /media/vyhotplug/sda1 /dev/sdx1",
                               "8:1 /media/vyhotplug/sda1/x /dev/vyhotplug/sda1"}) {
        sysfs_.set_mounts({place, others});
        EXPECT_NE(verdict("sda1"), "") << others;
    }
    sysfs_.set_mounts({place});
    told_ = nullptr; // one event, by a program that does not know what the daemon was told
    EXPECT_EQ(verdict("sda1"), "mounted at /media/vyhotplug/sda1");
    unlink(config);
}

TEST_F(Survey, LeavesMountsOutOfAccountThatAreAboutToGo)
{
    leaving_ = true;
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
    EXPECT_EQ(verdict("sda1"), "");
    sysfs_.set_mounts({"8:1 / /dev/root"});
    EXPECT_EQ(verdict("sda1"), "mounted at /");
}

TEST_F(Survey, AnnouncesNothingOfADiskWithSwap)
{
    sysfs_.set_swaps({"/dev/sda2"});
    EXPECT_EQ(verdict("sda2"), "used as swap");
    EXPECT_EQ(verdict("sda1"), "sda2 is used as swap");
    EXPECT_EQ(verdict("sdb1"), "");
}

TEST_F(Survey, KnowsSwapUnderAnotherName)
{
    ASSERT_EQ(mknod("/tmp/swap node", S_IFBLK | 0600, makedev(8, 2)), 0);
    sysfs_.set_swaps({"/tmp/swap\\040node"});
    EXPECT_EQ(verdict("sda2"), "used as swap");
    EXPECT_EQ(verdict("sdb1"), "");
    unlink("/tmp/swap node");
    write_file("/tmp/swap node", "a file");
    EXPECT_EQ(verdict("sda2"), "");
}

TEST_F(Survey, AnnouncesNothingOfADiskThatIsHeld)
{
    sysfs_.hold("sda/sda2", "dm-3");
    EXPECT_EQ(verdict("sda2"), "held by dm-3");
    EXPECT_EQ(verdict("sda"), "sda2 is held by dm-3");
    EXPECT_EQ(verdict("sdb"), "");
}

TEST_F(Survey, AnnouncesNoEmptyDrive)
{
    sysfs_.set("sda/size", "0");
    EXPECT_EQ(verdict("sda"), "no medium");
    EXPECT_EQ(verdict("sda1"), "");
}

TEST_F(Survey, AnnouncesTheMachinesDisksWhenToldTo)
{
    settings_.all = true;
    sysfs_.set_mounts({"8:1 / /dev/root"});
    sysfs_.set_swaps({"/dev/sda2"});
    sysfs_.hold("sda", "md0");
    for (const char* name : {"sda", "sda1", "sda2"})
        EXPECT_EQ(verdict(name), "") << name;
}

TEST_F(Survey, AnnouncesNothingWhenTheMountsCannotBeRead)
{
    unlink("/tmp/fake-proc/self/mountinfo");
    EXPECT_EQ(verdict("sda1"), std::string("/tmp/fake-proc/self/mountinfo: ") + strerror(ENOENT));
    EXPECT_LT(result_, 0);
    mkdir("/tmp/fake-proc/self/mountinfo", 0755);
    EXPECT_EQ(verdict("sda1"), std::string("/tmp/fake-proc/self/mountinfo: ") + strerror(EISDIR));
    EXPECT_LT(result_, 0);
}

TEST_F(Survey, AnnouncesNothingWhenTheSwapsCannotBeRead)
{
    unlink("/tmp/fake-proc/swaps");
    EXPECT_EQ(verdict("sda1"), ""); // a kernel without swap
    symlink("swaps", "/tmp/fake-proc/swaps");
    EXPECT_NE(verdict("sda1"), "");
    EXPECT_EQ(result_, -ELOOP);
    unlink("/tmp/fake-proc/swaps");
    mkdir("/tmp/fake-proc/swaps", 0755);
    EXPECT_NE(verdict("sda1"), "");
    EXPECT_LT(result_, 0);
}

TEST_F(Survey, AnnouncesNothingWhenHoldersCannotBeRead)
{
    rmdir("/tmp/fake-sysfs/block/sda/sda2/holders");
    EXPECT_EQ(verdict("sda1"), ""); // an old kernel
    symlink("holders", "/tmp/fake-sysfs/block/sda/sda2/holders");
    EXPECT_NE(verdict("sda1"), "");
    EXPECT_EQ(result_, -ELOOP);
}

TEST_F(Survey, AnnouncesNothingWhenItsPartitionsCannotBeRead)
{
    sysfs_.drop("sda/sda2/dev");
    symlink("dev", "/tmp/fake-sysfs/block/sda/sda2/dev");
    EXPECT_EQ(verdict("sda1"), std::string("sda2: ") + strerror(ELOOP));
    EXPECT_LT(result_, 0);
}

TEST_F(Survey, AnnouncesNothingThatCannotBeReadWhole)
{
    sysfs_.drop("sda/removable");
    symlink("removable", "/tmp/fake-sysfs/block/sda/removable");
    EXPECT_EQ(verdict("sda1"), std::string("/tmp/fake-sysfs: ") + strerror(ELOOP));
    EXPECT_EQ(result_, -ELOOP);
}

TEST_F(Survey, SeesAMountAmongAnyNumberOfPartitions)
{
    for (unsigned i = 3; i <= 1100; i++)
        sysfs_.add_partition("sda", "sda" + std::to_string(i), "8:" + std::to_string(1000 + i));
    EXPECT_EQ(verdict("sda1"), "");
    sysfs_.set_mounts({"8:2100 / /dev/root"});
    EXPECT_EQ(verdict("sda1"), "sda1100 is mounted at /");
}

// The partition that makes the disk the machine's may be among those that are missing.
TEST_F(Survey, AnnouncesNothingOfAListThatBreaksOff)
{
    sysfs_.set_mounts({"8:2 / /dev/root"});
    int looks = 0;
    for (bool struck = true; struck;) {
        BlockList list;
        call_fail("readdir", ++looks, EIO);
        const int result = survey_take(settings_, nullptr, false, &list);
        struck = call_failed();
        for (const BlockDevice& device : list) {
            const bool of_other_disk = device.name.text[2] == 'b';
            EXPECT_TRUE(device.verdict != 0 || (of_other_disk && result == 0))
                << device.name.text << " " << looks;
        }
    }
    EXPECT_GT(looks, 20);
}

TEST_F(Survey, TellsWhenThereIsNoLookingIntoSysfs)
{
    BlockList list;
    settings_.sysfs = "/tmp/nothing";
    EXPECT_EQ(survey_take(settings_, nullptr, false, &list), -ENOENT);
    EXPECT_EQ(list.count, 0U);
}

// ---- images of CDs ----

class ImageSurvey : public Survey {
  protected:
    ImageSurvey() { settings_.config = config; }
    ~ImageSurvey() override { unlink(config); }

    void place(const std::string& name, int start, int sectors)
    {
        sysfs_.set("sda/" + name + "/start", std::to_string(start));
        sysfs_.set("sda/" + name + "/size", std::to_string(sectors));
    }

    static constexpr char config[] = "/tmp/vyhotplugd.conf";
};

TEST_F(ImageSurvey, AnnouncesThemOnce)
{
    write_file(config, "otherfs = exfat,iso9660\n");
    place("sda1", 0, 10000);
    place("sda2", 4000, 500);
    EXPECT_EQ(verdict("sda1"), "");
    EXPECT_EQ(verdict("sda2"), "lies within sda1");
    EXPECT_EQ(result_, 1);
    EXPECT_EQ(verdict("sda"), "");
    EXPECT_EQ(verdict("sdb1"), "");
}

TEST_F(ImageSurvey, AnnouncesBothWhereTheServiceMountsNoImages)
{
    place("sda1", 0, 10000);
    place("sda2", 4000, 500);
    for (const char* text : {"", "otherfs = exfat\n"}) {
        write_file(config, text);
        EXPECT_EQ(verdict("sda2"), "") << text;
    }
    unlink(config);
    EXPECT_EQ(verdict("sda2"), "") << "without a configuration";
}

// A disk has 255 partitions at the most, which somebody may have laid there to keep the agent busy.
TEST_F(ImageSurvey, ReadsOnceWhereEachPartitionLies)
{
    write_file(config, "otherfs = iso9660\n");
    for (int i = 1; i <= 255; i++) {
        if (i > 2)
            sysfs_.add_partition("sda", "sda" + std::to_string(i), "259:" + std::to_string(i));
        place("sda" + std::to_string(i), i * 100, 100);
    }
    BlockList list;
    calls_reset();
    calls_watch(true);
    EXPECT_EQ(survey_take(settings_, nullptr, false, &list), 0);
    calls_watch(false);
    EXPECT_EQ(list.count, 258U);
    EXPECT_LT(calls_counted()["read"], 258 * 8);
}

TEST_F(ImageSurvey, AnnouncesPartitionsThatOnlyOverlapOrAdjoin)
{
    write_file(config, "otherfs = iso9660\n");
    const struct {
        int start;
        int sectors;
    } rows[] = {{10000, 500}, {9900, 500}, {0, 10000}, {0, 200}, {100, 0}};
    place("sda1", 64, 9936);
    for (const auto& row : rows) {
        place("sda2", row.start, row.sectors);
        EXPECT_EQ(verdict("sda2"), "") << row.start;
    }
    place("sda1", 64, 2); // an extended partition, as the kernel shows it
    place("sda2", 64, 500);
    EXPECT_EQ(verdict("sda2"), "");
}
