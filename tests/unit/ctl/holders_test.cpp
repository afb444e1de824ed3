#include "ctl/holders.h"

#include "lib/guard.h"
#include "support/child.h"
#include "support/failing_calls.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

TEST(Holders, AFileThatIsHeldTwiceStandsThereOnce)
{
    const std::string place = "/tmp/held";
    ASSERT_EQ(mkdir(place.c_str(), 0755), 0);
    ASSERT_EQ(mount("x", place.c_str(), "tmpfs", 0, nullptr), 0);
    for (const char* name : {"/a", "/b"})
        write_file(place + name, "");
    const FdGuard first(open("/tmp/held/a", O_RDONLY | O_CLOEXEC));
    const FdGuard second(open("/tmp/held/b", O_RDONLY | O_CLOEXEC));
    const FdGuard third(open("/tmp/held/b", O_RDONLY | O_CLOEXEC));
    MountinfoGuard mounts;
    ASSERT_EQ(mountinfo_load(mountinfo_path, mounts.out()), 0);
    const MountinfoEntry& mount = mounts->entries[mounts->count - 1];
    ASSERT_EQ(mount.directory, place);
    HolderTable table = {};
    EXPECT_EQ(holders_find(mount, &table), 0);
    std::vector<std::string> files;
    for (size_t i = 0; i < table.count; i++) {
        EXPECT_EQ(table.holders[i].pid, getpid());
        files.emplace_back(table.holders[i].file);
    }
    EXPECT_EQ(files, (std::vector<std::string>{place + "/a", place + "/b"}));
    holders_end(&table);
}

namespace {

// A filesystem, and a process that holds something of it until the test's end.
class HoldersTest : public testing::Test {
  protected:
    HoldersTest()
    {
        EXPECT_EQ(mkdir("/tmp/held", 0755), 0);
        EXPECT_EQ(mount("x", "/tmp/held", "tmpfs", 0, nullptr), 0);
        std::filesystem::create_directories("/tmp/held/folder");
    }
    ~HoldersTest() override { holders_end(&table_); }

    // "use file" of the one holder that there is.
    std::string held_by(pid_t pid)
    {
        static constexpr const char* words[] = {"file", "directory", "root", "program", "map"};
        EXPECT_EQ(find(), 0);
        if (table_.count != 1)
            return std::to_string(table_.count);
        EXPECT_EQ(table_.holders[0].pid, pid);
        return std::string(words[table_.holders[0].use]) + " " + table_.holders[0].file;
    }

    int find()
    {
        holders_end(&table_);
        const MountinfoEntry mount = {.id = 1,
                                      .parent = 1,
                                      .major = 0,
                                      .minor = 0,
                                      .root = "/",
                                      .directory = "/tmp/held",
                                      .type = "tmpfs",
                                      .source = "x",
                                      .options = "",
                                      .readonly = false};
        return holders_find(mount, &table_);
    }

    HolderTable table_ = {};
};

} // namespace

TEST_F(HoldersTest, ADirectoryInWhichAProcessIs)
{
    const pid_t pid = waiting_child([] { return chdir("/tmp/held/folder") == 0; });
    EXPECT_EQ(held_by(pid), "directory /tmp/held/folder");
}

TEST_F(HoldersTest, ARootDirectory)
{
    const pid_t pid = waiting_child([] { return chroot("/tmp/held/folder") == 0; });
    EXPECT_EQ(held_by(pid), "root /tmp/held/folder");
}

TEST_F(HoldersTest, AProgramThatRunsIsNotAMapToo)
{
    std::filesystem::copy_file("/bin/sleep", "/tmp/held/sleeper");
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/tmp/held/sleeper", "sleeper", "1000", nullptr);
        _exit(1);
    }
    EXPECT_TRUE(wait_for([this, pid] { return held_by(pid) == "program /tmp/held/sleeper"; }));
    EXPECT_STREQ(table_.holders[0].command, "sleeper");
}

TEST_F(HoldersTest, AMapOfAFileThatIsClosed)
{
    write_file("/tmp/held/a map", "text");
    const pid_t pid = waiting_child([] {
        const int fd = open("/tmp/held/a map", O_RDONLY | O_CLOEXEC);
        const bool mapped = mmap(nullptr, 4, PROT_READ, MAP_PRIVATE, fd, 0) != MAP_FAILED;
        return close(fd) == 0 && mapped;
    });
    EXPECT_EQ(held_by(pid), "map /tmp/held/a map");
}

// ---- looks that fail ----

static bool map_a_file()
{
    write_file("/tmp/held/map", "text");
    const FdGuard fd(open("/tmp/held/map", O_RDONLY | O_CLOEXEC));
    return mmap(nullptr, 4, PROT_READ, MAP_PRIVATE, fd.get(), 0) != MAP_FAILED;
}

TEST_F(HoldersTest, WithoutDescriptorsSomeMayBeMissing)
{
    const pid_t pid = waiting_child([] { return map_a_file() && chdir("/tmp/held") == 0; });
    size_t few = 0;
    for (int result = -1; result != 0; few++) {
        with_few_descriptors(few, [&] { result = find(); });
        EXPECT_TRUE(result == -EMFILE || table_.count == 2) << few;
        EXPECT_TRUE(result == -EMFILE || table_.holders[0].pid == pid) << few;
    }
    EXPECT_EQ(few, 4U) << "processes, one of them, what it has open or its maps";
}

