#include "share/include_file.h"

#include "fake/fake_world.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

namespace {

using Names = std::set<std::string>;

const std::string folder = "/tmp/samba";
const std::string path = folder + "/shares.conf";

unsigned mode_of(const std::string& name)
{
    struct stat status = {};
    EXPECT_EQ(lstat(name.c_str(), &status), 0);
    return status.st_mode & 07777U;
}

std::string read_back()
{
    char* text = nullptr;
    if (include_file_read(path.c_str(), &text) != 0)
        return "(error)";
    const std::string content = text;
    free(text);
    return content;
}

} // namespace

TEST(IncludeFile, IsWrittenWithItsDirectoryAndReadBack)
{
    umask(0);
    ASSERT_EQ(include_file_write(path.c_str(), "[A]\n"), 0);
    EXPECT_EQ(read_file(path), "[A]\n");
    EXPECT_EQ(read_back(), "[A]\n");
    EXPECT_EQ(names_in(folder), Names{"shares.conf"});
    EXPECT_EQ(mode_of(folder), 0755U);
}

TEST(IncludeFile, EverybodyMayReadItWhateverTheUmask)
{
    umask(0777);
    ASSERT_EQ(include_file_write(path.c_str(), ""), 0);
    EXPECT_EQ(mode_of(path), 0644U);
}

TEST(IncludeFile, IsReplacedByAnotherFile)
{
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    write_file(path, "old");
    ASSERT_EQ(link(path.c_str(), (folder + "/kept").c_str()), 0);
    ASSERT_EQ(include_file_write(path.c_str(), "new"), 0);
    EXPECT_EQ(read_file(path), "new");
    EXPECT_EQ(read_file(folder + "/kept"), "old");
}

TEST(IncludeFile, ALinkInItsPlaceIsReplacedAndNotFollowed)
{
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    write_file("/tmp/other", "other");
    ASSERT_EQ(symlink("/tmp/other", path.c_str()), 0);
    ASSERT_EQ(include_file_write(path.c_str(), "new"), 0);
    EXPECT_EQ(read_file("/tmp/other"), "other");
    EXPECT_EQ(read_file(path), "new");
    EXPECT_EQ(mode_of(path), 0644U);
}

TEST(IncludeFile, WhenItCannotBeMovedTheOldOneStays)
{
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    write_file(path, "old");
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(include_file_write(path.c_str(), "new"), -EXDEV);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_EQ(names_in(folder), Names{"shares.conf"});
}

// Small enough for a stream's buffer, and larger.
TEST(IncludeFile, WhenTheDiskIsFullTheOldOneStays)
{
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    ASSERT_EQ(mount("full", folder.c_str(), "tmpfs", 0, "size=64k"), 0);
    write_file(path, "old");
    write_file(folder + "/filler", std::string(60 * 1024, 'x')); // no page is left
    constexpr size_t sizes[] = {3000, 100000};
    for (const size_t size : sizes) {
        EXPECT_EQ(include_file_write(path.c_str(), std::string(size, 'n').c_str()), -ENOSPC);
        EXPECT_EQ(read_file(path), "old");
        EXPECT_EQ(names_in(folder), (Names{"filler", "shares.conf"}));
    }
}

TEST(IncludeFile, TellsWhyItCannotBeWritten)
{
    fake_world().fail("mkdir", 1, EACCES);
    EXPECT_EQ(include_file_write(path.c_str(), ""), -EACCES);
    EXPECT_EQ(include_file_write("/tmp/a/b/c", ""), -ENOENT);
    EXPECT_EQ(include_file_write(("/tmp/" + std::string(5000, 'x')).c_str(), ""), -ENAMETOOLONG);
    EXPECT_EQ(include_file_write("/proc/shares.conf", ""), -ENOENT);
}

TEST(IncludeFile, TellsWhyItCannotBeRead)
{
    char* text = nullptr;
    EXPECT_EQ(include_file_read("/tmp/none", &text), -ENOENT);
    EXPECT_EQ(include_file_read("/tmp", &text), -EINVAL);
    EXPECT_EQ(text, nullptr);
}
