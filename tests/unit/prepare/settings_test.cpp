#include "prepare/settings.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

namespace {

constexpr char device_file[] = "/tmp/settings/hotplug.dev.conf";
constexpr char copy_folder[] = "/var/lib/vyhotplugd";
const std::string settings = "[1:2:3:1]\nShare Name=Music\n";

class SettingsTest : public testing::Test {
  protected:
    SettingsTest()
    {
        umask(022);
        mkdir("/tmp/settings", 0755);
        fake_log_clear();
    }
    ~SettingsTest() override { fake_world_reset(); }

    static void make_copy(const std::string& text)
    {
        mkdir("/var/lib", 0755);
        mkdir(copy_folder, 0755);
        write_file(settings_copy, text);
    }

    static struct stat status_of(const char* path)
    {
        struct stat status = {};
        EXPECT_EQ(lstat(path, &status), 0) << path;
        return status;
    }

    // The calls that were made, without what they were made for.
    static std::vector<std::string> calls()
    {
        std::vector<std::string> made;
        for (const std::string& call : fake_world().journal)
            made.push_back(call.substr(0, call.find(' ')));
        return made;
    }

    static std::string generation(int number)
    {
        return settings_copy + ("." + std::to_string(number));
    }

    // Files beside the two, and generations of the copy, that should not have stayed.
    static void expect_nothing_beside()
    {
        for (const char* folder : {"/tmp/settings", copy_folder}) {
            std::set<std::string> names =
                exists(folder) ? names_in(folder) : std::set<std::string>();
            for (int number = 1; number <= settings_generations; number++)
                names.erase("hotplug.dev.conf." + std::to_string(number));
            names.erase("hotplug.dev.conf");
            names.erase("filler");
            EXPECT_EQ(names, std::set<std::string>{}) << folder;
        }
    }
};

} // namespace

// ---- restoring ----

TEST_F(SettingsTest, RestoresWhereThereIsNoFile)
{
    make_copy(settings);
    EXPECT_EQ(settings_restore(device_file), 0);
    EXPECT_EQ(read_file(device_file), settings);
    EXPECT_EQ(status_of(device_file).st_mode, S_IFREG | 0644U);
    EXPECT_EQ(read_file(settings_copy), settings);
    expect_nothing_beside();
}

TEST_F(SettingsTest, RestoresWhereTheFileIsEmpty)
{
    make_copy(settings);
    write_file(device_file, "");
    EXPECT_EQ(settings_restore(device_file), 0);
    EXPECT_EQ(read_file(device_file), settings);
}

TEST_F(SettingsTest, LeavesAFileThatHoldsSomething)
{
    make_copy(settings);
    write_file(device_file, "x");
    EXPECT_EQ(settings_restore(device_file), 0);
    EXPECT_EQ(read_file(device_file), "x");
    EXPECT_TRUE(fake_world().journal.empty());
}

TEST_F(SettingsTest, WithoutACopyThereIsNothingToRestore)
{
    EXPECT_EQ(settings_restore(device_file), 0);
    EXPECT_FALSE(exists(device_file));
    make_copy("");
    EXPECT_EQ(settings_restore(device_file), 0);
    EXPECT_FALSE(exists(device_file));
}

TEST_F(SettingsTest, FollowsNoLinkThatLeadsToNothing)
{
    make_copy(settings);
    EXPECT_EQ(symlink("/tmp/settings/elsewhere", device_file), 0);
    EXPECT_EQ(settings_restore(device_file), 0);
    EXPECT_EQ(status_of(device_file).st_mode & S_IFMT, unsigned{S_IFREG});
    EXPECT_FALSE(exists("/tmp/settings/elsewhere"));
}

TEST_F(SettingsTest, APipeInItsPlaceIsNotWaitedFor)
{
    make_copy(settings);
    EXPECT_EQ(mkfifo(device_file, 0600), 0);
    EXPECT_EQ(settings_restore(device_file), 0);
    EXPECT_EQ(read_file(device_file), settings);
}

TEST_F(SettingsTest, ARestoreThatFailsLeavesTheOldFile)
{
    make_copy(settings);
    write_file(device_file, "");
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(settings_restore(device_file), -EXDEV);
    EXPECT_EQ(read_file(device_file), "");
    expect_nothing_beside();
    EXPECT_EQ(settings_restore("/tmp/none/file"), -ENOENT);
    EXPECT_EQ(settings_restore(("/tmp/" + std::string(4090, 'x')).c_str()), -ENAMETOOLONG);
}

