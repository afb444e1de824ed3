// Links of shares' names, on a table of mounts and a share file of the test's.
#include "agent/by_share.h"

#include "fake/fake_log.h"
#include "fake_sysfs.h"
#include "support/failing_calls.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

namespace fs = std::filesystem;

using Links = std::map<std::string, std::string>;

// ---- names ----

TEST(ByShareName, IsAFilesName)
{
    const struct {
        const char* share;
        const char* name; // "" for none
    } rows[] = {
        {"HOLIDAY(A1)", "HOLIDAY(A1)"},
        {"Größe 5 😀", "Größe 5 😀"},
        {"a/b", "a_b"},
        {"../../etc/passwd", "_._.._etc_passwd"},
        {"..", "_."},
        {".", "_"},
        {".hidden", "_hidden"},
        {"/", "_"},
        {"a\x1b[31m\xff\n", "a_[31m__"},
        {"  blanks ", "blanks"},
        {"", ""},
        {"   ", ""},
    };
    for (const auto& row : rows) {
        char name[by_share_name_size];
        EXPECT_EQ(by_share_name(row.share, name), row.name[0] != '\0') << row.share;
        EXPECT_STREQ(name, row.name) << row.share;
    }
}

TEST(ByShareName, IsCutBetweenCharacters)
{
    std::string share;
    for (int i = 0; i < 200; i++)
        share += "ä";
    char name[by_share_name_size];
    EXPECT_TRUE(by_share_name(share.c_str(), name));
    EXPECT_EQ(strlen(name), 254U);
}

TEST(BySharePlace, LiesDirectlyInTheDirectory)
{
    const char* directory = "/media/vyhotplug";
    EXPECT_STREQ(by_share_place("/media/vyhotplug/sda1", directory), "sda1");
    EXPECT_STREQ(by_share_place("//media//vyhotplug//sda1", directory), "sda1");
    for (const char* path :
         {"/media/vyhotplug", "/media/vyhotplug/", "/media/vyhotplug/a/b", "/media/vyhotplug/..",
          "/media/vyhotplug/.x", "/media", "/etc", "", "sda1", "/media/vyhotplugx/sda1",
          "/media/vyhotplug/sda1/", "/media/vyhotplug/a-name-that-is-far-too-long-for-a-device"})
        EXPECT_EQ(by_share_place(path, directory), nullptr) << path;
}

// ---- links ----

class ByShareTest : public testing::Test {
  protected:
    static constexpr char mounts[] = "/tmp/mounts";
    static constexpr char folder[] = "/tmp/mounts/by-share";
    static constexpr char shares[] = "/tmp/files/shares";
    static constexpr char config[] = "/tmp/vyhotplugd.conf";

    ByShareTest()
    {
        settings_.proc = FakeSysfs::proc;
        settings_.mounts = mounts;
        settings_.config = config;
        settings_.by_share = true;
        for (const char* place : {"/tmp/mounts/sda1", "/tmp/mounts/sdb1", "/tmp/files"})
            fs::create_directories(place);
        write_file(config, std::string("smbconfigpath = ") + shares + "\n");
        sysfs_.set_mounts({"8:1 /tmp/mounts/sda1 /dev/sda1", "8:17 /tmp/mounts/sdb1 /dev/sdb1"});
        fake_log_clear();
        by_share_watch(&links_, &settings_);
    }
    ~ByShareTest() override
    {
        by_share_close(&links_);
        for (const char* place : {mounts, "/tmp/files", config})
            fs::remove_all(place);
    }

    // Replaces the share file, as the service does.
    void share(const std::string& text)
    {
        write_file("/tmp/shares.tmp", text);
        fs::rename("/tmp/shares.tmp", shares);
        update();
    }

    static std::string section(const std::string& name, const std::string& place)
    {
        return "[" + name + "]\nIdentifier=x\nPath=/tmp/mounts/" + place + "\n\n";
    }

    void update()
    {
        pollfd changes = {.fd = by_share_descriptor(&links_), .events = POLLIN, .revents = 0};
        if (poll(&changes, 1, 0) > 0)
            by_share_take_changes(&links_);
        by_share_advance(&links_, now_);
    }

    void mounts_change(const std::vector<std::string>& lines)
    {
        sysfs_.set_mounts(lines);
        by_share_mounts_changed(&links_);
        update();
    }

