// The share file when writing fails, and its unmount marks.
#include "records/config_file_dir.h"

#include "config/ini.h"
#include "device/crtsec.h"
#include "fake/fake_world.h"
#include "record.h"
#include "support/failing_calls.h"
#include "support/files.h"
#include "support/fresh_case.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

const std::string path = "/tmp/vynas.dir.conf";
const std::string temporary = "/tmp/vyhotplug.dir.conf.tmp";

class ShareFileWriteTest : public testing::Test {
  protected:
    ShareFileWriteTest() { EXPECT_EQ(crtsec_init(), 0); }
    ~ShareFileWriteTest() override
    {
        crtsec_term();
        for (MountEntry* entry : entries)
            mount_entry_free(entry);
        conf_dev_free(table);
    }

    // A directory share whose section is a little longer than `bytes`.
    void add_directory(const std::string& name, size_t bytes)
    {
        ConfDev* dev = add_record(table, name, 0);
        set_text(&dev->sharename, name);
        set_text(&dev->comment, std::string(bytes, 'c'));
        set_text(&dev->path, "/" + name);
    }

    // A partition share of the same kind.
    MountEntry* add_partition(const std::string& name, size_t bytes)
    {
        MountEntry* entry = create_partition();
        set_text(&entry->dev->serial, name);
        entries.push_back(entry);
        EXPECT_EQ(crtsec_blk_add(entry), 0);
        ConfDev* dev = add_record(table, name, 1);
        set_text(&dev->sharename, name);
        set_text(&dev->comment, std::string(bytes, 'c'));
        return entry;
    }

    int save() { return conf_dir_save(path.c_str(), table, 1); }

    std::string directory_section(const std::string& name, size_t bytes)
    {
        return "[" + name + "]\nComment=" + std::string(bytes, 'c') + "\nPath=/" + name +
               "\nIdentifier=1234:00ab:" + name + ":0\n";
    }

    std::string partition_section(const std::string& name, size_t bytes)
    {
        return "[" + name + "]\nComment=" + std::string(bytes, 'c') +
               "\nIdentifier=1234:00ab:" + name + ":1\nPath=/mnt/sda1\nFile System=FAT\n" +
               "VID=4660\nPID=171\nSerial=" + name + "\n";
    }

    ConfDevTable* table = conf_dev_create();
    std::vector<MountEntry*> entries;
};

// ---- the whole file ----

TEST_F(ShareFileWriteTest, MovesATemporaryFileOverTheOldOne)
{
    write_file(path, "old");
    write_file(temporary, std::string(100000, 'x')); // left by a crash
    add_directory("a", 1);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(path), directory_section("a", 1));
    EXPECT_EQ(fake_world().journal, (std::vector<std::string>{"rename " + temporary + " " + path}));
}

TEST_F(ShareFileWriteTest, TemporaryFileThatCannotBeMadeFails)
{
    write_file(path, "old");
    ASSERT_EQ(mkdir(temporary.c_str(), 0755), 0);
    MountEntry* entry = add_partition("p", 1);
    EXPECT_EQ(save(), -1);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_EQ(entry->sharename, nullptr);
}

TEST_F(ShareFileWriteTest, FailedMoveKeepsTheOldFileAndIsNoError)
{
    write_file(path, "old");
    add_directory("a", 1);
    MountEntry* entry = add_partition("p", 1);
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_FALSE(exists(temporary));
    EXPECT_STREQ(entry->sharename, "p");
}

TEST_F(ShareFileWriteTest, ClosesTheFileInEveryCase)
{
    const int before = open_descriptors();
    add_directory("a", 1);
    EXPECT_EQ(save(), 0);
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(save(), 0);
    ASSERT_EQ(symlink("/dev/full", temporary.c_str()), 0);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(open_descriptors(), before);
}

// ---- sections that do not fit ----

TEST_F(ShareFileWriteTest, DirectoryThatDoesNotFitIsDroppedWholeAndTheNextTakesItsPlace)
{
    make_small_tmp(16);
    add_directory("first", 100);
    add_directory("large", 50000);
    add_directory("last", 200);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(path), directory_section("first", 100) + directory_section("last", 200));
}

