// Saving the device table.
#include "records/conf_dev_file.h"

#include "config/filesystems.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "record.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

const std::string path = "/tmp/hotplug.dev.conf";
const std::string temporary = "/tmp/vyhotplug.dev.conf.tmp";

class ConfDevSaveTest : public testing::Test {
  protected:
    ~ConfDevSaveTest() override { conf_dev_free(table); }

    int save() { return conf_dev_save(path.c_str(), table); }

    std::string saved()
    {
        EXPECT_EQ(save(), 0);
        EXPECT_FALSE(exists(temporary));
        return read_file(path);
    }

    // More than fits into /tmp after make_small_tmp(64).
    void fill_table()
    {
        for (int i = 0; i < 2000; i++)
            add_raw_record(table, ("1234:00ab:S" + std::to_string(i) + ":1").c_str());
    }

    ConfDevTable* table = conf_dev_create();
};

// The lines of the saved file that begin with `key`.
std::vector<std::string> lines_of(const std::string& text, const std::string& key)
{
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        if (line.compare(0, key.size(), key) == 0)
            lines.push_back(line);
        at = end + 1;
    }
    return lines;
}

using Lines = std::vector<std::string>;

TEST_F(ConfDevSaveTest, EmptyTableIsAnEmptyFile)
{
    write_file(path, "[old]\n");
    EXPECT_EQ(saved(), "");
    EXPECT_TRUE(exists(path));
}

TEST_F(ConfDevSaveTest, DefaultRecordHasAllItsLines)
{
    add_record(table, "ABC");
    EXPECT_EQ(saved(), "[1234:00ab:ABC:1]\n"
                       "Share Name=\n"
                       "Comment=\n"
                       "Read Only=Disable\n"
                       "Guest Access=Disable\n"
                       "Guest Hide=Disable\n"
                       "Full Access Users=\n"
                       "Read Only Users=\n"
                       "Block Users=\n"
                       "Hide Users=\n");
}

TEST_F(ConfDevSaveTest, FullRecordHasItsLinesInOrder)
{
    ConfDev* dev = add_record(table, "ABC");
    set_text(&dev->sharename, "My Disk");
    set_text(&dev->path, "/srv/data");
    set_text(&dev->comment, "all of it");
    dev->filesystem = CONF_DEV_FS_NTFS;
    dev->sync = 1;
    dev->readonly = 1;
    dev->guestaccess = 1;
    dev->guesthide = 1;
    dev->administrator = CONF_DEV_ADMIN_BLOCK;
    add_users(dev->fullaccessusers, {500, 501});
    add_users(dev->readonlyusers, {502});
    add_users(dev->blockusers, {503, 504, 505});
    add_users(dev->hideusers, {0});
    EXPECT_EQ(saved(), "[1234:00ab:ABC:1]\n"
                       "Share Name=My Disk\n"
                       "Path=/srv/data\n"
                       "Comment=all of it\n"
                       "File System=NTFS\n"
                       "Sync=Enable\n"
                       "Read Only=Enable\n"
                       "Guest Access=Enable\n"
                       "Guest Hide=Enable\n"
                       "Administrator=Block\n"
                       "Full Access Users=500,501,\n"
                       "Read Only Users=502,\n"
                       "Block Users=503,504,505,\n"
                       "Hide Users=0,\n");
}

TEST_F(ConfDevSaveTest, RecordsFollowEachOtherInTableOrderWithoutABlankLine)
{
    add_record(table, "b");
    add_record(table, "a");
    const std::string text = saved();
    EXPECT_EQ(lines_of(text, "["), (Lines{"[1234:00ab:b:1]", "[1234:00ab:a:1]"}));
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
}

TEST_F(ConfDevSaveTest, RecordWithoutAnIdentityIsPassedOver)
{
    add_raw_record(table, nullptr);
    add_raw_record(table, "1234:00ab:a:1");
    add_raw_record(table, nullptr);
    EXPECT_EQ(lines_of(saved(), "["), (Lines{"[1234:00ab:a:1]"}));
}

struct CodeRow {
    uint8_t code;
    Lines lines;
};

// An ext4 record is written as an unknown one: the administration pages know no EXT4.
TEST_F(ConfDevSaveTest, FilesystemLine)
{
    const std::vector<CodeRow> rows = {
        {0, {}},
        {1, {"File System=EXT2"}},
        {2, {"File System=EXT3"}},
        {3, {"File System=DefFS"}},
        {4, {"File System=FAT"}},
        {5, {"File System=NTFS"}},
        {6, {"File System=DefFS"}},
        {255, {"File System=DefFS"}},
    };
    ConfDev* dev = add_record(table, "ABC");
    for (const CodeRow& row : rows) {
        dev->filesystem = row.code;
        EXPECT_EQ(lines_of(saved(), "File System"), row.lines) << int{row.code};
    }
}

// Full access is the default and is never written.
TEST_F(ConfDevSaveTest, AdministratorLine)
{
    const std::vector<CodeRow> rows = {
        {0, {"Administrator=Hide"}},
        {1, {"Administrator=Block"}},
        {2, {"Administrator=ReadOnly"}},
        {3, {}},
        {4, {}},
        {255, {}},
    };
    ConfDev* dev = add_record(table, "ABC");
    for (const CodeRow& row : rows) {
        dev->administrator = row.code;
        EXPECT_EQ(lines_of(saved(), "Administrator"), row.lines) << int{row.code};
    }
}

TEST_F(ConfDevSaveTest, SyncIsWrittenOnlyWhenItIsOne)
{
    const std::vector<CodeRow> rows = {{0, {}}, {1, {"Sync=Enable"}}, {2, {}}, {255, {}}};
    ConfDev* dev = add_record(table, "ABC");
    for (const CodeRow& row : rows) {
        dev->sync = row.code;
        EXPECT_EQ(lines_of(saved(), "Sync"), row.lines) << int{row.code};
    }
}

