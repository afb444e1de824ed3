#include "agent/add_message.h"

#include "common/text.h"
#include "lib/str.h"

#include <gtest/gtest.h>
#include <string.h>

static constexpr size_t most = agent_message_size - 1;

static void put(char* field, size_t size, const std::string& text)
{
    str_ncpy(field, text.c_str(), static_cast<int32_t>(size));
}

#define PUT(field, text) put((field), sizeof(field), (text))

// A device and what it has in common with the others of its disk.
struct Whole : BlockDevice, BlockHardware {};

static Whole stick()
{
    Whole device = {};
    EXPECT_TRUE(block_name_parse("sda1", &device.name));
    device.major = 8;
    device.minor = 1;
    PUT(device.range, "16");
    PUT(device.removable, "1");
    PUT(device.readonly, "0");
    PUT(device.vid, "1234");
    PUT(device.pid, "00ab");
    PUT(device.serial, "ABC");
    PUT(device.vname, "Acme");
    PUT(device.pname, "FlashKey");
    PUT(device.speed, "480");
    return device;
}

static std::string message(const Whole& whole)
{
    char text[agent_message_size];
    BlockDevice device = whole;
    device.hardware = &whole;
    const size_t length = add_message_format(device, text);
    EXPECT_EQ(strlen(text), length);
    EXPECT_LE(length, most);
    return text;
}

// The value of an item; "(none)" without one.
static std::string item(const Whole& device, const std::string& key)
{
    const std::string text = message(device) + ",";
    const size_t at = text.find("," + key + "=");
    if (at == std::string::npos)
        return "(none)";
    const size_t begin = at + key.size() + 2;
    return text.substr(begin, text.find(',', begin) - begin);
}

TEST(AddMessage, TellsAllOfAStick)
{
    EXPECT_EQ(message(stick()), "ACTION=add,MAJOR=8,MINOR=1,DEVTYPE=partition,RANGE=16,RM=1,RO=0,"
                                "VID=1234,PID=00ab,SID=ABC,VNAME=Acme,PNAME=FlashKey,SPEED=480");
}

TEST(AddMessage, CallsAWholeDiskOne)
{
    Whole device = stick();
    device.name.partition = 0;
    device.minor = 0;
    EXPECT_EQ(item(device, "DEVTYPE"), "disk");
}

TEST(AddMessage, LeavesOutWhatTheDeviceDoesNotHave)
{
    Whole device = {};
    ASSERT_TRUE(block_name_parse("mmcblk0", &device.name));
    device.major = 179;
    EXPECT_EQ(message(device), "ACTION=add,MAJOR=179,MINOR=0,DEVTYPE=disk");
    PUT(device.serial, "0x1f2e3d4c");
    PUT(device.pname, "SD32G");
    PUT(device.range, "8");
    EXPECT_EQ(message(device),
              "ACTION=add,MAJOR=179,MINOR=0,DEVTYPE=disk,RANGE=8,SID=0x1f2e3d4c,PNAME=SD32G");
}

TEST(AddMessage, LeavesOutARangeThatIsNone)
{
    const struct {
        const char* range;
        const char* item;
    } rows[] = {{"1", "1"},        {"16", "16"},      {"255", "255"},    {"256", "(none)"},
                {"300", "(none)"}, {"999", "(none)"}, {"0", "(none)"},   {"016", "(none)"},
                {"-1", "(none)"},  {"+16", "(none)"}, {"16x", "(none)"}, {"1048576", "(none)"},
                {"x", "(none)"},   {"", "(none)"},    {"1,2", "(none)"}};
    for (const auto& row : rows) {
        Whole device = stick();
        PUT(device.range, row.range);
        EXPECT_EQ(item(device, "RANGE"), row.item) << row.range;
    }
}