TEST_F(ShareFileWriteTest, PartitionThatDoesNotFitIsDroppedWholeAndTheNextTakesItsPlace)
{
    make_small_tmp(16);
    add_partition("first", 100);
    add_partition("large", 50000);
    add_partition("last", 200);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(path), partition_section("first", 100) + partition_section("last", 200));
}

// Everything before the device's details has been written by then, and the entry has its name.
TEST_F(ShareFileWriteTest, PartitionWhoseDetailsDoNotFitIsDroppedWholeAndKeepsItsName)
{
    make_small_tmp(16);
    MountEntry* large = add_partition("large", 10);
    set_text(&large->dev->pname, std::string(50000, 'p'));
    add_partition("last", 10);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(path), partition_section("last", 10));
    EXPECT_STREQ(large->sharename, "large");
}

TEST_F(ShareFileWriteTest, NothingOfADroppedLastSectionStays)
{
    make_small_tmp(16);
    add_directory("first", 100);
    add_partition("large", 50000);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(path), directory_section("first", 100));
}

TEST_F(ShareFileWriteTest, LongerDroppedSectionLeavesNothingBehindAShorterOne)
{
    make_small_tmp(16);
    add_directory("large", 12000); // most of it reaches the file before the disk is full
    add_directory("larger", 13000);
    add_directory("largest", 15000);
    add_directory("last", 10);
    EXPECT_EQ(save(), 0);
    const std::string text = read_file(path);
    EXPECT_EQ(text, directory_section("large", 12000) + directory_section("last", 10));
}

// Each of them fits the stream's buffer; what the disk holds is told section by section.
TEST_F(ShareFileWriteTest, SmallSectionThatCrossesTheEndOfTheDiskIsDroppedWhole)
{
    make_small_tmp(4);
    add_directory("one", 1500);
    add_directory("two", 1500);
    add_directory("three", 1500);
    add_partition("four", 300);
    add_partition("five", 1500);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(path), directory_section("one", 1500) + directory_section("two", 1500) +
                                   partition_section("four", 300));
}

TEST_F(ShareFileWriteTest, FullDiskGivesAnEmptyFile)
{
    make_small_tmp(4);
    write_file("/tmp/filler", std::string(4096, 'x'));
    add_directory("a", 10);
    MountEntry* entry = add_partition("p", 10);
    EXPECT_EQ(save(), 0);
    EXPECT_TRUE(exists(path));
    EXPECT_EQ(read_file(path), "");
    EXPECT_STREQ(entry->sharename, "p");
}

// What was written of it before is still in the stream's buffer.
TEST_F(ShareFileWriteTest, SectionOfWhichALineFailsIsDroppedWhole)
{
    add_directory("first", 10);
    add_partition("second", 10);
    add_directory("third", 10);
    const std::string first = directory_section("first", 10);
    const std::string second = partition_section("second", 10);
    const std::string third = directory_section("third", 10);
    int struck = 0;
    for (const char* call : {"fprintf", "fputs", "fputc", "fflush"}) {
        for (int nth = 1;; nth++) {
            call_fail(call, nth, ENOMEM);
            EXPECT_EQ(save(), 0);
            const std::string text = read_file(path);
            if (!call_failed()) {
                EXPECT_EQ(text, first + third + second);
                break;
            }
            struck++;
            EXPECT_TRUE(text == third + second || text == first + second || text == first + third)
                << call << " " << nth << ": " << text;
        }
    }
    EXPECT_GE(struck, 9);
}

TEST_F(ShareFileWriteTest, DroppedUnnamedDirectoryKeepsItsNumber)
{
    make_small_tmp(16);
    for (const size_t bytes : {10UL, 50000UL, 10UL}) {
        ConfDev* dev = add_record(table, "S" + std::to_string(table->list->count), 0);
        set_text(&dev->comment, std::string(bytes, 'c'));
        set_text(&dev->path, "/p");
    }
    EXPECT_EQ(save(), 0);
    const std::string text = read_file(path);
    EXPECT_NE(text.find("[Disk(0)]\n"), std::string::npos);
    EXPECT_EQ(text.find("[Disk(1)]\n"), std::string::npos);
    EXPECT_NE(text.find("[Disk(2)]\n"), std::string::npos);
}

