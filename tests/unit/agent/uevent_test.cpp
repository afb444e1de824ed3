#include "agent/uevent.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

// A datagram of lines; each line feed becomes a zero byte.
static std::string datagram(std::string lines)
{
    for (char& c : lines) {
        if (c == '\n')
            c = '\0';
    }
    return lines;
}

// Parses bytes that end where the memory does, for the sanitizers' sake.
static int parse(const std::string& bytes, Uevent* event)
{
    char* exact = static_cast<char*>(malloc(bytes.size() != 0 ? bytes.size() : 1));
    memcpy(exact, bytes.data(), bytes.size());
    const int result = uevent_parse(exact, bytes.size(), event);
    free(exact);
    return result;
}

static int parse(const std::string& bytes)
{
    Uevent ignored;
    return parse(bytes, &ignored);
}

static std::string event_of(const std::string& action, const std::string& devpath,
                            const std::string& more = "")
{
    return datagram(action + "@" + devpath + "\nACTION=" + action + "\nDEVPATH=" + devpath +
                    "\nSUBSYSTEM=block\nMAJOR=8\nMINOR=1\n" + more);
}

static constexpr char sda1[] = "/devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host2/"
                               "target2:0:0/2:0:0:0/block/sda/sda1";

TEST(UeventParse, ReadsTheKernelsDatagram)
{
    Uevent event;
    const std::string bytes = datagram(
        std::string("add@") + sda1 + "\nACTION=add\nDEVPATH=" + sda1 +
        "\nSUBSYSTEM=block\nMAJOR=8\nMINOR=1\nDEVNAME=sda1\nDEVTYPE=partition\nDISKSEQ=12\n"
        "PARTN=1\nSEQNUM=4711\n");
    ASSERT_EQ(parse(bytes, &event), 0);
    EXPECT_EQ(event.action, UEVENT_ADD);
    EXPECT_STREQ(event.name.text, "sda1");
    EXPECT_EQ(event.name.partition, 1);
    EXPECT_EQ(event.major, 8);
    EXPECT_EQ(event.minor, 1);
    EXPECT_EQ(event.sequence, 4711U);
    EXPECT_FALSE(event.media_change);
}

TEST(UeventParse, KnowsThreeActions)
{
    const struct {
        const char* word;
        UeventAction action;
    } rows[] = {{"add", UEVENT_ADD}, {"remove", UEVENT_REMOVE}, {"change", UEVENT_CHANGE}};
    for (const auto& row : rows) {
        Uevent event;
        ASSERT_EQ(parse(event_of(row.word, sda1), &event), 0) << row.word;
        EXPECT_EQ(event.action, row.action);
    }
    for (const char* word :
         {"online", "offline", "bind", "unbind", "move", "Add", "adds", "ad", ""})
        EXPECT_EQ(parse(event_of(word, sda1)), 1) << word;
}

TEST(UeventParse, SeesAMediumChangeOnlyWhereItSaysSo)
{
    const struct {
        const char* more;
        bool change;
    } rows[] = {{"DISK_MEDIA_CHANGE=1\n", true},   {"DISK_MEDIA_CHANGE=0\n", false},
                {"DISK_MEDIA_CHANGE=\n", false},   {"DISK_EJECT_REQUEST=1\n", false},
                {"XDISK_MEDIA_CHANGE=1\n", false}, {"", false}};
    for (const auto& row : rows) {
        Uevent event;
        ASSERT_EQ(parse(event_of("change", "/devices/x/block/sda", row.more), &event), 0);
        EXPECT_EQ(event.media_change, row.change) << row.more;
    }
}

TEST(UeventParse, PassesOverOtherSubsystemsAndOtherBlockDevices)
{
    EXPECT_EQ(parse(datagram("add@/devices/x\nACTION=add\nDEVPATH=/devices/x\nSUBSYSTEM=usb\n")),
              1);
    EXPECT_EQ(parse(datagram("add@/a/sda\nACTION=add\nDEVPATH=/a/sda\nSUBSYSTEM=blocks\n"
                             "MAJOR=8\nMINOR=0\n")),
              1);
    for (const char* name : {"loop0", "dm-0", "sr0", "nvme0n1p1", "mmcblk0boot0", "mmcblk0gp0",
                             "mmcblk0rpmb", "sda01", "sdA", "vda"})
        EXPECT_EQ(parse(event_of("add", std::string("/devices/virtual/block/") + name)), 1) << name;
}

