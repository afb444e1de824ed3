#include "lib/file.h"

#include "fake/fake_world.h"
#include "support/failing_calls.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

namespace {

const std::string folder = "/tmp/files";
const std::string path = folder + "/kept.conf";

class File : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(mkdir(folder.c_str(), 0755), 0); }
    void TearDown() override
    {
        for (const std::string& name : names())
            unlink((folder + "/" + name).c_str());
        umount(folder.c_str());
        rmdir(folder.c_str());
    }

    static std::set<std::string> names() { return names_in(folder); }

    static int replace(const std::string& text, unsigned flags = 0)
    {
        return file_replace(path.c_str(), text.data(), text.size(), 0640, flags);
    }
};

// A folder for so many bytes.
void mount_small(const char* options)
{
    ASSERT_EQ(mount("small", folder.c_str(), "tmpfs", 0, options), 0);
}

std::string text_of(const FileBytes& content)
{
    return {content.bytes.get(), content.size};
}

// ---- reading ----

TEST_F(File, IsReadWholeWhateverItsSize)
{
    constexpr size_t sizes[] = {0, 1, 4094, 4095, 4096, 4097, 8191, 100000};
    for (const size_t size : sizes) {
        const std::string text(size, 'x');
        write_file(path, text);
        FileBytes content;
        ASSERT_EQ(file_read_all(path.c_str(), 0, FILE_ANY_SIZE, &content), 0);
        EXPECT_EQ(text_of(content), text);
        EXPECT_EQ(content.bytes.get()[size], '\0');
    }
}

TEST_F(File, ThatDoesNotTellItsSizeIsReadWhole)
{
    FileBytes content;
    ASSERT_EQ(file_read_all("/proc/self/smaps", 0, FILE_ANY_SIZE, &content), 0);
    EXPECT_GT(content.size, 4096U);
    EXPECT_EQ(content.bytes.get()[content.size - 1], '\n');
}

TEST_F(File, TakesThePlaceOfWhatWasReadBefore)
{
    FileBytes content;
    write_file(path, "first and long");
    ASSERT_EQ(file_read_all(path.c_str(), 0, FILE_ANY_SIZE, &content), 0);
    write_file(path, "second");
    ASSERT_EQ(file_read_all(path.c_str(), 0, FILE_ANY_SIZE, &content), 0);
    EXPECT_EQ(text_of(content), "second");
}

TEST_F(File, LargerThanAllowedIsRefused)
{
    FileBytes content;
    write_file(path, "123456");
    EXPECT_EQ(file_read_all(path.c_str(), 0, 6, &content), 0);
    EXPECT_EQ(file_read_all(path.c_str(), 0, 5, &content), -EFBIG);
}

TEST_F(File, ThatIsNoneIsRefusedWithoutWaiting)
{
    FileBytes content;
    EXPECT_EQ(file_read_all(path.c_str(), 0, FILE_ANY_SIZE, &content), -ENOENT);
    EXPECT_EQ(file_read_all(folder.c_str(), 0, FILE_ANY_SIZE, &content), -EINVAL);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(file_read_all(path.c_str(), 0, FILE_ANY_SIZE, &content), -EINVAL);
}

TEST_F(File, IsOpenForNobodyElse)
{
    FileBytes content;
    EXPECT_TRUE(inheritable_after([&] {
                    EXPECT_EQ(replace("new", FILE_DURABLE), 0);
                    EXPECT_EQ(file_read_all(path.c_str(), 0, FILE_ANY_SIZE, &content), 0);
                }).empty());
}

TEST_F(File, IsReadAndReplacedThroughTheFirstDescriptor)
{
    FileBytes content;
    with_input_closed([&] {
        EXPECT_EQ(replace("new", FILE_DURABLE), 0);
        EXPECT_EQ(file_read_all(path.c_str(), 0, FILE_ANY_SIZE, &content), 0);
    });
    EXPECT_EQ(text_of(content), "new");
}

TEST_F(File, BehindALinkIsReadUnlessLinksAreRefused)
{
    write_file(folder + "/target", "text");
    ASSERT_EQ(symlink("target", path.c_str()), 0);
    FileBytes content;
    EXPECT_EQ(file_read_all(path.c_str(), 0, FILE_ANY_SIZE, &content), 0);
    EXPECT_EQ(file_read_all(path.c_str(), O_NOFOLLOW, FILE_ANY_SIZE, &content), -ELOOP);
}

TEST_F(File, KeepsWhatCameBeforeAFailedRead)
{
    const FdGuard directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY));
    FileBytes content;
    EXPECT_EQ(file_read_fd(directory.get(), FILE_ANY_SIZE, &content), -EISDIR);
    EXPECT_EQ(content.size, 0U);
    EXPECT_STREQ(content.bytes.get(), "");
}

TEST_F(File, MemoryThatRunsOutIsToldAndNothingLeaks)
{
    write_file(path, std::string(100000, 'x'));
    const long before = memory_blocks();
    for (int nth = 1; nth < 10; nth++) {
        FileBytes content;
        int pipe_ends[2];
        ASSERT_EQ(pipe(pipe_ends), 0);
        ASSERT_EQ(write(pipe_ends[1], std::string(20000, 'y').data(), 20000), 20000);
        close(pipe_ends[1]);
        memory_fail(nth);
        const int result = file_read_fd(pipe_ends[0], FILE_ANY_SIZE, &content);
        EXPECT_EQ(result, memory_failed() ? -ENOMEM : 0) << nth;
        close(pipe_ends[0]);
    }
    EXPECT_EQ(memory_blocks(), before);
}