// ---- the unmount mark ----

TEST(UnmountMark, IsAnEmptySectionAtTheEnd)
{
    write_file(path, "[Drive(A1)]\nPath=/mnt/sda1\n[Drive(B1)]\nPath=/mnt/sdb1\n");
    EXPECT_EQ(conf_dir_set_unmount_flg(path.c_str(), "Drive(A1)"), 0);
    EXPECT_EQ(read_file(path), "[Drive(A1)]\nPath=/mnt/sda1\n[Drive(B1)]\nPath=/mnt/sdb1\n"
                               "[Drive(A1)]\n");
}

// The last section of a name wins, so the share has no path any more.
TEST(UnmountMark, TakesTheShareAwayFromReaders)
{
    write_file(path, "[Drive(A1)]\nPath=/mnt/sda1\n");
    EXPECT_EQ(conf_dir_set_unmount_flg(path.c_str(), "Drive(A1)"), 0);
    char* value = nullptr;
    EXPECT_EQ(config_get_ini_string(path.c_str(), "Drive(A1)", "path", &value, INI_LAST), -ENOENT);
}

TEST(UnmountMark, MakesTheFileThatIsNotThere)
{
    EXPECT_EQ(conf_dir_set_unmount_flg(path.c_str(), "a"), 0);
    EXPECT_EQ(read_file(path), "[a]\n");
}

TEST(UnmountMark, IsSetAgainAndAgain)
{
    write_file(path, "");
    EXPECT_EQ(conf_dir_set_unmount_flg(path.c_str(), "a"), 0);
    EXPECT_EQ(conf_dir_set_unmount_flg(path.c_str(), "%s"), 0);
    EXPECT_EQ(conf_dir_set_unmount_flg(path.c_str(), ""), 0);
    EXPECT_EQ(read_file(path), "[a]\n[%s]\n[]\n");
}

TEST(UnmountMark, NeedsAFileAndAName)
{
    write_file(path, "old");
    EXPECT_EQ(conf_dir_set_unmount_flg(nullptr, "a"), -1);
    EXPECT_EQ(conf_dir_set_unmount_flg(path.c_str(), nullptr), -1);
    EXPECT_EQ(conf_dir_set_unmount_flg("/tmp/none/file", "a"), -1);
    EXPECT_EQ(conf_dir_set_unmount_flg("/tmp", "a"), -1);
    EXPECT_EQ(read_file(path), "old");
}

TEST(UnmountMark, ClosesTheFile)
{
    const int before = open_descriptors();
    EXPECT_EQ(conf_dir_set_unmount_flg(path.c_str(), "a"), 0);
    EXPECT_EQ(conf_dir_set_unmount_flg("/tmp", "a"), -1);
    EXPECT_EQ(open_descriptors(), before);
}

// Kept: the stream of a failed write stays open.
TEST(UnmountMark, ThatCannotBeWrittenFailsAndLeavesTheStreamOpen)
{
    fresh_case_may_leave_streams();
    const int before = open_descriptors();
    EXPECT_EQ(conf_dir_set_unmount_flg("/dev/full", "a"), -1);
    EXPECT_EQ(open_descriptors(), before + 1);
}

TEST(UnmountMark, ThatCouldNotBeWrittenDoesNotComeLater)
{
    fresh_case_may_leave_streams();
    make_small_tmp(4);
    write_file("/tmp/filler", std::string(4096, 'x'));
    write_file(path, "");
    EXPECT_EQ(conf_dir_set_unmount_flg(path.c_str(), "a"), -1);
    ASSERT_EQ(unlink("/tmp/filler"), 0);
    EXPECT_EQ(fflush(nullptr), 0);
    EXPECT_EQ(read_file(path), "");
}

} // namespace
