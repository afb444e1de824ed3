#include "core/message.h"

#include "fake/fake_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// A parsed message, cleared with the object.
struct Parsed : ControlMessage {
    explicit Parsed(const std::string& text) { EXPECT_EQ(message_parse(text.c_str(), this), 0); }
    ~Parsed() { message_clear(this); }
    Parsed(const Parsed&) = delete;
    Parsed& operator=(const Parsed&) = delete;
};

// ---- the action ----

TEST(MessageAction, IsNamedByTheTextsBeginning)
{
    struct Row {
        const char* text;
        HotplugAction action;
    };
    const Row rows[] = {
        {"ACTION=add", HOTPLUG_ACTION_ADD},
        {"ACTION=add,MAJOR=8", HOTPLUG_ACTION_ADD},
        {"ACTION=address", HOTPLUG_ACTION_ADD}, // only the beginning is looked at
        {"ACTION=mount,all", HOTPLUG_ACTION_MOUNT},
        {"ACTION=mounted", HOTPLUG_ACTION_MOUNT},
        {"ACTION=unmount,all", HOTPLUG_ACTION_UNMOUNT},
        {"ACTION=unmount", HOTPLUG_ACTION_UNMOUNT},
        {"ACTION=remove,MAJOR=8", HOTPLUG_ACTION_REMOVE},
        {"ACTION=removed", HOTPLUG_ACTION_REMOVE},
        {"ACTION=change,MAJOR=8", HOTPLUG_ACTION_UNKNOWN},
        {"ACTION=ad", HOTPLUG_ACTION_UNKNOWN},
        {"ACTION=umount,all", HOTPLUG_ACTION_UNKNOWN},
        {"ACTION=ADD", HOTPLUG_ACTION_UNKNOWN},
        {"action=add", HOTPLUG_ACTION_UNKNOWN},
        {" ACTION=add", HOTPLUG_ACTION_UNKNOWN},
        {",ACTION=add", HOTPLUG_ACTION_UNKNOWN},
        {"MAJOR=8,ACTION=add", HOTPLUG_ACTION_UNKNOWN},
        {"", HOTPLUG_ACTION_UNKNOWN},
    };
    for (const Row& row : rows)
        EXPECT_EQ(message_action(row.text), row.action) << row.text;
}

// ---- a message without items ----

TEST(MessageParse, StartsWithAllZeroAndARangeOf16)
{
    const Parsed message("ACTION=add");
    EXPECT_EQ(message.dev.range, 16);
    EXPECT_EQ(message.dev.devtype, 0);
    EXPECT_EQ(message.dev.flags, 0);
    EXPECT_EQ(message.dev.usbport[0], 0);
    EXPECT_EQ(message.dev.vid, 0);
    EXPECT_EQ(message.dev.pid, 0);
    EXPECT_EQ(message.dev.major, 0);
    EXPECT_EQ(message.dev.minor, 0);
    EXPECT_EQ(message.dev.speed, 0);
    EXPECT_EQ(message.dev.helperpid, 0);
    EXPECT_EQ(message.dev.vname, nullptr);
    EXPECT_EQ(message.dev.pname, nullptr);
    EXPECT_EQ(message.dev.serial, nullptr);
    EXPECT_STREQ(message.target, "");
    EXPECT_EQ(message.force, 0);
}

TEST(MessageParse, TakesEveryItemOfAnAgentsMessage)
{
    const Parsed message("ACTION=add,MAJOR=8,MINOR=17,DEVTYPE=partition,USBPORT=1-3,RANGE=32,RM=1,"
                         "RO=1,VNAME=Acme,PNAME=FlashKey,SPEED=480,VID=1234,PID=00ab,SID=A B C");
    EXPECT_EQ(message.dev.major, 8);
    EXPECT_EQ(message.dev.minor, 17);
    EXPECT_EQ(message.dev.devtype, HOTPLUG_DEVTYPE_PARTITION);
    EXPECT_EQ(message.dev.range, 32);
    EXPECT_EQ(message.dev.flags, HOTPLUG_FLAG_REMOVABLE | HOTPLUG_FLAG_READONLY);
    EXPECT_STREQ(message.dev.vname, "Acme");
    EXPECT_STREQ(message.dev.pname, "FlashKey");
    EXPECT_EQ(message.dev.speed, 480);
    EXPECT_EQ(message.dev.vid, 0x1234);
    EXPECT_EQ(message.dev.pid, 0x00AB);
    EXPECT_STREQ(message.dev.serial, "A B C");
    EXPECT_STREQ(message.target, "");
}

// ---- numbers ----

struct NumberRow {
    const char* items;
    long expected;
};

TEST(MessageParse, MajorIsDecimal)
{
    const NumberRow rows[] = {
        {"MAJOR=179", 179},
        {"MAJOR=010", 10},
        {"MAJOR=-1", -1},
        {"MAJOR=8,MAJOR=179", 179},
        {"MAJOR=8,MAJOR=x", 8},
        {"MAJOR=8,MAJOR=", 8},
        {"MAJOR=8,MAJOR", 8},
        {"MAJOR=8,MAJOR=0x9", 8},
        {"MAJOR=8,MAJOR=9 ", 8},
        {"MAJOR=8,major=9", 8},
        {"MAJOR=8,MAJOR=9999999999", 8},
    };
    for (const NumberRow& row : rows)
        EXPECT_EQ(Parsed(row.items).dev.major, row.expected) << row.items;
}