    static Links found()
    {
        Links links;
        if (!fs::exists(folder))
            return {{"no", "folder"}};
        for (const auto& entry : fs::directory_iterator(folder))
            links[entry.path().filename()] =
                entry.is_symlink() ? fs::read_symlink(entry.path()).string() : "other";
        return links;
    }

    FakeSysfs sysfs_;
    AgentSettings settings_;
    ByShare links_;
    uint64_t now_ = 1000;
};

TEST_F(ByShareTest, AreMadeAndRemovedWithTheShares)
{
    update();
    EXPECT_EQ(found(), (Links{{"no", "folder"}}));
    share(section("HOLIDAY(A1)", "sda1") + section("b/ü", "sdb1"));
    EXPECT_EQ(found(), (Links{{"HOLIDAY(A1)", "../sda1"}, {"b_ü", "../sdb1"}}));
    struct stat status;
    ASSERT_EQ(lstat(folder, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0755U);
    share(section("b/ü", "sdb1") + "[HOLIDAY(A1)]\n");
    EXPECT_EQ(found(), (Links{{"b_ü", "../sdb1"}})) << "a share that is withdrawn";
    share("");
    EXPECT_EQ(found(), (Links{{"no", "folder"}}));
}

// The service appends to its file before it unmounts.
TEST_F(ByShareTest, AreRemovedWhenTheShareIsWithdrawnInPlace)
{
    const std::string before = section("HOLIDAY", "sda1") + section("WORK", "sdb1");
    share(before);
    write_file(shares, before + "[HOLIDAY]\n");
    update();
    EXPECT_EQ(found(), (Links{{"WORK", "../sdb1"}}));
}

TEST_F(ByShareTest, FollowTheShareToAnotherPlace)
{
    share(section("HOLIDAY", "sda1"));
    share(section("HOLIDAY", "sdb1"));
    EXPECT_EQ(found(), (Links{{"HOLIDAY", "../sdb1"}}));
}

TEST_F(ByShareTest, AreNeverThereWithoutAMount)
{
    share(section("HOLIDAY", "sda1") + section("WORK", "sdb1") + section("NONE", "sdc1"));
    mounts_change({"8:17 /tmp/mounts/sdb1 /dev/sdb1"});
    EXPECT_EQ(found(), (Links{{"WORK", "../sdb1"}}));
    mounts_change({"8:1 /tmp/mounts/sda1/below /dev/sda1"});
    EXPECT_EQ(found(), (Links{{"no", "folder"}}));
}

TEST_F(ByShareTest, LeadNowhereElse)
{
    share("[fixed]\nPath=/etc\n[up]\nPath=/tmp/mounts/../mounts/sda1\n[no path]\nX=1\n"
          "[../../etc/evil]\nPath=/tmp/mounts/sda1\n");
    EXPECT_EQ(found(), (Links{{"_._.._etc_evil", "../sda1"}}));
}

TEST_F(ByShareTest, TheFirstOfNamesThatComeOutAlikeHasIt)
{
    share(section("a/b", "sda1") + section("a_b", "sdb1"));
    EXPECT_EQ(found(), (Links{{"a_b", "../sda1"}}));
}

TEST_F(ByShareTest, LeaveAloneWhatIsNoLink)
{
    fs::create_directories(std::string(folder) + "/mine");
    write_file(std::string(folder) + "/HOLIDAY", "x");
    share(section("HOLIDAY", "sda1"));
    EXPECT_EQ(found(), (Links{{"HOLIDAY", "other"}, {"mine", "other"}}));
    EXPECT_EQ(
        fake_log_texts(),
        std::vector<std::string>{"by_share(#)/tmp/mounts/by-share is not up to date: File exists"});
    share(section("WORK", "sda1"));
    EXPECT_EQ(found(), (Links{{"HOLIDAY", "other"}, {"WORK", "../sda1"}, {"mine", "other"}}));
}

TEST_F(ByShareTest, DoNotFollowADirectoryThatIsALink)
{
    fs::create_directories("/tmp/elsewhere");
    fs::create_directory_symlink("/tmp/elsewhere", folder);
    share(section("HOLIDAY", "sda1"));
    EXPECT_TRUE(fs::is_empty("/tmp/elsewhere"));
    EXPECT_EQ(fake_log_texts().size(), 1U);
    fs::remove_all("/tmp/elsewhere");
}

TEST_F(ByShareTest, TakeAwayWhatAnEarlierAgentLeft)
{
    fs::create_directories(folder);
    fs::create_symlink("../gone", std::string(folder) + "/OLD");
    fs::create_symlink("../gone", std::string(folder) + "/.making");
    share(section("HOLIDAY", "sda1"));
    EXPECT_EQ(found(), (Links{{"HOLIDAY", "../sda1"}}));
}

TEST_F(ByShareTest, GoWithTheAgent)
{
    share(section("HOLIDAY", "sda1"));
    by_share_close(&links_);
    EXPECT_FALSE(exists(folder));
}

TEST_F(ByShareTest, GoWithTheAgentThoughTheConfigurationHasGoneBefore)
{
    share(section("HOLIDAY", "sda1"));
    fs::remove(config);
    by_share_watch(&links_, &settings_);
    by_share_close(&links_);
    EXPECT_FALSE(exists(folder));
}

TEST_F(ByShareTest, AreNotThereUnlessTheyAreWanted)
{
    settings_.by_share = false;
    by_share_watch(&links_, &settings_);
    share(section("HOLIDAY", "sda1"));
    EXPECT_EQ(found(), (Links{{"no", "folder"}}));
    EXPECT_EQ(by_share_descriptor(&links_), -1);
}

TEST_F(ByShareTest, WithoutAShareFileOrAConfigurationThereAreNone)
{
    share(section("HOLIDAY", "sda1"));
    fs::remove(shares);
    update();
    EXPECT_EQ(found(), (Links{{"no", "folder"}}));
    fs::remove(config);
    by_share_watch(&links_, &settings_);
    share(section("HOLIDAY", "sda1"));
    EXPECT_EQ(found(), (Links{{"no", "folder"}}));
}

TEST_F(ByShareTest, StayAsTheyAreWhereTheTableOfMountsCannotBeRead)
{
    share(section("HOLIDAY", "sda1"));
    fs::remove(std::string(FakeSysfs::proc) + "/self/mountinfo");
    by_share_mounts_changed(&links_);
    update();
    EXPECT_EQ(found(), (Links{{"HOLIDAY", "../sda1"}}));
}

TEST_F(ByShareTest, AreBroughtUpToDateAMinuteLaterWhereThatFailed)
{
    share(section("HOLIDAY", "sda1"));
    EXPECT_EQ(by_share_due(&links_), agent_never);
    fs::remove(std::string(FakeSysfs::proc) + "/self/mountinfo");
    by_share_mounts_changed(&links_);
    update();
    sysfs_.set_mounts({});
    EXPECT_EQ(by_share_due(&links_), now_ + agent_file_pause);
    now_ += agent_file_pause - 1;
    update();
    EXPECT_EQ(found(), (Links{{"HOLIDAY", "../sda1"}}));
    now_++;
    update();
    EXPECT_EQ(found(), (Links{{"no", "folder"}}));
    EXPECT_EQ(by_share_due(&links_), agent_never);
}

TEST_F(ByShareTest, AreNotUpToDateWhereTheirDirectoryCannotBeRead)
{
    share(section("HOLIDAY", "sda1"));
    by_share_mounts_changed(&links_);
    sysfs_.set_mounts({});
    call_fail("readdir", 1, EIO);
    update();
    EXPECT_TRUE(call_failed());
    EXPECT_EQ(fake_log_texts(),
              std::vector<std::string>{
                  "by_share(#)/tmp/mounts/by-share is not up to date: Input/output error"});
    now_ += agent_file_pause;
    update();
    EXPECT_EQ(found(), (Links{{"no", "folder"}}));
}

TEST_F(ByShareTest, EveryAllocationMayFail)
{
    for (int nth = 1; nth < 40; nth++) {
        share(section("HOLIDAY", "sda1"));
        memory_fail(nth);
        by_share_mounts_changed(&links_);
        by_share_advance(&links_, now_);
        memory_fail(0);
        EXPECT_EQ(found(), (Links{{"HOLIDAY", "../sda1"}})) << nth;
    }
}