// ---- replacing ----

TEST_F(File, IsMadeWithItsModeWhateverTheUmask)
{
    const mode_t before = umask(0777);
    EXPECT_EQ(replace("new"), 0);
    umask(before);
    struct stat status = {};
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0640U);
    EXPECT_EQ(read_file(path), "new");
    EXPECT_EQ(names(), std::set<std::string>{"kept.conf"});
}

TEST_F(File, IsReplacedByAnotherFile)
{
    write_file(path, "old");
    ASSERT_EQ(link(path.c_str(), (folder + "/other").c_str()), 0);
    EXPECT_EQ(replace("new", FILE_DURABLE), 0);
    EXPECT_EQ(read_file(path), "new");
    EXPECT_EQ(read_file(folder + "/other"), "old");
}

TEST_F(File, ALinkIsReplacedAndNotFollowed)
{
    write_file(folder + "/target", "target");
    ASSERT_EQ(symlink("target", path.c_str()), 0);
    EXPECT_EQ(replace("new"), 0);
    EXPECT_EQ(read_file(folder + "/target"), "target");
    EXPECT_EQ(read_file(path), "new");
}

// Nobody can lay a file or a link in wait where the new one is made: its name is another each time.
TEST_F(File, IsMadeUnderANameThatNobodyCanForetell)
{
    fake_world_reset();
    EXPECT_EQ(replace("one"), 0);
    EXPECT_EQ(replace("two"), 0);
    const std::vector<std::string> moves = fake_world().calls("rename ");
    ASSERT_EQ(moves.size(), 2U);
    EXPECT_NE(moves[0], moves[1]);
}

TEST_F(File, MayHoldAnyBytesOrNone)
{
    const std::string bytes("a\0b\n", 4);
    EXPECT_EQ(replace(bytes), 0);
    EXPECT_EQ(read_file(path), bytes);
    EXPECT_EQ(replace(""), 0);
    EXPECT_EQ(read_file(path), "");
}

// Small enough for a stream's buffer, and larger.
TEST_F(File, StaysWhenTheDiskIsFull)
{
    mount_small("size=64k");
    write_file(path, "old");
    write_file(folder + "/filler", std::string(60 * 1024, 'x')); // no page is left
    constexpr size_t sizes[] = {3000, 100000};
    for (const size_t size : sizes) {
        EXPECT_EQ(replace(std::string(size, 'n')), -ENOSPC) << size;
        EXPECT_EQ(read_file(path), "old");
        EXPECT_EQ(names(), (std::set<std::string>{"filler", "kept.conf"}));
    }
}

TEST_F(File, StaysWhenTheNewOneCannotBeMade)
{
    mount_small("nr_inodes=2");
    write_file(path, "old");
    EXPECT_EQ(replace("new"), -ENOSPC);
    EXPECT_EQ(read_file(path), "old");
}

TEST_F(File, StaysWhenTheNewOneCannotBeMoved)
{
    write_file(path, "old");
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(replace("new"), -EXDEV);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_EQ(names(), std::set<std::string>{"kept.conf"});
    fake_world_reset();
}

TEST_F(File, WithANameTooLongIsRefused)
{
    EXPECT_EQ(file_replace(std::string(5000, 'x').c_str(), "", 0, 0600, 0), -ENAMETOOLONG);
    EXPECT_EQ(file_replace("/tmp/files/none/x", "", 0, 0600, 0), -ENOENT);
}

// The calls from the last replacing on: the file is written down before it is moved, its directory
// behind.
std::vector<std::string> order()
{
    std::vector<std::string> made;
    for (const std::string& call : fake_world().journal)
        made.push_back(call.substr(0, call.find(' ')));
    fake_world_reset();
    return made;
}

TEST_F(File, ThatMustSurviveAPowerCutIsWrittenDownWithItsDirectory)
{
    const std::vector<std::string> durable = {"fsync", "rename", "fsync"};
    fake_world_reset();
    EXPECT_EQ(replace("new", FILE_DURABLE), 0);
    EXPECT_EQ(order(), durable);
    ASSERT_EQ(chdir(folder.c_str()), 0);
    EXPECT_EQ(file_replace("beside", "x", 1, 0600, FILE_DURABLE), 0);
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(order(), durable);
    EXPECT_EQ(file_replace("/at_the_root", "x", 1, 0600, FILE_DURABLE), 0);
    EXPECT_EQ(order(), durable);
    EXPECT_EQ(unlink("/at_the_root"), 0);
    EXPECT_EQ(replace("new"), 0);
    EXPECT_EQ(order(), std::vector<std::string>{"rename"});
}

TEST_F(File, ThatCannotBeWrittenDownDoesNotTakeTheOldOnesPlace)
{
    write_file(path, "old");
    fake_world().fail("fsync", 1, EIO);
    EXPECT_EQ(replace("new", FILE_DURABLE), -EIO);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_EQ(names(), std::set<std::string>{"kept.conf"});
    fake_world().fail("fsync", 2, EIO);
    EXPECT_EQ(replace("new", FILE_DURABLE), -EIO);
    EXPECT_EQ(read_file(path), "new");
    fake_world_reset();
}

} // namespace