TEST(MessageParse, MinorIsDecimal)
{
    const NumberRow rows[] = {
        {"MINOR=416", 416},
        {"MINOR=1,MINOR=2", 2},
        {"MINOR=1,MINOR=two", 1},
        {"MINOR=1,MINOR", 1},
    };
    for (const NumberRow& row : rows)
        EXPECT_EQ(Parsed(row.items).dev.minor, row.expected) << row.items;
}

TEST(MessageParse, RangeIsTakenFrom1To255Only)
{
    const NumberRow rows[] = {
        {"RANGE=1", 1},           {"RANGE=8", 8},         {"RANGE=255", 255},
        {"RANGE=0", 16},          {"RANGE=256", 16},      {"RANGE=-1", 16},
        {"RANGE=8,RANGE=0", 8},   {"RANGE=8,RANGE=x", 8}, {"RANGE=8,RANGE=257", 8},
        {"RANGE=8,RANGE=32", 32}, {"RANGE", 16},          {"RANGE=", 16},
    };
    for (const NumberRow& row : rows)
        EXPECT_EQ(Parsed(row.items).dev.range, row.expected) << row.items;
}

TEST(MessageParse, IdsAreHexadecimal)
{
    const NumberRow rows[] = {
        {"VID=1234", 0x1234},  {"VID=abcd", 0xABCD}, {"VID=ABCD", 0xABCD},
        {"VID=0x12", 0x12},    {"VID=ffff", 0xFFFF}, {"VID=12,VID=xyz", 0x12},
        {"VID=12,VID=", 0x12}, {"VID=12,VID", 0x12}, {"VID=12,VID=34", 0x34},
        {"VID=12345", 0x2345}, // the low 16 bits
    };
    for (const NumberRow& row : rows) {
        EXPECT_EQ(Parsed(row.items).dev.vid, row.expected) << row.items;
        std::string items = row.items;
        for (size_t at = 0; (at = items.find("VID", at)) != std::string::npos;)
            items[at] = 'P';
        EXPECT_EQ(Parsed(items).dev.pid, row.expected) << items;
    }
}

TEST(MessageParse, VidAndPidDoNotMix)
{
    const Parsed message("VID=1,PID=2");
    EXPECT_EQ(message.dev.vid, 1);
    EXPECT_EQ(message.dev.pid, 2);
}

// ---- flags ----

TEST(MessageParse, FlagsAreSetByNonZeroAndClearedByZero)
{
    const NumberRow rows[] = {
        {"RM=1", 1},           {"RM=2", 1},      {"RM=-1", 1},     {"RM=0", 0},
        {"RM=1,RM=0", 0},      {"RM=1,RM=x", 1}, {"RM=1,RM", 1},   {"RO=1", 2},
        {"RO=1,RO=0", 0},      {"RO=1,RO=x", 2}, {"RM=1,RO=1", 3}, {"RM=1,RO=1,RM=0", 2},
        {"RM=1,RO=1,RO=0", 1}, {"RM=1,RO=0", 1},
    };
    for (const NumberRow& row : rows)
        EXPECT_EQ(Parsed(row.items).dev.flags, row.expected) << row.items;
}

TEST(MessageParse, DevtypeKnowsTwoWords)
{
    const NumberRow rows[] = {
        {"DEVTYPE=partition", 1},
        {"DEVTYPE=disk", 2},
        {"DEVTYPE=other", 0},
        {"DEVTYPE=Disk", 0},
        {"DEVTYPE=disks", 0},
        {"DEVTYPE", 0},
        {"DEVTYPE=disk,DEVTYPE=other", 2},
        {"DEVTYPE=disk,DEVTYPE=partition", 1},
    };
    for (const NumberRow& row : rows)
        EXPECT_EQ(Parsed(row.items).dev.devtype, row.expected) << row.items;
}

// The second test wins where both match; a text with neither changes nothing.
TEST(MessageParse, SpeedLooksFor480AndThenFor12)
{
    const NumberRow rows[] = {
        {"SPEED=480", 480},
        {"SPEED=12", 12},
        {"SPEED=480 Mb/s", 480},
        {"SPEED=12 Mb/s", 12},
        {"SPEED=1.5", 0},
        {"SPEED=5000", 0},
        {"SPEED=480/12", 12},
        {"SPEED=12/480", 12},
        {"SPEED=4812", 12},
        {"SPEED=x4801", 480},
        {"SPEED=480,SPEED=12", 12},
        {"SPEED=12,SPEED=480", 480},
        {"SPEED=480,SPEED=5000", 480},
        {"SPEED=480,SPEED", 480},
        {"SPEED=", 0},
    };
    for (const NumberRow& row : rows)
        EXPECT_EQ(Parsed(row.items).dev.speed, row.expected) << row.items;
}

