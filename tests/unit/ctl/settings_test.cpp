#include "ctl/settings.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Parsed {
    int result;
    std::string value;
    std::string fault;
};

Parsed parse(const char* word, const std::string& text)
{
    char value[setting_value_size];
    char fault[setting_fault_size];
    const SettingRow* row = setting_find(word);
    EXPECT_NE(row, nullptr) << word;
    const int result = setting_parse(*row, text.c_str(), value, fault);
    return {result, value, fault};
}

std::string value_of(const char* word, const std::string& text)
{
    const Parsed parsed = parse(word, text);
    EXPECT_EQ(parsed.result, 0) << text << ": " << parsed.fault;
    return parsed.value;
}

std::string fault_of(const char* word, const std::string& text)
{
    const Parsed parsed = parse(word, text);
    EXPECT_EQ(parsed.result, -1) << text;
    return parsed.fault;
}

} // namespace

TEST(SettingFind, TakesTheWordAndTheFilesKey)
{
    EXPECT_EQ(setting_find("share"), &setting_rows[0]);
    EXPECT_EQ(setting_find("Share Name"), &setting_rows[0]);
    EXPECT_EQ(setting_find("readonly"), setting_find("read-only"));
    EXPECT_EQ(setting_find("shares"), nullptr);
    EXPECT_EQ(setting_find(""), nullptr);
}

TEST(SettingParse, Switches)
{
    for (const char* word : {"yes", "ON", "enable", "true", "1"})
        EXPECT_EQ(value_of("guest", word), "Enable");
    for (const char* word : {"no", "Off", "disable", "false", "0"})
        EXPECT_EQ(value_of("guest", word), "Disable");
    EXPECT_EQ(fault_of("guest", ""), "is yes or no");
}

TEST(SettingParse, TheAdministrator)
{
    EXPECT_EQ(value_of("administrator", "full"), "");
    EXPECT_EQ(value_of("administrator", "RO"), "ReadOnly");
    EXPECT_EQ(value_of("administrator", "hide"), "Hide");
    EXPECT_NE(fault_of("administrator", "none"), "");
}

TEST(SettingParse, TextsOfTheirLength)
{
    EXPECT_EQ(value_of("share", std::string(34, 'a')), std::string(34, 'a'));
    EXPECT_EQ(fault_of("share", std::string(33, 'a') + "ä"),
              "has 35 bytes, and 34 are kept; this fits: \"" + std::string(33, 'a') + "\"");
    EXPECT_EQ(value_of("comment", std::string(63, 'c')), std::string(63, 'c'));
    EXPECT_NE(fault_of("comment", std::string(10000, 'c')), "");
    EXPECT_EQ(value_of("share", ""), "");
    for (const char* text : {" a", "a ", "a\tb", "a\xff", "[a", "a]"})
        EXPECT_NE(fault_of("share", text), "") << text;
    EXPECT_EQ(value_of("comment", "[a]"), "[a]");
}

TEST(SettingParse, UsersByNameAndNumber)
{
    EXPECT_EQ(value_of("full", "root, daemon,0,1"), "0,1,");
    EXPECT_EQ(value_of("full", ""), "");
    EXPECT_EQ(value_of("full", "@daemon"), "1,");
    EXPECT_EQ(fault_of("full", "root,nobody-here"), "no such user: nobody-here");
    EXPECT_EQ(fault_of("full", "@nobody-here"), "no such group: nobody-here");
    EXPECT_EQ(fault_of("full", "-7"), "no such user: -7");
    EXPECT_EQ(fault_of("full", "99999999999"), "no such user: 99999999999");
    const Parsed unknown = parse("full", "4294");
    EXPECT_EQ(unknown.value, "4294,");
    EXPECT_EQ(unknown.fault, "nobody has the number 4294");
}

TEST(SettingParse, NoMoreUsersThanTheServiceReads)
{
    std::string text;
    for (int uid = 10000; uid < 10341; uid++)
        text += std::to_string(uid) + ",";
    EXPECT_EQ(value_of("full", text), text); // 2046 bytes
    EXPECT_NE(fault_of("full", text + "10341"), "");
}

TEST(SettingFormat, OneFormForWhatIsEqual)
{
    ConfDevGuard record(conf_dev_record_create());
    conf_dev_record_defaults(record.get());
    char value[setting_value_size];
    for (const SettingRow& row : setting_rows) {
        setting_format(row, *record.get(), value);
        const char* expected = row.kind == SETTING_SWITCH ? "no"
                               : row.kind == SETTING_WORD ? "full"
                                                          : "";
        EXPECT_STREQ(value, expected) << row.word;
    }
    record->administrator = CONF_DEV_ADMIN_READONLY;
    setting_format(*setting_find("administrator"), *record.get(), value);
    EXPECT_STREQ(value, "read-only");
}