TEST_F(SettingsTest, ACopyThatIsNoFileIsNotRestored)
{
    make_copy("");
    unlink(settings_copy);
    EXPECT_EQ(mkfifo(settings_copy, 0600), 0);
    EXPECT_EQ(settings_restore(device_file), -EINVAL);
    unlink(settings_copy);
    EXPECT_EQ(symlink("/etc/passwd", settings_copy), 0);
    EXPECT_EQ(settings_restore(device_file), -ELOOP);
    unlink(settings_copy);
    write_file(settings_copy, "x");
    EXPECT_EQ(truncate(settings_copy, (4 << 20) + 1), 0);
    EXPECT_EQ(settings_restore(device_file), -EFBIG);
    EXPECT_FALSE(exists(device_file));
}

// ---- saving ----

TEST_F(SettingsTest, SavesACopyAndMakesItsDirectory)
{
    write_file(device_file, settings);
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_EQ(read_file(settings_copy), settings);
    EXPECT_EQ(status_of(settings_copy).st_mode, S_IFREG | 0600U);
    EXPECT_EQ(status_of(copy_folder).st_mode, S_IFDIR | 0755U);
    EXPECT_EQ(read_file(device_file), settings);
    expect_nothing_beside();
}

// What is on the disk after a power cut is the old copy or the new one, whole.
TEST_F(SettingsTest, TheCopyIsOnTheDiskBeforeItTakesTheOldOnesPlace)
{
    make_copy("old");
    write_file(device_file, settings);
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_EQ(calls(), (std::vector<std::string>{"fsync", "rename", "fsync"}));
    fake_world_reset();
    unlink(device_file);
    EXPECT_EQ(settings_restore(device_file), 0);
    EXPECT_EQ(calls(), (std::vector<std::string>{"fsync", "rename", "fsync"}));
}

TEST_F(SettingsTest, ACopyThatCannotBeWrittenDownLeavesTheOldOne)
{
    make_copy("old");
    write_file(device_file, settings);
    fake_world().fail("fsync", 1, EIO);
    EXPECT_EQ(settings_save(device_file, nullptr), -EIO);
    EXPECT_EQ(read_file(settings_copy), "old");
    expect_nothing_beside();
}

TEST_F(SettingsTest, SavesOverAnotherCopy)
{
    for (const char* old : {"", "other", "[1:2:3:1]\nShare Name=Musik\n"}) {
        make_copy(old);
        write_file(device_file, settings);
        EXPECT_EQ(settings_save(device_file, nullptr), 0);
        EXPECT_EQ(read_file(settings_copy), settings);
    }
}

TEST_F(SettingsTest, SavesOnlyWhatIsDifferent)
{
    make_copy(settings);
    write_file(device_file, settings);
    const struct stat before = status_of(settings_copy);
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_EQ(status_of(settings_copy).st_ino, before.st_ino);
    EXPECT_TRUE(fake_world().journal.empty());
}

TEST_F(SettingsTest, KeepsACopyWhereThereIsNothingToSave)
{
    make_copy(settings);
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    write_file(device_file, "");
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_EQ(read_file(settings_copy), settings);
    EXPECT_EQ(fake_log_texts(),
              std::vector<std::string>(2, "prepare(#)/tmp/settings/hotplug.dev.conf holds nothing, "
                                          "/var/lib/vyhotplugd/hotplug.dev.conf stays as it is"));
}

TEST_F(SettingsTest, WithoutAnythingNothingIsSaved)
{
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    write_file(device_file, "");
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_FALSE(exists(settings_copy));
    EXPECT_TRUE(fake_log_texts().empty());
}

TEST_F(SettingsTest, SavesNothingFromBehindALink)
{
    make_copy("old");
    EXPECT_EQ(symlink("/etc/passwd", device_file), 0);
    EXPECT_EQ(settings_save(device_file, nullptr), -ELOOP);
    unlink(device_file);
    EXPECT_EQ(mkfifo(device_file, 0600), 0);
    EXPECT_EQ(settings_save(device_file, nullptr), -EINVAL);
    unlink(device_file);
    EXPECT_EQ(mkdir(device_file, 0755), 0);
    EXPECT_EQ(settings_save(device_file, nullptr), -EINVAL);
    EXPECT_EQ(read_file(settings_copy), "old");
}

