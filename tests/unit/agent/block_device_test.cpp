#include "agent/block_device.h"

#include "fake_sysfs.h"
#include "support/failing_calls.h"
#include "support/files.h"

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

static std::vector<std::string> names_of(const BlockList& list)
{
    std::vector<std::string> names;
    for (const BlockDevice& device : list)
        names.push_back(device.name.text);
    return names;
}

// A device and what it has in common with the others of its disk.
struct Whole : BlockDevice, BlockHardware {};

class BlockDeviceTest : public testing::Test {
  protected:
    // Reads everything anew.
    const BlockList& list()
    {
        BlockList fresh;
        EXPECT_EQ(block_list_read(FakeSysfs::root, &fresh), 0);
        block_list_move(&fresh, &list_);
        return list_;
    }

    bool is_there(const std::string& name)
    {
        return block_list_find(list(), name_of(name)) != nullptr;
    }

    Whole device_of(const std::string& name)
    {
        const BlockDevice* device = block_list_find(list(), name_of(name));
        EXPECT_NE(device, nullptr) << name;
        return device != nullptr ? Whole{*device, *device->hardware} : Whole{};
    }

    FakeSysfs sysfs_;
    BlockList list_;
};

TEST_F(BlockDeviceTest, ReadsAStick)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.add_partition("sda", "sda1", "8:1");
    sysfs_.set("sda/sda1/ro", "1");
    const Whole device = device_of("sda1");
    EXPECT_EQ(device.major, 8);
    EXPECT_EQ(device.minor, 1);
    EXPECT_STREQ(device.range, "16");
    EXPECT_STREQ(device.removable, "1");
    EXPECT_STREQ(device.readonly, "1"); // the partition's
    EXPECT_FALSE(device.empty);
    EXPECT_STREQ(device.vid, "1234");
    EXPECT_STREQ(device.pid, "00ab");
    EXPECT_STREQ(device.serial, "ABC");
    EXPECT_STREQ(device.vname, "Acme");
    EXPECT_STREQ(device.pname, "FlashKey");
    EXPECT_STREQ(device.speed, "480");
    EXPECT_STREQ(device_of("sda").readonly, "0");
    EXPECT_EQ(device.failure, 0);
}

TEST_F(BlockDeviceTest, TakesTheDisksOwnNamesWhereTheUsbDeviceHasNone)
{
    sysfs_.add_stick("sda", "8:0", {{"manufacturer", "-"}, {"product", "-"}, {"serial", "-"}});
    const Whole device = device_of("sda");
    EXPECT_STREQ(device.vname, "SCSIVEND");
    EXPECT_STREQ(device.pname, "ScsiModel       ");
    EXPECT_STREQ(device.serial, "");
    EXPECT_STREQ(device.vid, "1234");
}

TEST_F(BlockDeviceTest, ReadsADiskThatIsNoUsbDevice)
{
    sysfs_.add_stick("sda", "8:0", {{"idVendor", "-"}});
    const Whole device = device_of("sda");
    EXPECT_STREQ(device.vid, "");
    EXPECT_STREQ(device.serial, "");
    EXPECT_STREQ(device.speed, "");
    EXPECT_STREQ(device.vname, "SCSIVEND");
}

TEST_F(BlockDeviceTest, LooksForTheUsbDeviceNotAboveSysfs)
{
    sysfs_.add_stick("sda", "8:0", {{"idVendor", "-"}});
    const std::string own = std::string(FakeSysfs::root) + "/idVendor";
    write_file("/tmp/idVendor", "1111\n");
    write_file(own, "2222\n");
    EXPECT_STREQ(device_of("sda").vid, "");
    unlink("/tmp/idVendor");
    unlink(own.c_str());
}