TEST(UeventParse, WantsAPartitionOnItsOwnDisk)
{
    EXPECT_EQ(parse(event_of("add", "/block/sda/sda1")), 0);
    EXPECT_EQ(parse(event_of("add", "/block/mmcblk0/mmcblk0p1")), 0);
    EXPECT_EQ(parse(event_of("add", "/sda/sda1")), 0);
    for (const char* path : {"/block/sdb/sda1", "/block/sda1", "/sda1", "/block/xsda/sda1",
                             "/block/sda/x/sda1", "/block/mmcblk1/mmcblk0p1", "/block/mmcblk0p1"})
        EXPECT_EQ(parse(event_of("add", path)), -EINVAL) << path;
}

TEST(UeventParse, RefusesHostilePaths)
{
    for (const char* path : {"",
                             "block/sda",
                             "/../block/sda",
                             "/block/../sda",
                             "/block/..sda/sda",
                             "/block//sda",
                             "/block/./sda",
                             "/block/.",
                             "/.",
                             "/block/sda/",
                             "/",
                             "/block/ /sda",
                             "/block/\t/sda",
                             "/block/\x7f/sda",
                             "/block/\x01/sda",
                             "/block/\xc3\xa4/sda",
                             "/block/\xff/sda",
                             "/block/\\/sda",
                             "/block/\"/sda",
                             "/block/'/sda"})
        EXPECT_EQ(parse(event_of("add", path)), -EINVAL) << path;
}

TEST(UeventParse, TakesPathsUpTo511Characters)
{
    const std::string end = "/block/sda";
    EXPECT_EQ(parse(event_of("add", "/" + std::string(510 - end.size(), 'x') + end)), 0);
    EXPECT_EQ(parse(event_of("add", "/" + std::string(511 - end.size(), 'x') + end)), -EINVAL);
    EXPECT_EQ(parse(event_of("add", "/" + std::string(100000, 'x') + end)), -EINVAL);
}

TEST(UeventParse, TakesTheCharactersOfRealPaths)
{
    EXPECT_EQ(parse(event_of("add", "/devices/platform/soc@0/3f202000.mmc,x/a+b=c#d~e%f!g-h_i/"
                                    "mmc_host/mmc0/mmc0:0001/block/mmcblk0")),
              0);
}

TEST(UeventParse, WantsProperNumbers)
{
    const auto with = [](const std::string& numbers) {
        return parse(datagram("add@/block/sda\nACTION=add\nDEVPATH=/block/sda\nSUBSYSTEM=block\n" +
                              numbers));
    };
    EXPECT_EQ(with("MAJOR=8\nMINOR=0\n"), 0);
    EXPECT_EQ(with("MAJOR=4095\nMINOR=1048575\n"), 0);
    for (const char* numbers : {"",
                                "MAJOR=8\n",
                                "MINOR=0\n",
                                "MAJOR=\nMINOR=0\n",
                                "MAJOR=8\nMINOR=\n",
                                "MAJOR=4096\nMINOR=0\n",
                                "MAJOR=8\nMINOR=1048576\n",
                                "MAJOR=-8\nMINOR=0\n",
                                "MAJOR=8\nMINOR=-1\n",
                                "MAJOR= 8\nMINOR=0\n",
                                "MAJOR=8 \nMINOR=0\n",
                                "MAJOR=+8\nMINOR=0\n",
                                "MAJOR=8x\nMINOR=0\n",
                                "MAJOR=0x8\nMINOR=0\n",
                                "MAJOR=99999999999999999999\nMINOR=0\n",
                                "MAJOR=8\nMINOR=4294967296\n",
                                "MAJOR=8\nMINOR=0\nSEQNUM=\n",
                                "MAJOR=8\nMINOR=0\nSEQNUM=-1\n",
                                "MAJOR=8\nMINOR=0\nSEQNUM=1x\n",
                                "MAJOR=8\nMINOR=0\nSEQNUM=18446744073709551616\n"})
        EXPECT_EQ(with(numbers), -EINVAL) << numbers;
    Uevent event;
    ASSERT_EQ(parse(event_of("add", "/block/sda", "SEQNUM=18446744073709551615\n"), &event), 0);
    EXPECT_EQ(event.sequence, UINT64_MAX);
}

