#include "prepare/settings_loss.h"

#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <string>

static bool lost(const std::string& before, const std::string& after)
{
    return settings_lost(before.data(), before.size(), after.data(), after.size());
}

static bool lost_line(const std::string& before, const std::string& after)
{
    return lost("[a]\n" + before + "\n", "[b]\nshare name=b\n[a]\n" + after + "\n");
}

TEST(SettingsLost, OfWholeSections)
{
    EXPECT_FALSE(lost("", ""));
    EXPECT_FALSE(lost("", "[a]\nshare name=x\n"));
    EXPECT_TRUE(lost("[a]\nshare name=x\n", ""));
    EXPECT_FALSE(lost("[a]\nshare name=\nread only=disable\nfile system=FAT\nblock users=\n", ""));
    EXPECT_TRUE(lost("[b]\n[a]\nshare name=x\n", "[b]\n"));
    EXPECT_FALSE(lost("[A]\nshare name=x\n", "[a]\nShareName= x\n"));
}

TEST(SettingsLost, OfSingleLines)
{
    static constexpr struct {
        const char* before;
        const char* after;
        bool lost;
    } rows[] = {
        {"share name=Music", "Share Name=Music", false},
        {"share name=Music", "share name=music", true},
        {"share name=Music", "share name=", true},
        {"path=/a", "path=/b", true},
        {"comment=x", "", true},
        {"comment=", "comment=x", false},
        {"read only=1", "Read Only=Enable", false},
        {"read only=enable", "read only=disable", true},
        {"read only=enable", "", true},
        {"read only=0", "read only=enable", false},
        {"guest hide=yes", "guest hide=Disable", true},
        {"guest hide=yes", "guest hide=YES", false},
        {"guest access=", "", false},
        {"sync=enable", "", true},
        {"administrator=ro", "Administrator=ReadOnly", false},
        {"administrator=hide", "Administrator=block", true},
        {"administrator=hide", "", true},
        {"full access users=500, 501", "Full Access Users=500,501,", false},
        {"full access users=500,501", "Full Access Users=501,502,500", false},
        {"full access users=500,501", "Full Access Users=500", true},
        {"full access users=anna", "Full Access Users=", true},
        {"read only users=5", "read only users=55", true},
        {"block users=,,", "", false},
        {"hide users=5", "block users=5", true},
        {"file system=ntfs", "file system=DefFS", false},
        {"anything=x", "", false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(lost_line(row.before, row.after), row.lost) << row.before << " / " << row.after;
}

TEST(SettingsLost, WithoutMemoryTheyCountAsLost)
{
    const std::string text = "[a]\nshare name=x\nread only=1\nblock users=1\n";
    int nth = 0;
    bool struck = true;
    while (struck) {
        memory_fail(++nth);
        const bool result = settings_lost(text.data(), text.size(), text.data(), text.size());
        struck = memory_failed();
        EXPECT_EQ(result, struck) << nth;
    }
    EXPECT_GT(nth, 10);
}
