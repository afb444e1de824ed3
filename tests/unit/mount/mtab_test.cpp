#include "mount/mtab.h"

#include "fake/fake_world.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char table_file[] = "/etc/mtab";
const char temporary_file[] = "/tmp/mntent.tmp";
const char first_lines[] = "proc /proc proc rw,nosuid,noexec 1 2\n"
                           "/dev/sda2 /mnt/sda2 ext4 ro 0 0\n";
const char line[] = "/dev/sda1 /mnt/sda1 vfat rw 0 0\n";
const char last_line[] = "/dev/sdb1 /mnt/sdb1 ext3 rw 0 0\n";

std::string with(const std::string& middle)
{
    return first_lines + middle + last_line;
}

// Makes the table one that can be read only.
void protect_table()
{
    ASSERT_EQ(mount(table_file, table_file, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, table_file, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
}

// The table after sda1's line was removed from it.
std::string table_after_removal(const std::string& table)
{
    write_file(table_file, table);
    mtab_remove("/dev/sda1", "/mnt/sda1");
    return read_table();
}

TEST(MtabRemove, LeavesTheOtherLinesAsTheyWere)
{
    EXPECT_EQ(table_after_removal(with(line)), with(""));
}

TEST(MtabRemove, MovesTheTemporaryFileOverTheTable)
{
    table_after_removal(with(line));
    EXPECT_EQ(fake_world().journal, (std::vector<std::string>{"rename /tmp/mntent.tmp /etc/mtab"}));
    EXPECT_FALSE(exists(temporary_file));
}

TEST(MtabRemove, TakesOutEveryLineOfThatNodeAtThatDirectory)
{
    const std::string another = "/dev/sda1 /mnt/sda1 ext2 ro,noatime 3 4\n";
    EXPECT_EQ(table_after_removal(line + with(line + another) + line), with(""));
}

TEST(MtabRemove, KeepsTheNodeAtAnotherDirectory)
{
    const std::string other = "/dev/sda1 /mnt/elsewhere vfat rw 0 0\n";
    EXPECT_EQ(table_after_removal(with(line + other)), with(other));
}

TEST(MtabRemove, KeepsAnotherNodeAtTheDirectory)
{
    const std::string other = "/dev/sdc1 /mnt/sda1 vfat rw 0 0\n";
    EXPECT_EQ(table_after_removal(with(other + line)), with(other));
}

TEST(MtabRemove, ComparesWholeNames)
{
    const std::string longer = "/dev/sda10 /mnt/sda1 vfat rw 0 0\n"
                               "/dev/sda1 /mnt/sda10 vfat rw 0 0\n"
                               "/DEV/sda1 /mnt/sda1 vfat rw 0 0\n"
                               "/dev/sda1 /mnt/sda1/ vfat rw 0 0\n";
    EXPECT_EQ(table_after_removal(with(longer)), with(longer));
}

TEST(MtabRemove, CopiesATableWithoutTheLineUnchanged)
{
    EXPECT_EQ(table_after_removal(with("")), with(""));
    EXPECT_EQ(fake_world().count("rename"), 1);
}

TEST(MtabRemove, LeavesAnEmptyTableWhereItWasTheOnlyLine)
{
    EXPECT_EQ(table_after_removal(line), "");
    EXPECT_TRUE(exists(table_file));
}

TEST(MtabRemove, FindsAndKeepsPathsWithBlanks)
{
    const std::string other = "/dev/sdc1 /mnt/your\\040disk vfat rw 0 0\n";
    write_file(table_file, with("/dev/sda1 /mnt/my\\040disk vfat rw 0 0\n" + other));
    mtab_remove("/dev/sda1", "/mnt/my disk");
    EXPECT_EQ(read_table(), with(other));
}

TEST(MtabRemove, KeepsALastLineWithoutItsEnd)
{
    EXPECT_EQ(table_after_removal(line + std::string("/dev/sdb1 /mnt/sdb1 ext3 rw 0 0")),
              last_line);
}

// Some C libraries cut a line that does not fit; others stop at it, then the table stays.
TEST(MtabRemove, ALineThatIsTooLongCostsNoOther)
{
    for (const size_t size : {size_t{490}, size_t{600}, size_t{5000}}) {
        SCOPED_TRACE(size);
        const std::string overlay = "overlay / overlay " + std::string(size, 'x') + " 0 0\n";
        const std::string table = table_after_removal(with(line + overlay));
        EXPECT_EQ(table.substr(0, strlen(first_lines)), first_lines);
        EXPECT_NE(table.find("\noverlay / overlay xxx"), std::string::npos);
        ASSERT_GE(table.size(), strlen(last_line));
        EXPECT_EQ(table.substr(table.size() - strlen(last_line)), last_line);
    }
}

TEST(MtabRemove, ReplacesWhatATemporaryFileHeldBefore)
{
    write_file(temporary_file, std::string(1000, '#') + "\n");
    EXPECT_EQ(table_after_removal(with(line)), with(""));
}

// ---- what goes wrong ----

TEST(MtabRemove, LeavesTheTableWithoutATemporaryFile)
{
    ASSERT_EQ(mkdir(temporary_file, 0755), 0);
    EXPECT_EQ(table_after_removal(with(line)), with(line));
    EXPECT_EQ(fake_world().count("rename"), 0);
}

TEST(MtabRemove, LeavesTheTemporaryFileWithoutATable)
{
    ASSERT_EQ(unlink(table_file), 0);
    mtab_remove("/dev/sda1", "/mnt/sda1");
    EXPECT_FALSE(exists(table_file));
    EXPECT_TRUE(exists(temporary_file));
    EXPECT_EQ(fake_world().count("rename"), 0);
}

TEST(MtabRemove, LeavesATableThatCannotBeWrittenTo)
{
    write_file(table_file, with(line));
    protect_table();
    mtab_remove("/dev/sda1", "/mnt/sda1");
    EXPECT_EQ(read_table(), with(line));
    EXPECT_EQ(fake_world().count("rename"), 0);
    EXPECT_TRUE(exists(temporary_file));
    EXPECT_EQ(read_file(temporary_file), "");
}

TEST(MtabRemove, LeavesTheTableWhenTheDiskIsFull)
{
    ASSERT_EQ(mount("full", "/tmp", "tmpfs", 0, "size=4096"), 0);
    std::string table;
    for (int number = 0; number < 1000; number++)
        table += "/dev/sdb1 /mnt/some/directory/" + std::to_string(number) + " ext3 rw 0 0\n";
    EXPECT_EQ(table_after_removal(line + table), line + table);
    EXPECT_EQ(fake_world().count("rename"), 0);
    EXPECT_TRUE(exists(temporary_file));
}

// Not even the copy's first byte fits.
TEST(MtabRemove, LeavesTheTableWhenTheDiskWasFullBefore)
{
    ASSERT_EQ(mount("full", "/tmp", "tmpfs", 0, "size=8192"), 0);
    write_file("/tmp/filler", std::string(8192, '#')); // nothing is left
    EXPECT_EQ(table_after_removal(with(line)), with(line));
    EXPECT_EQ(fake_world().count("rename"), 0);
}

// The start of a process's own memory cannot be read.
TEST(MtabRemove, LeavesATableThatCannotBeReadToItsEnd)
{
    ASSERT_EQ(mount("/proc/self/mem", table_file, nullptr, MS_BIND, nullptr), 0);
    mtab_remove("/dev/sda1", "/mnt/sda1");
    EXPECT_EQ(fake_world().count("rename"), 0);
    EXPECT_TRUE(exists(temporary_file));
}

TEST(MtabRemove, KeepsTheStaleLineWhenTheFileCannotBeMoved)
{
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(table_after_removal(with(line)), with(line));
    EXPECT_EQ(read_table(temporary_file), with(""));
}

// Whether the table is a link to exactly that.
bool is_link_to(const std::string& target)
{
    char text[256] = {};
    return readlink(table_file, text, sizeof text - 1) > 0 && target == text;
}

TEST(MtabRemove, LeavesATableOfTheKernelsAlone)
{
    for (const char* table : {"/proc/self/mounts", "/proc/mounts", "../proc/self/mounts"}) {
        ASSERT_EQ(unlink(table_file), 0);
        ASSERT_EQ(symlink(table, table_file), 0);
        mtab_remove("/dev/sda1", "/mnt/sda1");
        EXPECT_TRUE(is_link_to(table));
        EXPECT_EQ(fake_world().count("rename"), 0);
        EXPECT_FALSE(exists(temporary_file));
    }
}

// It is kept as any other file: the new table takes the link's place.
TEST(MtabRemove, RewritesATableBehindALink)
{
    ASSERT_EQ(unlink(table_file), 0);
    write_file("/media/mounts", with(line));
    ASSERT_EQ(symlink("/media/mounts", table_file), 0);
    mtab_remove("/dev/sda1", "/mnt/sda1");
    EXPECT_FALSE(is_link_to("/media/mounts"));
    EXPECT_EQ(read_table(), with(""));
    EXPECT_EQ(read_file("/media/mounts"), with(line));
}

TEST(MtabRemove, HoldsNoDescriptorAfterwards)
{
    const int before = open_descriptors();
    table_after_removal(with(line));
    fake_world().fail("rename", 1, EXDEV);
    table_after_removal(with(line));
    ASSERT_EQ(unlink(table_file), 0);
    mtab_remove("/dev/sda1", "/mnt/sda1");
    mtab_append("/dev/sda1", "/mnt/sda1", "vfat", "rw");
    EXPECT_EQ(open_descriptors(), before);
}

// ---- appending ----

TEST(MtabAppend, WritesNodeDirectoryTypeOptionsAndTwoZeros)
{
    write_file(table_file, last_line);
    mtab_append("/dev/sda1", "/mnt/sda1", "vfat", "rw");
    EXPECT_EQ(read_table(), std::string(last_line) + line);
}

TEST(MtabAppend, MakesATableThatIsMissing)
{
    ASSERT_EQ(unlink(table_file), 0);
    mtab_append("/dev/sda1", "/mnt/sda1", "vfat", "rw");
    EXPECT_EQ(read_table(), line);
}

TEST(MtabAppend, LeavesATableThatCannotBeWrittenTo)
{
    write_file(table_file, last_line);
    protect_table();
    mtab_append("/dev/sda1", "/mnt/sda1", "vfat", "rw");
    EXPECT_EQ(read_table(), last_line);
    EXPECT_TRUE(fake_world().journal.empty());
}

TEST(MtabAppend, LeavesATableOfTheKernelsAlone)
{
    ASSERT_EQ(unlink(table_file), 0);
    ASSERT_EQ(symlink("/proc/self/mounts", table_file), 0);
    const std::string before = read_file(table_file);
    mtab_append("/dev/sda1", "/mnt/sda1", "vfat", "rw");
    EXPECT_EQ(read_file(table_file), before);
    EXPECT_TRUE(is_link_to("/proc/self/mounts"));
}

TEST(MtabAppend, WritesToATableBehindALink)
{
    ASSERT_EQ(unlink(table_file), 0);
    write_file("/media/mounts", last_line);
    ASSERT_EQ(symlink("/media/mounts", table_file), 0);
    mtab_append("/dev/sda1", "/mnt/sda1", "vfat", "rw");
    EXPECT_EQ(read_table("/media/mounts"), std::string(last_line) + line);
    EXPECT_TRUE(is_link_to("/media/mounts"));
}

// A link that leads nowhere yet.
TEST(MtabAppend, MakesATableBehindALink)
{
    ASSERT_EQ(unlink(table_file), 0);
    ASSERT_EQ(symlink("/media/mounts", table_file), 0);
    mtab_append("/dev/sda1", "/mnt/sda1", "vfat", "rw");
    EXPECT_EQ(read_table("/media/mounts"), line);
}

TEST(MtabAppend, WritesToTheTableItself)
{
    mtab_append("/dev/sda1", "/mnt/sda1", "vfat", "rw");
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_FALSE(exists(temporary_file));
}

} // namespace