TEST_F(HoldersTest, WithoutMemorySomeMayBeMissing)
{
    (void)waiting_child(map_a_file);
    int struck = 0;
    for (;; struck++) {
        memory_fail(struck + 1);
        const int result = find();
        if (!memory_failed())
            break;
        EXPECT_TRUE(result == -ENOMEM || table_.count == 1) << struck;
    }
    EXPECT_EQ(table_.count, 1U);
    EXPECT_GT(struck, 0);
}

// Whoever looks at it a piece at a time must not take two processes for one.
TEST_F(HoldersTest, WhoComesByTheNumberOfOneThatEndsHoldsNothing)
{
    pid_t pid = 0;
    const auto replace = [&pid] {
        EXPECT_EQ(kill(pid, SIGKILL), 0);
        EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
        write_file("/proc/sys/kernel/ns_last_pid", std::to_string(pid - 1));
        EXPECT_EQ(waiting_child([] { return setuid(7) == 0; }), pid);
    };
    int nth = 0;
    for (bool replaced = true; replaced;) {
        pid = waiting_child([] { return chdir("/tmp/held") == 0; });
        call_before("stat", ++nth, replace);
        EXPECT_EQ(find(), 0);
        replaced = call_failed();
        for (size_t i = 0; i < table_.count; i++) {
            EXPECT_EQ(table_.holders[i].uid, 0U) << nth;
            EXPECT_STRNE(table_.holders[i].command, "") << nth;
        }
        EXPECT_EQ(kill(pid, SIGKILL), 0);
        EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    }
    EXPECT_EQ(table_.count, 1U);
    EXPECT_GT(nth, 8);
}

TEST_F(HoldersTest, AnythingElseHoldsNothing)
{
    write_file("/tmp/other", "text");
    const FdGuard other(open("/tmp/other", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(held_by(0), "0");
    ASSERT_EQ(umount("/tmp/held"), 0);
    ASSERT_EQ(rmdir("/tmp/held"), 0);
    EXPECT_EQ(held_by(0), "0") << "it has gone";
}

TEST_F(HoldersTest, ManyFilesAreManyLines)
{
    std::vector<std::string> files;
    FdGuard held[20];
    for (int i = 0; i < 20; i++) {
        files.push_back("/tmp/held/" + std::to_string(i));
        held[i].reset(open(files.back().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    }
    EXPECT_EQ(held_by(0), "20");
    for (size_t i = 0; i < table_.count && i < files.size(); i++)
        EXPECT_EQ(table_.holders[i].file, files[i]);
}

TEST(HoldersTold, AsALineAndAsAnObject)
{
    char file[] = "/mnt/\033x";
    Holder holders[2] = {};
    holders[0] = {.pid = 7,
                  .uid = 0,
                  .use = HOLDS_DIRECTORY,
                  .command = "sh",
                  .file = nullptr,
                  .client_user = "",
                  .client_machine = ""};
    holders[1] = {.pid = 8,
                  .uid = 4294,
                  .use = HOLDS_FILE,
                  .command = "smbd",
                  .file = file,
                  .client_user = "anna",
                  .client_machine = "box"};
    const HolderTable table = {.holders = holders, .count = 2};
    EXPECT_EQ(written_by([&table](FILE* out) { holders_print(out, table); }),
              "  sh (process 7 of root, directory) \n"
              "  smbd (process 8 of 4294, file) /mnt/\\x1bx, for anna at box\n");
    EXPECT_EQ(written_by([&table](FILE* out) {
                  Json json = {.out = out, .more = false};
                  holders_json(&json, "holders", table);
              }),
              R"("holders":[{"pid":7,"uid":0,"user":"root","command":"sh","use":"directory",)"
              R"("file":null,"client":null},{"pid":8,"uid":4294,"user":"4294",)"
              R"("command":"smbd","use":"file","file":"/mnt/\u001bx",)"
              R"("client":{"user":"anna","machine":"box"}}])");
}

TEST_F(HoldersTest, TheLongestPathThatTheKernelTells)
{
    FdGuard inner(open("/tmp/held", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string path = "/tmp/held";
    while (path.size() < PATH_MAX - 1) {
        const std::string name(std::min<size_t>(NAME_MAX, PATH_MAX - 2 - path.size()), 'n');
        ASSERT_EQ(mkdirat(inner.get(), name.c_str(), 0755), 0);
        inner.reset(openat(inner.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        path += "/" + name;
    }
    EXPECT_TRUE(held_by(getpid()) == "file " + path);
}

TEST(Holders, ATerminalObeysNoName)
{
    const std::string people = read_file("/etc/passwd");
    write_file("/etc/passwd", people + "e\x1b[2Jve:x:7001:100::/:/bin/sh\n");
    Holder holder = {};
    holder.pid = 12;
    holder.uid = 7001;
    strcpy(holder.command, "cp");
    const HolderTable table = {.holders = &holder, .count = 1};
    EXPECT_EQ(written_by([&](FILE* out) { holders_print(out, table); }),
              "  cp (process 12 of e\\x1b[2Jve, file) \n");
    write_file("/etc/passwd", people);
}