TEST_F(SettingsTest, SavesUpToALimit)
{
    write_file(device_file, std::string(4 << 20, 'x'));
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_EQ(read_file(settings_copy).size(), size_t{4 << 20});
    write_file(device_file, std::string((4 << 20) + 1, 'y'));
    EXPECT_EQ(settings_save(device_file, nullptr), -EFBIG);
    EXPECT_EQ(read_file(settings_copy)[0], 'x');
}

TEST_F(SettingsTest, ASaveThatFailsLeavesTheOldCopy)
{
    make_copy("old");
    write_file(device_file, settings);
    fake_world().fail("rename", 1, EIO);
    EXPECT_EQ(settings_save(device_file, nullptr), -EIO);
    EXPECT_EQ(read_file(settings_copy), "old");
    expect_nothing_beside();
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_EQ(read_file(settings_copy), settings);
}

// Small enough for a stream's buffer, and larger.
TEST_F(SettingsTest, OnAFullDiskTheOldCopyStays)
{
    make_copy("");
    ASSERT_EQ(mount("full", copy_folder, "tmpfs", 0, "size=64k"), 0);
    write_file(settings_copy, "old");
    write_file(std::string(copy_folder) + "/filler", std::string(60 * 1024, 'x'));
    constexpr size_t sizes[] = {3000, 100000};
    for (const size_t size : sizes) {
        write_file(device_file, std::string(size, 'n'));
        EXPECT_EQ(settings_save(device_file, nullptr), -ENOSPC) << size;
        EXPECT_EQ(read_file(settings_copy), "old");
        expect_nothing_beside();
    }
    EXPECT_EQ(umount(copy_folder), 0);
}

TEST_F(SettingsTest, ReplacesACopyThatCannotBeRead)
{
    make_copy("");
    unlink(settings_copy);
    EXPECT_EQ(symlink("/etc/passwd", settings_copy), 0);
    const std::string passwd = read_file("/etc/passwd");
    write_file(device_file, settings);
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_EQ(status_of(settings_copy).st_mode, S_IFREG | 0600U);
    EXPECT_EQ(read_file(settings_copy), settings);
    EXPECT_EQ(read_file("/etc/passwd"), passwd);
}

TEST_F(SettingsTest, TellsThatTheCopysDirectoryCannotBeMade)
{
    write_file(device_file, settings);
    fake_world().fail("mkdir", 0, EROFS);
    EXPECT_EQ(settings_save(device_file, nullptr), -EROFS);
    EXPECT_FALSE(exists(settings_copy));
}

// ---- generations ----

namespace {

std::string section(const std::string& sharename)
{
    return "[1:2:3:1]\nShare Name=" + sharename + "\n";
}

} // namespace

TEST_F(SettingsTest, WhatLosesNothingTakesTheCopysPlace)
{
    make_copy("[x]\nShare Name=\nRead Only=Disable\n" + settings);
    write_file(device_file, settings + "[new]\nShare Name=Films\n");
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_FALSE(exists(generation(1)));
    EXPECT_TRUE(fake_log_texts().empty());
}

TEST_F(SettingsTest, WhatLosesSettingsLeavesTheOldOnesAsAGeneration)
{
    make_copy(settings);
    write_file(device_file, "[4:5:6:1]\nShare Name=Films\n");
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_EQ(read_file(generation(1)), settings);
    EXPECT_EQ(status_of(generation(1).c_str()).st_mode, S_IFREG | 0600U);
    EXPECT_EQ(fake_log_texts(), std::vector<std::string>{
                                    "prepare(#)settings are gone or changed, those of before are "
                                    "in /var/lib/vyhotplugd/hotplug.dev.conf.1"});
    expect_nothing_beside();
}

TEST_F(SettingsTest, AGenerationIsOnTheDiskBeforeTheCopyIsReplaced)
{
    make_copy(settings);
    write_file(generation(1), "older");
    write_file(device_file, "[4:5:6:1]\n");
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    EXPECT_EQ(calls(), (std::vector<std::string>{"fsync", "rename", "fsync", "rename", "rename",
                                                 "fsync", "rename", "fsync"}));
}

TEST_F(SettingsTest, FiveGenerationsAreKept)
{
    for (int number = 0; number < 9; number++) {
        write_file(device_file, section(std::to_string(number)));
        EXPECT_EQ(settings_save(device_file, nullptr), 0);
        for (int older = 1; older <= settings_generations; older++) {
            if (older <= number)
                EXPECT_EQ(read_file(generation(older)), section(std::to_string(number - older)));
            else
                EXPECT_FALSE(exists(generation(older)));
        }
        expect_nothing_beside();
    }
}