TEST_F(ConfDevSaveTest, OtherSwitchesAreAlwaysWritten)
{
    ConfDev* dev = add_record(table, "ABC");
    for (const uint8_t value : std::vector<uint8_t>{0, 1, 2, 255}) {
        dev->readonly = dev->guestaccess = dev->guesthide = value;
        const std::string word = value != 0 ? "Enable" : "Disable";
        const std::string text = saved();
        EXPECT_EQ(lines_of(text, "Read Only="), (Lines{"Read Only=" + word})) << int{value};
        EXPECT_EQ(lines_of(text, "Guest Access"), (Lines{"Guest Access=" + word})) << int{value};
        EXPECT_EQ(lines_of(text, "Guest Hide"), (Lines{"Guest Hide=" + word})) << int{value};
    }
}

TEST_F(ConfDevSaveTest, TextsOfAnyLengthAreWrittenWhole)
{
    ConfDev* dev = add_record(table, "ABC");
    set_text(&dev->sharename, std::string(5000, 'n'));
    set_text(&dev->comment, std::string(5000, 'c'));
    const std::string text = saved();
    EXPECT_EQ(lines_of(text, "Share"), (Lines{"Share Name=" + std::string(5000, 'n')}));
    EXPECT_EQ(lines_of(text, "Comment"), (Lines{"Comment=" + std::string(5000, 'c')}));
}

// ---- the file ----

TEST_F(ConfDevSaveTest, MovesATemporaryFileOverTheOldOne)
{
    write_file(path, "old");
    write_file(temporary, std::string(100000, 'x')); // left by a crash
    EXPECT_EQ(saved(), "");
    EXPECT_EQ(fake_world().journal, (std::vector<std::string>{"rename " + temporary + " " + path}));
}

TEST_F(ConfDevSaveTest, ClosesTheFileInEveryCase)
{
    const int before = open_descriptors();
    EXPECT_EQ(save(), 0);
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(save(), 0);
    ASSERT_EQ(symlink("/dev/full", temporary.c_str()), 0);
    add_record(table, "ABC");
    EXPECT_EQ(save(), -ENOSPC);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ConfDevSaveTest, MissingTableFails)
{
    const ConfDevTable headless = {.list = nullptr};
    write_file(path, "old");
    EXPECT_EQ(conf_dev_save(path.c_str(), nullptr), -1);
    EXPECT_EQ(conf_dev_save(path.c_str(), &headless), -1);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_FALSE(exists(temporary));
}

TEST_F(ConfDevSaveTest, TemporaryFileThatCannotBeMadeFails)
{
    write_file(path, "old");
    ASSERT_EQ(mkdir(temporary.c_str(), 0755), 0);
    EXPECT_EQ(save(), -1);
    EXPECT_EQ(read_file(path), "old");
}

TEST_F(ConfDevSaveTest, FailedMoveKeepsTheOldFileAndIsNoError)
{
    write_file(path, "old");
    add_record(table, "ABC");
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_FALSE(exists(temporary));
    EXPECT_EQ(fake_world().count("unlink"), 1);
}

TEST_F(ConfDevSaveTest, TargetThatIsADirectoryIsLeftAlone)
{
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(save(), 0);
    EXPECT_FALSE(exists(temporary));
    EXPECT_EQ(rmdir(path.c_str()), 0);
}

TEST_F(ConfDevSaveTest, FullFilesystemKeepsTheOldFileAndGivesItsErrno)
{
    make_small_tmp(64);
    write_file(path, "old");
    fill_table();
    EXPECT_EQ(save(), -ENOSPC);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_FALSE(exists(temporary));
    EXPECT_EQ(fake_world().count("rename"), 0);
}

// All of it waits in the stream's buffer: the disk's answer comes with the last write.
TEST_F(ConfDevSaveTest, FullFilesystemIsNoticedForASmallTableToo)
{
    write_file(path, "old");
    ASSERT_EQ(symlink("/dev/full", temporary.c_str()), 0);
    add_record(table, "ABC");
    EXPECT_EQ(save(), -ENOSPC);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_FALSE(exists(temporary));
}

TEST_F(ConfDevSaveTest, SucceedsAgainWhenThereIsRoomAgain)
{
    make_small_tmp(64);
    fill_table();
    EXPECT_EQ(save(), -ENOSPC);
    while (table->list->count > 3)
        EXPECT_EQ(conf_dev_del(table, conf_dev_find_index(table, 3)), 0);
    EXPECT_EQ(lines_of(saved(), "[").size(), 3U);
}

// Kept: a write that fails without an errno ends the table, and what was written becomes the file.
TEST_F(ConfDevSaveTest, FailureWithoutAnErrnoGoesOnAsSuccess)
{
    write_file(path, "old");
    ConfDev* dev = add_record(table, "a");
    add_record(table, "b");
    vylist_dispose(dev->hideusers);
    dev->hideusers = nullptr; // what cannot be written and touches no file
    EXPECT_EQ(save(), 0);
    const std::string text = read_file(path);
    EXPECT_EQ(lines_of(text, "["), (Lines{"[1234:00ab:a:1]"}));
    EXPECT_EQ(lines_of(text, "Block"), (Lines{"Block Users="}));
    EXPECT_FALSE(exists(temporary));
}

TEST_F(ConfDevSaveTest, LogsNothing)
{
    ASSERT_EQ(symlink("/dev/full", temporary.c_str()), 0);
    add_record(table, "ABC");
    EXPECT_EQ(save(), -ENOSPC);
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(save(), 0);
    EXPECT_TRUE(fake_log_lines().empty());
}

} // namespace