TEST(AddMessage, LeavesOutWhatIsNeitherYesNorNo)
{
    const struct {
        const char* text;
        const char* item;
    } rows[] = {{"0", "0"},      {"1", "1"},       {"2", "(none)"}, {"", "(none)"},
                {"y", "(none)"}, {"10", "(none)"}, {"-1", "(none)"}};
    for (const auto& row : rows) {
        Whole device = stick();
        PUT(device.removable, row.text);
        PUT(device.readonly, row.text);
        EXPECT_EQ(item(device, "RM"), row.item) << row.text;
        EXPECT_EQ(item(device, "RO"), row.item) << row.text;
    }
}

TEST(AddMessage, LeavesOutIdsThatAreNotHexadecimal)
{
    const struct {
        const char* id;
        const char* item;
    } rows[] = {{"abcd", "abcd"},   {"ABCD", "ABCD"},   {"1", "1"},
                {" 12 ", "12"},     {"", "(none)"},     {"12345", "(none)"},
                {"12g4", "(none)"}, {"0x12", "(none)"}, {"-123", "(none)"},
                {"1,2", "(none)"},  {"12 4", "(none)"}, {"\xc3\xa4", "(none)"}};
    for (const auto& row : rows) {
        Whole device = stick();
        PUT(device.vid, row.id);
        PUT(device.pid, row.id);
        EXPECT_EQ(item(device, "VID"), row.item) << row.id;
        EXPECT_EQ(item(device, "PID"), row.item) << row.id;
    }
}

TEST(AddMessage, LeavesOutASpeedThatIsNone)
{
    const struct {
        const char* speed;
        const char* item;
    } rows[] = {{"1.5", "1.5"},        {"12", "12"},       {"5000", "5000"},
                {"20000", "20000"},    {"fast", "(none)"}, {"", "(none)"},
                {"480Mbit", "(none)"}, {".5", "(none)"},   {"12345678", "(none)"},
                {"-12", "(none)"},     {"1,2", "(none)"}};
    for (const auto& row : rows) {
        Whole device = stick();
        PUT(device.speed, row.speed);
        EXPECT_EQ(item(device, "SPEED"), row.item) << row.speed;
    }
}