TEST_F(BlockDeviceTest, ReadsACard)
{
    sysfs_.add_card("mmcblk0", "179:0");
    sysfs_.add_partition("mmcblk0", "mmcblk0p1", "179:1");
    const Whole device = device_of("mmcblk0p1");
    EXPECT_EQ(device.major, 179);
    EXPECT_EQ(device.minor, 1);
    EXPECT_STREQ(device.range, "8");
    EXPECT_STREQ(device.removable, "0");
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

TEST_F(BlockDeviceTest, TakesWhatIsMissingAsUnknown)
{
    sysfs_.add_stick("sda", "8:0", {}, {{"range", "-"}, {"removable", "-"}, {"ro", "-"}});
    const Whole device = device_of("sda");
    EXPECT_STREQ(device.range, "");
    EXPECT_STREQ(device.removable, "");
    EXPECT_STREQ(device.readonly, "");
    EXPECT_EQ(device.failure, 0);
}

TEST_F(BlockDeviceTest, WaitsForNobodyToWriteAnAttribute)
{
    sysfs_.add_stick("sda", "8:0", {{"serial", "-"}});
    ASSERT_EQ(mkfifo((sysfs_.usb("sda") + "/serial").c_str(), 0600), 0);
    EXPECT_STREQ(device_of("sda").serial, "");
}

TEST_F(BlockDeviceTest, WaitsForNobodyToWriteWhereADirectoryIsExpected)
{
    sysfs_.add_stick("sda", "8:0");
    ASSERT_EQ(mkfifo((std::string(FakeSysfs::root) + "/block/sda/sda1").c_str(), 0600), 0);
    alarm(20);
    EXPECT_EQ(names_of(list()), std::vector<std::string>{"sda"});
    alarm(0);
}

TEST_F(BlockDeviceTest, CutsLongTextsToItsFields)
{
    sysfs_.add_stick("sda", "8:0",
                     {{"serial", std::string(5000, 's')}, {"speed", std::string(5000, '4')}});
    const Whole device = device_of("sda");
    EXPECT_EQ(strlen(device.serial), agent_text_size - 1);
    EXPECT_EQ(strlen(device.speed), sizeof device.speed - 1);
}

TEST_F(BlockDeviceTest, KeepsALineFeedWithinAText)
{
    sysfs_.add_stick("sda", "8:0", {{"serial", "a\nb"}, {"product", ""}, {"manufacturer", "\n"}});
    const Whole device = device_of("sda");
    EXPECT_STREQ(device.serial, "a\nb");
    EXPECT_STREQ(device.pname, "ScsiModel       "); // empty counts as absent
    EXPECT_STREQ(device.vname, "\n");
}

TEST_F(BlockDeviceTest, IsNotThereWithoutItsNumbers)
{
    EXPECT_FALSE(is_there("sda"));
    sysfs_.add_stick("sda", "8:0");
    EXPECT_TRUE(is_there("sda"));
    EXPECT_FALSE(is_there("sda1"));
    for (const char* numbers :
         {"", "8", "8:", ":0", "8:x", "x:0", "8:-1", "-8:0", "8 0", "8:0:0"}) {
        sysfs_.set("sda/dev", numbers);
        EXPECT_FALSE(is_there("sda")) << numbers;
    }
    sysfs_.drop("sda/dev"); // as the kernel does before the device goes
    EXPECT_FALSE(is_there("sda"));
}

TEST_F(BlockDeviceTest, TellsWhenItCannotLook)
{
    const std::string disk = std::string(FakeSysfs::root) + "/block/sda/";
    sysfs_.add_stick("sda", "8:0");
    for (const char* file : {"dev", "removable", "ro", "size", "diskseq", "holders"}) {
        sysfs_.drop(std::string("sda/") + file);
        ASSERT_EQ(symlink(file, (disk + file).c_str()), 0); // leads nowhere
        EXPECT_EQ(device_of("sda").failure, -ELOOP) << file;
        sysfs_.drop(std::string("sda/") + file);
        if (file != std::string("holders"))
            sysfs_.set(std::string("sda/") + file, file == std::string("dev") ? "8:0" : "1");
        EXPECT_EQ(device_of("sda").failure, 0) << file;
    }
}

TEST_F(BlockDeviceTest, TellsOfADisksFailureForItsPartitions)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.add_partition("sda", "sda1", "8:1");
    for (const char* file : {"removable", "diskseq"}) {
        sysfs_.drop(std::string("sda/") + file);
        symlink(file, (std::string(FakeSysfs::root) + "/block/sda/" + file).c_str());
        EXPECT_EQ(device_of("sda1").failure, -ELOOP) << file;
        EXPECT_EQ(device_of("sda1").minor, 1);
        sysfs_.drop(std::string("sda/") + file);
    }
}

