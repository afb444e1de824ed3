#include "agent/block_device.h"

#include "fake_sysfs.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

static BlockName name_of(const std::string& text)
{
    BlockName name;
    EXPECT_TRUE(block_name_parse(text.c_str(), &name)) << text;
    return name;
}

static BlockDevice device_of(const std::string& name)
{
    BlockDevice device;
    EXPECT_EQ(block_device_read(FakeSysfs::root, name_of(name), &device), 0) << name;
    return device;
}

static std::vector<std::string> names_of(const BlockList& list)
{
    std::vector<std::string> names;
    for (uint32_t i = 0; i < list.count; i++) {
        char text[block_name_size];
        block_name_format(list.names[i], text);
        names.push_back(text);
    }
    return names;
}

class BlockDeviceTest : public testing::Test {
  protected:
    FakeSysfs sysfs_;
    BlockList list_;
};

TEST_F(BlockDeviceTest, ReadsAStick)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.add_partition("sda", "sda1", "8:1");
    sysfs_.set("sda/sda1/ro", "1");
    const BlockDevice device = device_of("sda1");
    EXPECT_EQ(device.major, 8);
    EXPECT_EQ(device.minor, 1);
    EXPECT_EQ(device.range, 16);
    EXPECT_EQ(device.removable, 1);
    EXPECT_EQ(device.readonly, 1); // the partition's
    EXPECT_FALSE(device.empty);
    EXPECT_STREQ(device.vid, "1234");
    EXPECT_STREQ(device.pid, "00ab");
    EXPECT_STREQ(device.serial, "ABC");
    EXPECT_STREQ(device.vname, "Acme");
    EXPECT_STREQ(device.pname, "FlashKey");
    EXPECT_STREQ(device.speed, "480");
    EXPECT_EQ(device_of("sda").readonly, 0);
}

TEST_F(BlockDeviceTest, TakesTheDisksOwnNamesWhereTheUsbDeviceHasNone)
{
    sysfs_.add_stick("sda", "8:0", {{"manufacturer", "-"}, {"product", "-"}, {"serial", "-"}});
    const BlockDevice device = device_of("sda");
    EXPECT_STREQ(device.vname, "SCSIVEND");
    EXPECT_STREQ(device.pname, "ScsiModel       ");
    EXPECT_STREQ(device.serial, "");
    EXPECT_STREQ(device.vid, "1234");
}

TEST_F(BlockDeviceTest, ReadsADiskThatIsNoUsbDevice)
{
    sysfs_.add_stick("sda", "8:0", {{"idVendor", "-"}});
    const BlockDevice device = device_of("sda");
    EXPECT_STREQ(device.vid, "");
    EXPECT_STREQ(device.serial, "");
    EXPECT_STREQ(device.speed, "");
    EXPECT_STREQ(device.vname, "SCSIVEND");
}

TEST_F(BlockDeviceTest, LooksForTheUsbDeviceNotAboveSysfs)
{
    sysfs_.add_stick("sda", "8:0", {{"idVendor", "-"}});
    symlink("/tmp", "/tmp/idVendor"); // nothing above the root is read
    EXPECT_STREQ(device_of("sda").vid, "");
    unlink("/tmp/idVendor");
}

TEST_F(BlockDeviceTest, ReadsACard)
{
    sysfs_.add_card("mmcblk0", "179:0");
    sysfs_.add_partition("mmcblk0", "mmcblk0p1", "179:1");
    const BlockDevice device = device_of("mmcblk0p1");
    EXPECT_EQ(device.major, 179);
    EXPECT_EQ(device.minor, 1);
    EXPECT_EQ(device.range, 8);
    EXPECT_EQ(device.removable, 0);
    EXPECT_STREQ(device.serial, "0x1f2e3d4c");
    EXPECT_STREQ(device.pname, "SD32G");
    EXPECT_STREQ(device.vname, "");
    EXPECT_STREQ(device.vid, "");
}

TEST_F(BlockDeviceTest, SeesAnEmptyDrive)
{
    sysfs_.add_stick("sda", "8:0", {}, {{"size", "0"}});
    sysfs_.add_partition("sda", "sda1", "8:1");
    EXPECT_TRUE(device_of("sda").empty);
    EXPECT_FALSE(device_of("sda1").empty);
    sysfs_.set("sda/size", "00");
    EXPECT_FALSE(device_of("sda").empty);
}