TEST(UeventParse, RefusesWhatIsNotInTheKernelsForm)
{
    EXPECT_EQ(parse(""), -EINVAL);
    EXPECT_EQ(parse(std::string(1, '\0')), -EINVAL);
    EXPECT_EQ(parse(std::string(1000, '\0')), -EINVAL);
    EXPECT_EQ(parse(std::string(1000, 'a')), -EINVAL);
    EXPECT_EQ(parse("add@/block/sda"), -EINVAL); // no zero byte
    EXPECT_EQ(parse(datagram("add@/block/sda\n")), -EINVAL);
    EXPECT_EQ(parse(datagram("libudev\nACTION=add\nDEVPATH=/block/sda\nSUBSYSTEM=block\n"
                             "MAJOR=8\nMINOR=0\n")),
              -EINVAL);
    EXPECT_EQ(parse(datagram("add@/a\nDEVPATH=/block/sda\nSUBSYSTEM=block\nMAJOR=8\nMINOR=0\n")),
              -EINVAL); // no action
    EXPECT_EQ(parse(datagram("add@/a\nACTION=add\nSUBSYSTEM=block\nMAJOR=8\nMINOR=0\n")), -EINVAL);
    EXPECT_EQ(parse(datagram("add@/a\nACTION=add\nDEVPATH=/block/sda\nMAJOR=8\nMINOR=0\n")),
              -EINVAL); // no subsystem
}

TEST(UeventParse, TakesNoTruncatedDatagramForAWholeOne)
{
    const std::string whole = event_of("add", sda1);
    int taken = 0;
    for (size_t length = 0; length < whole.size(); length++) {
        const int result = parse(whole.substr(0, length));
        EXPECT_TRUE(result == -EINVAL || result == 0) << length;
        taken += result == 0 ? 1 : 0;
    }
    EXPECT_EQ(taken, 0); // the last item is needed, and its zero byte
}

TEST(UeventParse, LeavesTheEventAloneWhenItHasNone)
{
    Uevent event = {};
    event.major = 77;
    EXPECT_EQ(parse(event_of("bind", sda1), &event), 1);
    EXPECT_EQ(parse(event_of("add", "/block/../sda"), &event), -EINVAL);
    EXPECT_EQ(event.major, 77);
}

static int from_environment(std::vector<const char*> texts, Uevent* event)
{
    texts.push_back(nullptr);
    return uevent_from_environment(texts.data(), event);
}

TEST(UeventFromEnvironment, ReadsAnEvent)
{
    Uevent event;
    ASSERT_EQ(from_environment({"PATH=/bin", "ACTION=remove", "DEVPATH=/block/mmcblk0/mmcblk0p2",
                                "SUBSYSTEM=block", "MAJOR=179", "MINOR=2", "SEQNUM=5"},
                               &event),
              0);
    EXPECT_EQ(event.action, UEVENT_REMOVE);
    EXPECT_EQ(event.name.partition, 2);
    EXPECT_EQ(event.major, 179);
    EXPECT_EQ(event.minor, 2);
}

TEST(UeventFromEnvironment, NeedsNoSubsystemAndNoNumbers)
{
    Uevent event;
    ASSERT_EQ(
        from_environment({"ACTION=change", "DEVPATH=/block/sda", "DISK_MEDIA_CHANGE=1"}, &event),
        0);
    EXPECT_EQ(event.major, -1);
    EXPECT_EQ(event.minor, -1);
    EXPECT_TRUE(event.media_change);
}

TEST(UeventFromEnvironment, RefusesAnEnvironmentWithoutAnEvent)
{
    Uevent event;
    EXPECT_EQ(from_environment({}, &event), -EINVAL);
    EXPECT_EQ(from_environment({"ACTION=add"}, &event), -EINVAL);
    EXPECT_EQ(from_environment({"DEVPATH=/block/sda"}, &event), -EINVAL);
    EXPECT_EQ(from_environment({"ACTION", "DEVPATH"}, &event), -EINVAL);
    EXPECT_EQ(from_environment({"ACTION=add", "DEVPATH=/block/sda", "MAJOR=x"}, &event), -EINVAL);
    EXPECT_EQ(from_environment({"ACTION=add", "DEVPATH=/class/net/eth0", "SUBSYSTEM=net"}, &event),
              1);
}