TEST_F(BlockDeviceTest, ShowsAPartitionThatCannotBeOpened)
{
    const std::string disk = std::string(FakeSysfs::root) + "/block/sda/";
    sysfs_.add_stick("sda", "8:0");
    ASSERT_EQ(symlink("sda1", (disk + "sda1").c_str()), 0); // leads nowhere
    EXPECT_EQ(device_of("sda1").failure, -ELOOP);
    EXPECT_EQ(device_of("sda").failure, 0);
    ASSERT_EQ(symlink("nothing", (disk + "sda2").c_str()), 0); // it has just gone
    EXPECT_FALSE(is_there("sda2"));
}

TEST_F(BlockDeviceTest, ShowsADiskWhoseHardwareCannotBeOpened)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.drop("sda/device");
    EXPECT_EQ(device_of("sda").failure, 0); // it has none
    ASSERT_EQ(symlink("device", (std::string(FakeSysfs::root) + "/block/sda/device").c_str()), 0);
    EXPECT_EQ(device_of("sda").failure, -ELOOP);
    EXPECT_STREQ(device_of("sda").vid, "");
}

TEST_F(BlockDeviceTest, HasAnotherIdentityWhenMadeAnew)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.add_partition("sda", "sda1", "8:1");
    const uint64_t first = device_of("sda1").identity;
    EXPECT_EQ(device_of("sda1").identity, first);
    sysfs_.set("sda/sda1/ro", "1");
    EXPECT_EQ(device_of("sda1").identity, first);
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.add_partition("sda", "sda1", "8:1");
    const uint64_t second = device_of("sda1").identity;
    EXPECT_NE(second, first);
    sysfs_.set("sda/diskseq", "7");
    const uint64_t third = device_of("sda1").identity;
    EXPECT_NE(third, second);
    sysfs_.set("sda/diskseq", "8");
    EXPECT_NE(device_of("sda1").identity, third);
}

TEST_F(BlockDeviceTest, HasAnotherIdentityWhenAnotherDevice)
{
    sysfs_.add_stick("sda", "8:0");
    const uint64_t identity = device_of("sda").identity;
    const struct {
        const char* file;
        const char* value;
    } rows[] = {{"serial", "ABD"},
                {"idVendor", "1235"},
                {"idProduct", "00ac"},
                {"manufacturer", "Acm"},
                {"product", "Flash"}};
    for (const auto& row : rows) {
        const std::string path = sysfs_.usb("sda") + "/" + row.file;
        const std::string before = read_file(path);
        write_file(path, row.value);
        EXPECT_NE(device_of("sda").identity, identity) << row.file;
        write_file(path, before);
    }
    write_file(sysfs_.usb("sda") + "/manufacturer", "AcmeFlash"); // the same bytes, divided
    write_file(sysfs_.usb("sda") + "/product", "Key");
    EXPECT_NE(device_of("sda").identity, identity);
    write_file(sysfs_.usb("sda") + "/manufacturer", "Acme");
    write_file(sysfs_.usb("sda") + "/product", "FlashKey");
    EXPECT_EQ(device_of("sda").identity, identity);
    for (const char* numbers : {"8:16", "9:0"}) {
        sysfs_.set("sda/dev", numbers);
        EXPECT_NE(device_of("sda").identity, identity) << numbers;
    }
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
    EXPECT_EQ(names_of(list()),
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
    EXPECT_EQ(names_of(list()), std::vector<std::string>{"sda"});
}

TEST_F(BlockDeviceTest, ListsAnyNumberOfPartitions)
{
    sysfs_.add_stick("sda", "8:0");
    for (unsigned i = 1; i <= 1100; i++)
        sysfs_.add_partition("sda", "sda" + std::to_string(i), "8:" + std::to_string(i));
    EXPECT_EQ(list().count, 1101U);
    EXPECT_STREQ(list_.devices.get()[1100].name.text, "sda1100");
    EXPECT_EQ(list_.devices.get()[1100].minor, 1100);
}

TEST_F(BlockDeviceTest, TellsWhenThereIsNoLookingIntoSysfs)
{
    EXPECT_EQ(block_list_read("/tmp/nothing", &list_), -ENOENT);
    sysfs_.add_stick("sda", "8:0");
    const std::string disk = std::string(FakeSysfs::root) + "/block/sda";
    ASSERT_EQ(unlink(disk.c_str()), 0);
    ASSERT_EQ(symlink("sda", disk.c_str()), 0);
    EXPECT_EQ(block_list_read(FakeSysfs::root, &list_), -ELOOP);
}

// What is missing then would be taken for gone, and its holder for none.
TEST_F(BlockDeviceTest, TellsWhenADirectoryCannotBeReadToItsEnd)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.add_partition("sda", "sda1", "8:1");
    sysfs_.hold("sda/sda1", "dm-0");
    int looks = 0;
    for (bool struck = true; struck;) {
        BlockList list;
        call_fail("readdir", ++looks, EIO);
        const int result = block_list_read(FakeSysfs::root, &list);
        struck = call_failed();
        bool told = result == -EIO;
        for (const BlockDevice& device : list)
            told = told || device.failure == -EIO;
        EXPECT_EQ(told, struck) << looks;
    }
    EXPECT_GT(looks, 10); // three directories with two names of their own each, and the two ends
}