TEST_F(BlockDeviceTest, TakesWhatIsMissingOrNoNumberAsUnknown)
{
    sysfs_.add_stick("sda", "8:0", {}, {{"range", "-"}, {"removable", "yes"}, {"ro", "2"}});
    const BlockDevice device = device_of("sda");
    EXPECT_EQ(device.range, -1);
    EXPECT_EQ(device.removable, -1);
    EXPECT_EQ(device.readonly, -1);
    for (const char* range : {"", " 16", "16 ", "-16", "+16", "16x", "99999999999999999999"}) {
        sysfs_.set("sda/range", range);
        EXPECT_EQ(device_of("sda").range, -1) << range;
    }
    sysfs_.set("sda/range", "256");
    EXPECT_EQ(device_of("sda").range, 256);
}

TEST_F(BlockDeviceTest, CutsLongTextsToItsFields)
{
    sysfs_.add_stick("sda", "8:0",
                     {{"serial", std::string(5000, 's')}, {"speed", std::string(5000, '4')}});
    const BlockDevice device = device_of("sda");
    EXPECT_EQ(strlen(device.serial), agent_text_size - 1);
    EXPECT_EQ(strlen(device.speed), sizeof device.speed - 1);
}

TEST_F(BlockDeviceTest, KeepsALineFeedWithinAText)
{
    sysfs_.add_stick("sda", "8:0", {{"serial", "a\nb"}, {"product", ""}, {"manufacturer", "\n"}});
    const BlockDevice device = device_of("sda");
    EXPECT_STREQ(device.serial, "a\nb");
    EXPECT_STREQ(device.pname, "ScsiModel       "); // empty counts as absent
    EXPECT_STREQ(device.vname, "\n");
}

TEST_F(BlockDeviceTest, IsNotThereWithoutItsNumbers)
{
    BlockDevice device;
    EXPECT_EQ(block_device_read(FakeSysfs::root, name_of("sda"), &device), -ENOENT);
    sysfs_.add_stick("sda", "8:0");
    EXPECT_EQ(block_device_read(FakeSysfs::root, name_of("sda1"), &device), -ENOENT);
    for (const char* numbers :
         {"", "8", "8:", ":0", "8:x", "x:0", "8:-1", "-8:0", "8 0", "8:0:0"}) {
        sysfs_.set("sda/dev", numbers);
        EXPECT_EQ(block_device_read(FakeSysfs::root, name_of("sda"), &device), -ENOENT) << numbers;
    }
    sysfs_.drop("sda/dev"); // as the kernel does before the device goes
    EXPECT_EQ(block_device_read(FakeSysfs::root, name_of("sda"), &device), -ENOENT);
}

TEST_F(BlockDeviceTest, TellsWhenItCannotLook)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.drop("sda/dev");
    symlink("dev", (std::string(FakeSysfs::root) + "/block/sda/dev").c_str()); // leads nowhere
    BlockDevice device;
    EXPECT_EQ(block_device_read(FakeSysfs::root, name_of("sda"), &device), -ELOOP);
    sysfs_.drop("sda/dev");
    sysfs_.set("sda/dev", "8:0");
    sysfs_.drop("sda/removable");
    symlink("removable", (std::string(FakeSysfs::root) + "/block/sda/removable").c_str());
    EXPECT_EQ(block_device_read(FakeSysfs::root, name_of("sda"), &device), -ELOOP);
}

TEST_F(BlockDeviceTest, IsAnotherIncarnationWhenMadeAnew)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.add_partition("sda", "sda1", "8:1");
    const uint64_t first = device_of("sda1").incarnation;
    EXPECT_EQ(device_of("sda1").incarnation, first);
    sysfs_.set("sda/sda1/ro", "1");
    EXPECT_EQ(device_of("sda1").incarnation, first);
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.add_partition("sda", "sda1", "8:1");
    const uint64_t second = device_of("sda1").incarnation;
    EXPECT_NE(second, first);
    sysfs_.set("sda/diskseq", "7");
    const uint64_t third = device_of("sda1").incarnation;
    EXPECT_NE(third, second);
    sysfs_.set("sda/diskseq", "8");
    EXPECT_NE(device_of("sda1").incarnation, third);
}

