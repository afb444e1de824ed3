#include "ctl/rules.h"

#include "fake/fake_world.h"
#include "support/files.h"
#include "unit/ctl/made_view.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <string>

namespace {

// A share called Music, people, and a Samba that anna has a password of.
class RulesTest : public testing::Test {
  protected:
    void SetUp() override
    {
        view_.add("sda1", "a:1", ITEM_SHARED).share = view_.text("Music");
        write_file("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\nanna:x:1000:1::/:/bin/sh\n"
                                  "ben:x:1001:1::/:/bin/sh\ncarl:x:1002:1::/:/bin/sh\n");
        ASSERT_EQ(mount("x", "/usr/local/sbin", "tmpfs", 0, nullptr), 0);
        write_file("/usr/local/sbin/pdbedit", "");
        ASSERT_EQ(chmod("/usr/local/sbin/pdbedit", 0755), 0);
        fake_world().programs["/usr/local/sbin/pdbedit"].assign(9, {0, 0, "anna:1000:\n"});
    }

    // What is told of a value; its result and the value are in `result_` and `value_`.
    std::string told(const char* word, const char* text)
    {
        testing::internal::CaptureStderr();
        result_ = rules_parse(view_.view, "b:1", *setting_find(word), text, value_);
        return testing::internal::GetCapturedStderr();
    }

    MadeView view_;
    char value_[setting_value_size] = "";
    int result_ = 0;
};

} // namespace

TEST_F(RulesTest, UsersWithoutAPasswordAreToldOf)
{
    EXPECT_EQ(told("full", "anna,ben,carl"),
              "vyhotplugctl: note: full: ben has no Samba password; smbpasswd -a ben\n"
              "vyhotplugctl: note: full: carl has no Samba password; smbpasswd -a carl\n");
    EXPECT_EQ(result_, 0);
    EXPECT_STREQ(value_, "1000,1001,1002,");
    EXPECT_EQ(told("readers", "ben"),
              "vyhotplugctl: note: readers: ben has no Samba password; smbpasswd -a ben\n");
    EXPECT_EQ(fake_world().count("spawn"), 2);
}

TEST_F(RulesTest, WhoMayNotEnterNeedsNone)
{
    for (const char* word : {"blocked", "hidden"})
        EXPECT_EQ(told(word, "ben"), "") << word;
    EXPECT_EQ(told("full", ""), "");
    EXPECT_EQ(fake_world().count("spawn"), 0) << "which takes its time";
}

TEST_F(RulesTest, WithoutAnAnswerNothingIsSaid)
{
    fake_world().programs.clear();
    EXPECT_EQ(told("full", "ben"), "");
    EXPECT_EQ(result_, 0);
}

TEST_F(RulesTest, AFaultIsToldAndNothingElse)
{
    EXPECT_EQ(told("full", "nobody-here"), "vyhotplugctl: full: no such user: nobody-here\n");
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(told("share", "a\033b"),
              "vyhotplugctl: share: holds a control character, or bytes that are not UTF-8\n");
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(fake_world().count("spawn"), 0);
}

TEST_F(RulesTest, ANameThatAnotherShareHasIsRefused)
{
    EXPECT_EQ(told("share", "music"),
              "vyhotplugctl: share: another share has that name, of sda1; of two with one name "
              "only one is shared\n");
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(told("comment", "Music"), "");
    EXPECT_EQ(result_, 0);
    EXPECT_EQ(told("share", ""), "");
    EXPECT_EQ(result_, 0);
    EXPECT_EQ(told("share", "Songs"), "");
    EXPECT_EQ(result_, 0);
    EXPECT_STREQ(value_, "Songs");
}