TEST_F(SettingsTest, AGenerationThatIsMissingIsFilledBeforeAnyGoes)
{
    make_copy(section("5"));
    write_file(generation(1), section("4"));
    write_file(generation(3), section("2"));
    write_file(generation(5), section("0"));
    write_file(device_file, section("6"));
    EXPECT_EQ(settings_save(device_file, nullptr), 0);
    const char* expected[] = {"5", "4", "2"};
    for (int number = 1; number <= 3; number++)
        EXPECT_EQ(read_file(generation(number)), section(expected[number - 1]));
    EXPECT_EQ(read_file(generation(5)), section("0"));
}

// Each save that loses the same settings again keeps them once.
TEST_F(SettingsTest, TheSameIsNotKeptTwice)
{
    make_copy(settings);
    for (int turn = 0; turn < 4; turn++) {
        write_file(device_file, "[4:5:6:1]\n");
        EXPECT_EQ(settings_save(device_file, nullptr), 0);
        write_file(device_file, settings);
        EXPECT_EQ(settings_save(device_file, nullptr), 0);
    }
    EXPECT_EQ(read_file(generation(1)), settings);
    EXPECT_FALSE(exists(generation(2)));
}

// Whatever fails: the settings are in the copy or in a generation, and the next save goes on.
TEST_F(SettingsTest, AGenerationThatCannotBeKeptKeepsTheCopy)
{
    for (const char* call : {"rename", "fsync"}) {
        for (int nth = 1; nth <= 6; nth++) {
            make_copy(section("5"));
            for (int number = 1; number <= settings_generations; number++)
                write_file(generation(number), section(std::to_string(5 - number)));
            write_file(device_file, section("6"));
            fake_world_reset();
            fake_world().fail(call, nth, EIO);
            const int result = settings_save(device_file, nullptr);
            EXPECT_EQ(result, fake_world().failed > 0 ? -EIO : 0) << call << nth;
            std::set<std::string> kept = {read_file(settings_copy)};
            for (int number = 1; number <= settings_generations; number++)
                kept.insert(exists(generation(number)) ? read_file(generation(number)) : "");
            for (const char* number : {"5", "4", "3", "2", "1"})
                EXPECT_EQ(kept.count(section(number)), 1U) << call << nth << ": " << number;
            EXPECT_EQ(settings_save(device_file, nullptr), 0);
            EXPECT_EQ(read_file(settings_copy), section("6"));
            EXPECT_EQ(read_file(generation(1)), section("5"));
        }
    }
}

TEST_F(SettingsTest, WhatIsSavedIsLookedThroughBefore)
{
    static std::vector<std::string> seen;
    seen.clear();
    const SettingsCheck check = [](const char* path, const char* text, size_t size) {
        EXPECT_STREQ(path, device_file);
        EXPECT_FALSE(exists(settings_copy));
        seen.emplace_back(text, size);
    };
    EXPECT_EQ(settings_save(device_file, check), 0);
    write_file(device_file, settings);
    EXPECT_EQ(settings_save(device_file, check), 0);
    EXPECT_EQ(settings_save(device_file, check), 0) << "the copy is the same now";
    EXPECT_EQ(seen, std::vector<std::string>{settings});
}

// ---- changes meanwhile ----

namespace {

int changes = 0; // that are still to come while it is saved

void change_it(const char* path, const char*, size_t)
{
    if (changes-- <= 0)
        return;
    write_file("/tmp/changed", settings + "Comment=" + std::to_string(changes) + "\n");
    EXPECT_EQ(rename("/tmp/changed", path), 0);
}

} // namespace

TEST_F(SettingsTest, SavesWhatIsChangedWhileItSaves)
{
    write_file(device_file, settings);
    changes = 3;
    EXPECT_EQ(settings_save(device_file, change_it), 0);
    EXPECT_EQ(read_file(settings_copy), settings + "Comment=0\n");
    expect_nothing_beside();
}

TEST_F(SettingsTest, EndsThoughItIsChangedAgainAndAgain)
{
    write_file(device_file, settings);
    changes = 1000;
    EXPECT_EQ(settings_save(device_file, change_it), 0);
    EXPECT_EQ(changes, 1000 - settings_passes);
}