TEST_F(BlockDeviceTest, ListsEverythingInOrder)
{
    for (const char* disk : {"sdaa", "sdb", "sda"}) {
        sysfs_.add_stick(disk, "8:0");
        for (const char* number : {"10", "2", "1"})
            sysfs_.add_partition(disk, std::string(disk) + number, "8:1");
    }
    sysfs_.add_card("mmcblk10", "179:80");
    sysfs_.add_card("mmcblk9", "179:72");
    sysfs_.add_partition("mmcblk9", "mmcblk9p1", "179:73");
    ASSERT_EQ(block_list_all(FakeSysfs::root, &list_), 0);
    EXPECT_EQ(names_of(list_),
              (std::vector<std::string>{"sda", "sda1", "sda2", "sda10", "sdb", "sdb1", "sdb2",
                                        "sdb10", "sdaa", "sdaa1", "sdaa2", "sdaa10", "mmcblk9",
                                        "mmcblk9p1", "mmcblk10"}));
}

TEST_F(BlockDeviceTest, ListsNothingOfOtherKinds)
{
    sysfs_.add_stick("sda", "8:0");
    for (const char* name :
         {"loop0", "dm-0", "sr0", "nvme0n1", "mmcblk0boot0", "mmcblk0rpmb", "sda1"})
        sysfs_.set("../block/" + std::string(name), "");
    sysfs_.set("sda/sdb1", ""); // not the disk's
    ASSERT_EQ(block_list_all(FakeSysfs::root, &list_), 0);
    EXPECT_EQ(names_of(list_), std::vector<std::string>{"sda"});
}

TEST_F(BlockDeviceTest, ListsOneDisk)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.add_partition("sda", "sda2", "8:2");
    sysfs_.add_partition("sda", "sda1", "8:1");
    sysfs_.add_stick("sdb", "8:16");
    for (const char* name : {"sda", "sda2", "sda7"}) {
        ASSERT_EQ(block_list_disk(FakeSysfs::root, name_of(name), &list_), 0);
        EXPECT_EQ(names_of(list_), (std::vector<std::string>{"sda", "sda1", "sda2"}));
    }
    ASSERT_EQ(block_list_disk(FakeSysfs::root, name_of("sdc"), &list_), 0);
    EXPECT_EQ(list_.count, 0U);
}

TEST_F(BlockDeviceTest, TellsWhenTheListIsFull)
{
    sysfs_.add_stick("sda", "8:0");
    for (unsigned i = 1; i <= agent_walk_limit; i++)
        sysfs_.add_partition("sda", "sda" + std::to_string(i), "8:1");
    EXPECT_EQ(block_list_all(FakeSysfs::root, &list_), -E2BIG);
    EXPECT_EQ(list_.count, agent_walk_limit);
}

TEST_F(BlockDeviceTest, TellsWhenThereIsNoLookingIntoSysfs)
{
    EXPECT_EQ(block_list_all("/tmp/nothing", &list_), -ENOENT);
    EXPECT_EQ(block_list_all(std::string(2000, 'x').c_str(), &list_), -ENAMETOOLONG);
    EXPECT_EQ(block_list_disk(std::string(2000, 'x').c_str(), name_of("sda"), &list_),
              -ENAMETOOLONG);
}

TEST_F(BlockDeviceTest, FindsAHolder)
{
    char holder[block_name_size];
    sysfs_.add_stick("sda", "8:0");
    EXPECT_EQ(block_holder(FakeSysfs::root, name_of("sda"), holder), -ENOENT);
    EXPECT_EQ(block_holder(FakeSysfs::root, name_of("sdb"), holder), -ENOENT);
    sysfs_.hold("sda", "md127");
    ASSERT_EQ(block_holder(FakeSysfs::root, name_of("sda"), holder), 0);
    EXPECT_STREQ(holder, "md127");
}

TEST_F(BlockDeviceTest, CountsTheKernelsEvents)
{
    EXPECT_EQ(block_event_count(FakeSysfs::root), 0U);
    sysfs_.set_event_count(4711);
    EXPECT_EQ(block_event_count(FakeSysfs::root), 4711U);
}
