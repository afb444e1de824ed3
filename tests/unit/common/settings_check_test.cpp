#include "common/settings_check.h"

#include <gtest/gtest.h>
#include <string.h>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

static void note(void* context, const Finding& finding)
{
    char text[finding_text_size];
    finding_format(finding, text);
    static_cast<Texts*>(context)->push_back(std::to_string(finding.line) + ":" + text);
}

static bool look_up(const char* name, uint32_t* id)
{
    *id = 1001;
    return strcmp(name, "anna") == 0;
}

static Texts check(const std::string& text, UserLookup lookup = look_up)
{
    Texts found;
    const int count = settings_check(text.data(), text.size(), lookup, note, &found);
    EXPECT_EQ(count, static_cast<int>(found.size()));
    return found;
}

static Texts check_line(const std::string& line)
{
    return check("[1:2:3:1]\n" + line + "\n");
}

TEST(SettingsCheck, FindsNothingWhereNothingIsWrong)
{
    EXPECT_EQ(check(""), Texts{});
    EXPECT_EQ(check("defualtgid=before any section\n"
                    "[1:2:3:1]\nShare Name=a=b\nPath=/x\nComment=\nFile System=DefFS\nSync=Enable\n"
                    "Read Only=Disable\nGuest Access=0\nGuest Hide=1\nAdministrator=ReadOnly\n"
                    "Full Access Users=500,501,\nRead Only Users=\nBlock Users=500, 501\n"
                    "Hide Users=0,2147483647,,00007\n"
                    "[x]\nfile system = vfat\nadministrator=ro\npath=\nadministrator=\n"),
              Texts{});
}

TEST(SettingsCheck, TellsEachMistake)
{
    static constexpr struct {
        const char* line;
        const char* told;
    } rows[] = {
        {"Full Access Users=anna",
         "FullAccessUsers: anna is no user id, write 1001 for anna; it is passed over"},
        {"Full Access Users=500, anna ,501",
         "FullAccessUsers: anna is no user id, write 1001 for anna; it is passed over"},
        {"hide users=bert", "hideusers: bert is no user id; it is passed over"},
        {"Block Users=500 ,501", "BlockUsers: 500 is no user id, write 500 without a blank behind "
                                 "it; it is passed over"},
        {"Read Only Users=-7", "ReadOnlyUsers: -7 is no user id; 7 is taken"},
        {"Read Only Users=user12,1", "ReadOnlyUsers: user12 is no user id; 12 is taken"},
        {"Read Only Users=500 501", "ReadOnlyUsers: 500 501 is no user id; 501 is taken"},
        {"Read Only Users=a99999999999", "ReadOnlyUsers: a99999999999 is no user id; it is passed "
                                         "over"},
        {"Read Only Users=2147483648", "ReadOnlyUsers: 2147483648 is out of range, accepted: 0 to "
                                       "2147483647; it is passed over"},
        {"Full Acess Users=500", "FullAcessUsers is no key, write fullaccessusers; it is passed "
                                 "over"},
        {"Read Only=yes",
         "ReadOnly: yes is no word for it, accepted: enable, disable; disable is taken"},
        {"Guest Hide=enabled", "GuestHide: enabled is no word for it, write enable; disable is "
                               "taken"},
        {"Administrator=Blok",
         "Administrator: Blok is no word for it, write block; full access is taken"},
        {"File System=ext5", "FileSystem: ext5 is no word for it, write ext2; deffs is taken"},
        {"Path=etc", "Path: etc does not begin with a slash; nothing of this device is taken"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(check_line(row.line), Texts{std::string("2:[1:2:3:1] ") + row.told});
}

TEST(SettingsCheck, SeveralNamesAreToldOneByOne)
{
    EXPECT_EQ(check_line("Full Access Users=anna,bert,3").size(), 2U);
    EXPECT_EQ(check("[a]\nblock users=x\n[b]\nblock users=y\n"),
              (Texts{"2:[a] blockusers: x is no user id; it is passed over",
                     "4:[b] blockusers: y is no user id; it is passed over"}));
}

TEST(SettingsCheck, WithoutALookupNoNumberIsTold)
{
    EXPECT_EQ(check("[a]\nblock users=anna\n", nullptr),
              Texts{"2:[a] blockusers: anna is no user id; it is passed over"});
}

TEST(SettingsCheck, WhatItShowsIsHarmless)
{
    const UserLookup anybody = [](const char*, uint32_t* id) {
        *id = 7;
        return true;
    };
    EXPECT_EQ(check("[a\x1b]\nblock\x1b users=b\n[a]\nblock users=b\x1b\n", anybody),
              (Texts{"2:[a_] block_users is no key, write blockusers; it is passed over",
                     "4:[a] blockusers: b_ is no user id, write 7 for b_; it is passed over"}));
}

TEST(SettingsCheck, LongWordsFit)
{
    const std::string name(600, 'n');
    EXPECT_EQ(check_line("Block Users=" + name).size(), 1U);
    EXPECT_EQ(check_line("Block Users=" + std::string(600, '1')).size(), 1U);
    EXPECT_EQ(check("[" + name + "]\n" + name + "=1\n").size(), 1U);
}
