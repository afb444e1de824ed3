#include "ctl/settings.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

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

TEST(SettingParse, UsersStandThereOnce)
{
    EXPECT_EQ(value_of("full", "11,1,0,1,11,0"), "11,1,0,");
    EXPECT_EQ(value_of("full", " , root ,,"), "0,");
}

TEST(SettingParse, UsersOfAGroupByItsListAndAsTheirFirst)
{
    write_file("/etc/passwd", "anna:x:1000:100::/:\nben:x:1001:7::/:\ncarl:x:1002:100::/:\n"
                              "big:x:2147483648:100::/:\nmost:x:2147483647:100::/:\n");
    write_file("/etc/group", "music:x:7:anna,gone,ben\nempty:x:8:\nlost:x:9:gone\nbig:x:10:big\n");
    EXPECT_EQ(value_of("full", "@music"), "1000,1001,");
    EXPECT_EQ(value_of("full", "carl,@music"), "1002,1000,1001,");
    EXPECT_EQ(fault_of("full", "@empty"), "nobody is in the group: empty");
    EXPECT_EQ(fault_of("full", "@lost"), "nobody is in the group: lost");
    EXPECT_EQ(value_of("full", "most"), "2147483647,");
    for (const char* text : {"big", "@big"})
        EXPECT_EQ(fault_of("full", text),
                  "has a number beyond 2147483647, which the service does not take: 2147483648");
}

TEST(SettingParse, ALongNameNobodyHasIsRefused)
{
    const std::string most(255, 'u');
    EXPECT_EQ(fault_of("full", most), "no such user: " + most);
    EXPECT_EQ(fault_of("full", most + "u,root").substr(0, 14), "no such user: ");
}

TEST(SettingParse, AUsersNameMayBeVeryLong)
{
    const std::string most(255, 'u');
    write_file("/etc/passwd", most + ":x:5:5::/:\n" + most + "u:x:6:5::/:\n");
    EXPECT_EQ(value_of("full", most + "," + most), "5,");
    EXPECT_NE(fault_of("full", most + "u"), "");
}

TEST(SettingParse, APathBeginsWithASlash)
{
    const std::string most = "/" + std::string(254, 'p');
    EXPECT_EQ(value_of("path", most), most);
    EXPECT_NE(fault_of("path", most + "p"), "");
    EXPECT_EQ(fault_of("path", "srv"), "must begin with /");
    EXPECT_EQ(value_of("path", ""), "");
}

TEST(SettingParse, NoMoreUsersThanTheServiceReads)
{
    std::string text;
    for (int uid = 10000; uid < 10341; uid++)
        text += std::to_string(uid) + ",";
    EXPECT_EQ(value_of("full", text), text); // 2046 bytes
    EXPECT_NE(fault_of("full", text + "10341"), "");
    EXPECT_EQ(value_of("full", text.substr(6) + "100000"), text.substr(6) + "100000,"); // 2047
    EXPECT_NE(fault_of("full", text.substr(6) + "1000000"), "");
}

TEST(SettingFormat, AsManyUsersAsTheValueHolds)
{
    ConfDevGuard record(conf_dev_record_create());
    conf_dev_record_defaults(record.get());
    for (int i = 0; i < 300; i++) {
        auto* user = static_cast<int32_t*>(malloc(sizeof(int32_t)));
        *user = 1234567;
        ASSERT_NE(vylist_insert(record->fullaccessusers, vylist_end(record->fullaccessusers), user),
                  nullptr);
    }
    char value[setting_value_size];
    setting_format(*setting_find("full"), *record.get(), value);
    EXPECT_EQ(strlen(value), 2032U) << "one that may be of eleven digits has room then";
}

TEST(Users, ATerminalObeysNoName)
{
    const std::string longest(80, 'n'); // what is left of it may be somebody else's
    const std::string people = read_file("/etc/passwd");
    write_file("/etc/passwd", people + "e\x1b[2Jve:x:7001:100::/:/bin/sh\n" + longest +
                                  ":x:7002:100::/:/bin/sh\n");
    ConfDevGuard record(conf_dev_record_create());
    conf_dev_record_defaults(record.get());
    for (const int32_t uid : {7001, 7002}) {
        auto* user = static_cast<int32_t*>(malloc(sizeof(int32_t)));
        *user = uid;
        ASSERT_NE(vylist_insert(record->blockusers, vylist_end(record->blockusers), user), nullptr);
    }
    EXPECT_EQ(written_by([&](FILE* out) { users_show(out, record->blockusers, false); }),
              "e\\x1b[2Jve, 7002");
    write_file("/etc/passwd", people);
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

TEST(UserFormat, IsTheNameOrElseTheNumber)
{
    char name[8];
    user_format(0, name, sizeof name);
    EXPECT_STREQ(name, "root");
    user_format(4294, name, sizeof name);
    EXPECT_STREQ(name, "4294");
    user_format(0, name, 3);
    EXPECT_STREQ(name, "0") << "part of a name is none";
}

TEST(SettingAdministrator, EachCodeHasItsWord)
{
    EXPECT_STREQ(setting_administrator(CONF_DEV_ADMIN_FULL), "full");
    EXPECT_STREQ(setting_administrator(CONF_DEV_ADMIN_READONLY), "read-only");
    EXPECT_STREQ(setting_administrator(CONF_DEV_ADMIN_BLOCK), "block");
    EXPECT_STREQ(setting_administrator(CONF_DEV_ADMIN_HIDE), "hide");
    EXPECT_STREQ(setting_administrator(9), "full");
}