// ---- texts ----

struct TextRow {
    const char* items;
    const char* expected;
};

TEST(MessageParse, NamesLoseTheirTrailingBlanks)
{
    const TextRow rows[] = {
        {"VNAME=Acme", "Acme"},
        {"VNAME=Acme   ", "Acme"},
        {"VNAME=Acme \t ", "Acme"},
        {"VNAME=  Acme Inc  ", "  Acme Inc"},
        {"VNAME=A=B", "A=B"},
        {"VNAME=", nullptr},
        {"VNAME", nullptr},
        {"VNAME=   ", nullptr},
        {"VNAME=Acme,VNAME=Other", "Other"},
        {"VNAME=Acme,VNAME=  ", "Acme"},
        {"VNAME=Acme,VNAME=", "Acme"},
        {"VNAME=Acme,VNAME", "Acme"},
    };
    for (const TextRow& row : rows) {
        EXPECT_STREQ(Parsed(row.items).dev.vname, row.expected) << row.items;
        std::string items = row.items;
        for (size_t at = 0; (at = items.find("VNAME", at)) != std::string::npos;)
            items[at] = 'P';
        EXPECT_STREQ(Parsed(items).dev.pname, row.expected) << items;
    }
}

TEST(MessageParse, TheSerialIsTakenAsItIs)
{
    const TextRow rows[] = {
        {"SID=ABC  ", "ABC  "}, {"SID= A=B", " A=B"}, {"SID=A,SID=B", "B"},
        {"SID=", ""},           {"SID", nullptr},     {"SID=A,SID=", ""},
    };
    for (const TextRow& row : rows)
        EXPECT_STREQ(Parsed(row.items).dev.serial, row.expected) << row.items;
}

// Readers of the share file have never seen a port.
TEST(MessageParse, TheUsbPortIsDropped)
{
    const Parsed message("ACTION=add,USBPORT=1-3-2");
    for (const uint8_t port : message.dev.usbport)
        EXPECT_EQ(port, 0);
    EXPECT_STREQ(message.target, "");
}

// ---- words ----

TEST(MessageParse, TheLastUnknownWordIsTheTarget)
{
    const TextRow rows[] = {
        {"ACTION=mount,sda1", "sda1"},
        {"ACTION=mount,sda1,sdb", "sdb"},
        {"ACTION=mount", ""},
        {"ACTION=mount,,,sda,,", "sda"},
        {"ACTION=mount,sda=1", "sda"}, // of an unknown item only the name
        {"ACTION=mount,Sda ", "Sda "},
        {"ACTION=mount,sda,MAJOR=8", "sda"},
        {"ACTION=mount,major=8", "major"}, // names are compared exactly
        {"ACTION=mount,sda,force", "sda"},
        {"ACTION=mount,123456789012345", "123456789012345"},
        {"ACTION=mount,1234567890123456", "123456789012345"}, // 15 characters are kept
        {"ACTION=mount,12345678901234567890,sda", "sda"},
        {"ACTION=mount,sda,=x,sdb", "sda"}, // an item without a name ends the list
    };
    for (const TextRow& row : rows)
        EXPECT_STREQ(Parsed(row.items).target, row.expected) << row.items;
}

TEST(MessageParse, ForceIsAWordOfItsOwn)
{
    const NumberRow rows[] = {
        {"ACTION=unmount,sda", 0},         {"ACTION=unmount,sda,force", 1},
        {"ACTION=unmount,force,sda", 1},   {"ACTION=unmount,force", 1},
        {"ACTION=unmount,sda,Force", 0},   {"ACTION=unmount,sda,forced", 0},
        {"ACTION=unmount,sda,force=0", 1}, // it is the name that counts
    };
    for (const NumberRow& row : rows)
        EXPECT_EQ(Parsed(row.items).force, row.expected) << row.items;
}

TEST(MessageParse, ForceIsNoTarget)
{
    EXPECT_STREQ(Parsed("ACTION=unmount,force").target, "");
}

TEST(MessageParse, EveryItemIsLoggedForDebugging)
{
    const Parsed message("ACTION=mount,sda");
    const std::vector<FakeLogLine> lines = fake_log_lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text, "getopt(243)ACTION=mount");
    EXPECT_EQ(lines[1].text, "getopt(245)sda");
}

TEST(MessageParse, AnEmptyTextSaysNothing)
{
    const Parsed message("");
    EXPECT_EQ(message.dev.range, 16);
    EXPECT_STREQ(message.target, "");
}

TEST(MessageClear, MayBeCalledTwice)
{
    ControlMessage message;
    ASSERT_EQ(message_parse("VNAME=a,PNAME=b,SID=c", &message), 0);
    message_clear(&message);
    EXPECT_EQ(message.dev.vname, nullptr);
    EXPECT_EQ(message.dev.pname, nullptr);
    EXPECT_EQ(message.dev.serial, nullptr);
    message_clear(&message);
}

} // namespace