TEST(AddMessage, CleansTextsOfTheDevice)
{
    const struct {
        const char* text;
        const char* clean;
    } rows[] = {
        {"  padded \t ", "padded"},
        {"a,b", "a_b"},
        {",,", "__"},
        {"x\ny\rz\x1b", "x_y_z_"},
        {"\x7f", "_"},
        {"=force", "_force"},
        {"  =x", "_x"},
        {"a=b", "a=b"},
        {"==", "_="},
        {"[x]", "_x_"},
        {"a]b[c", "a_b_c"},
        {"\xff\xfe", "__"},
        {"\xc3", "_"},
        {"\xe2\x82", "__"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
        {"\xc2\x80", "_"},
        {"\xc0\xaf", "__"},
        {"x,ACTION=remove", "x_ACTION=remove"},
        {"   ", "(none)"},
        {"", "(none)"},
    };
    for (const auto& row : rows) {
        Whole device = stick();
        PUT(device.serial, row.text);
        PUT(device.vname, row.text);
        PUT(device.pname, row.text);
        for (const char* key : {"SID", "VNAME", "PNAME"})
            EXPECT_EQ(item(device, key), row.clean) << key << " " << row.text;
    }
}

TEST(AddMessage, KeepsOneItemForEachItem)
{
    Whole device = stick();
    PUT(device.serial, "a,b,c,=,d\n,");
    PUT(device.vname, ",,,,");
    PUT(device.pname, "MAJOR=9,MINOR=9");
    const std::string text = message(device);
    EXPECT_EQ(std::count(text.begin(), text.end(), ','), 12);
    EXPECT_EQ(text.find(",="), std::string::npos);
}

// The length that all but the two names takes.
static size_t length_without_names()
{
    Whole device = stick();
    PUT(device.vname, "v");
    PUT(device.pname, "p");
    return message(device).size() - 2;
}

TEST(AddMessage, TakesNamesThatFitExactly)
{
    const size_t room = most - length_without_names();
    Whole device = stick();
    PUT(device.vname, std::string(room - 300, 'v'));
    PUT(device.pname, std::string(300, 'p'));
    EXPECT_EQ(message(device).size(), most);
    EXPECT_EQ(item(device, "PNAME").size(), 300U);
    EXPECT_EQ(item(device, "VNAME").size(), room - 300);
}

TEST(AddMessage, ShortensTheLongerNameFirst)
{
    const size_t room = most - length_without_names();
    Whole device = stick();
    PUT(device.vname, std::string(100, 'v'));
    PUT(device.pname, std::string(room - 100 + 1, 'p'));
    EXPECT_EQ(message(device).size(), most);
    EXPECT_EQ(item(device, "VNAME").size(), 100U);
    EXPECT_EQ(item(device, "PNAME").size(), room - 100);
}

TEST(AddMessage, ShortensBothNamesWhereBothAreLong)
{
    const size_t room = most - length_without_names();
    Whole device = stick();
    PUT(device.vname, std::string(378, 'v'));
    PUT(device.pname, std::string(378, 'p'));
    EXPECT_EQ(message(device).size(), most);
    const auto vendor = static_cast<long>(item(device, "VNAME").size());
    const auto product = static_cast<long>(item(device, "PNAME").size());
    EXPECT_EQ(vendor + product, static_cast<long>(room));
    EXPECT_LE(labs(vendor - product), 1);
}

TEST(AddMessage, ShortensAtWholeCharacters)
{
    for (const char* character : {"\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x92\xbe"}) {
        for (size_t offset = 0; offset < 4; offset++) {
            Whole device = stick();
            std::string name(offset, 'x');
            while (name.size() + strlen(character) < agent_text_size - 1)
                name += character;
            PUT(device.pname, name);
            PUT(device.vname, name);
            const std::string text = message(device);
            EXPECT_GT(text.size(), most - 8);
            for (const char* at = text.c_str(); *at != '\0'; at += text_sequence(at))
                ASSERT_NE(text_sequence(at), 0U) << text;
        }
    }
}

TEST(AddMessage, LeavesNoBlankWhereItCuts)
{
    Whole device = stick();
    std::string name;
    while (name.size() < 370)
        name += "a ";
    PUT(device.pname, name + "a");
    PUT(device.vname, name + "a");
    for (const char* key : {"VNAME", "PNAME"})
        EXPECT_EQ(item(device, key).back(), 'a');
}

TEST(AddMessage, KeepsTheLongestSerialWhole)
{
    std::string serial;
    for (int i = 0; i < 126; i++)
        serial += "\xe2\x82\xac";
    Whole device = stick();
    device.minor = 1048575;
    PUT(device.serial, serial);
    PUT(device.vname, std::string(378, 'v'));
    PUT(device.pname, std::string(378, 'p'));
    EXPECT_EQ(item(device, "SID"), serial);
    EXPECT_EQ(item(device, "SPEED"), "480");
    EXPECT_EQ(item(device, "MINOR"), "1048575");
    PUT(device.speed, "1000000");
    PUT(device.range, "255");
    EXPECT_EQ(item(device, "SID"), serial);
    EXPECT_EQ(item(device, "SPEED"), "1000000");
}

TEST(AddMessage, HasRoomForTheLongestSerialThatItCanBeGiven)
{
    Whole device = stick();
    device.minor = 1048575;
    device.major = 4095;
    PUT(device.range, "255");
    PUT(device.speed, "1000000");
    PUT(device.serial, std::string(5000, 's'));
    PUT(device.vname, std::string(378, 'v'));
    PUT(device.pname, std::string(378, 'p'));
    EXPECT_EQ(item(device, "SID"), std::string(agent_text_size - 1, 's'));
    EXPECT_EQ(item(device, "SPEED"), "1000000");
    EXPECT_EQ(item(device, "VNAME"), "(none)");
    EXPECT_EQ(item(device, "PNAME"), "(none)");
}

TEST(RemoveMessage, HasTheNumbers)
{
    char text[agent_message_size];
    EXPECT_EQ(remove_message_format(8, 17, text), strlen("ACTION=remove,MAJOR=8,MINOR=17"));
    EXPECT_STREQ(text, "ACTION=remove,MAJOR=8,MINOR=17");
}