// A device without its numbers is going, and would be taken back.
TEST_F(BlockDeviceTest, LosesNoDeviceWhoseFilesCannotBeRead)
{
    sysfs_.add_stick("sda", "8:0");
    sysfs_.add_partition("sda", "sda1", "8:1");
    int looks = 0;
    for (bool struck = true; struck;) {
        BlockList list;
        call_fail("read", ++looks, EIO);
        EXPECT_EQ(block_list_read(FakeSysfs::root, &list), 0);
        struck = call_failed();
        EXPECT_EQ(names_of(list), (std::vector<std::string>{"sda", "sda1"})) << looks;
    }
    EXPECT_GT(looks, 10);
}

// What a device tells is part of its identity.
TEST_F(BlockDeviceTest, TellsOfEachFileThatThereIsNoMemoryToRead)
{
    sysfs_.add_stick("sda", "8:0", {{"serial", "ABC"}});
    sysfs_.add_partition("sda", "sda1", "8:1");
    int looks = 0;
    for (bool struck = true; struck;) {
        BlockList list;
        call_fail("read", ++looks, ENOMEM);
        EXPECT_EQ(block_list_read(FakeSysfs::root, &list), 0);
        struck = call_failed();
        bool told = false;
        for (const BlockDevice& device : list)
            told = told || device.failure == -ENOMEM;
        EXPECT_EQ(told, struck) << looks;
    }
    EXPECT_GT(looks, 10);
}

TEST_F(BlockDeviceTest, TakesADirectoryThatIsGoneMeanwhileForItsEnd)
{
    sysfs_.add_stick("sda", "8:0");
    call_fail("readdir", 6, ENOENT); // of what holds the disk
    EXPECT_EQ(device_of("sda").failure, 0);
    EXPECT_TRUE(call_failed());
}

TEST_F(BlockDeviceTest, PassesOverADiskThatHasJustGone)
{
    sysfs_.add_stick("sdb", "8:16");
    const std::string link = std::string(FakeSysfs::root) + "/block/sda";
    ASSERT_EQ(symlink("/tmp/nothing", link.c_str()), 0); // the directory was read before it went
    EXPECT_EQ(names_of(list()), std::vector<std::string>{"sdb"});
}

TEST_F(BlockDeviceTest, FindsAHolder)
{
    sysfs_.add_stick("sda", "8:0");
    EXPECT_STREQ(device_of("sda").holder, "");
    sysfs_.hold("sda", "md127");
    EXPECT_STREQ(device_of("sda").holder, "md127");
}

TEST_F(BlockDeviceTest, CountsTheKernelsEvents)
{
    sysfs_.add_stick("sda", "8:0");
    EXPECT_EQ(device_of("sda").seen, 0U);
    sysfs_.set_event_count(4711);
    EXPECT_EQ(device_of("sda").seen, 4711U);
}
