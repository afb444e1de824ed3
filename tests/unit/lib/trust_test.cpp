#include "lib/trust.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "lib/guard.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

namespace {

constexpr uid_t stranger = 1234;
const std::string closed = "/media/closed"; // root's alone
const std::string sticky = "/media/sticky"; // open to everybody, as /tmp is
const std::string open_dir = "/media/open"; // open to everybody, who may rename what others made

class Trust : public testing::Test {
  protected:
    Trust()
    {
        make_directory(closed, 0755);
        make_directory(sticky, 01777);
        make_directory(open_dir, 0777);
        write_file(closed + "/file", "content");
        write_file(sticky + "/file", "content");
        umask(022);
    }
    ~Trust() override
    {
        for (const std::string& directory : {closed, sticky, open_dir}) {
            while (umount(directory.c_str()) == 0) {
            }
            EXPECT_EQ(system(("rm -rf " + directory).c_str()), 0);
        }
        fake_world_reset();
    }

    static void make_directory(const std::string& path, mode_t mode)
    {
        ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }
    static void give(const std::string& path)
    {
        ASSERT_EQ(lchown(path.c_str(), stranger, stranger), 0);
    }
    static void make_link(const std::string& target, const std::string& path)
    {
        ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
    }

    // What opening for reading says: 0 when the file's content could be read.
    static int opened(const std::string& path)
    {
        const int before = open_descriptors();
        int result = trust_open(path.c_str());
        {
            const FdGuard fd(result);
            char text[16] = {};
            if (result >= 0) {
                EXPECT_EQ(read(fd.get(), text, sizeof text), 7);
                EXPECT_STREQ(text, "content");
                EXPECT_EQ(fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
                result = 0;
            }
        }
        EXPECT_EQ(open_descriptors(), before);
        return result;
    }

    // Names in the sticky directory.
    static std::vector<std::string> names()
    {
        std::vector<std::string> found;
        DIR* directory = opendir(sticky.c_str());
        for (const dirent* entry = readdir(directory); entry != nullptr; entry = readdir(directory))
            if (entry->d_name[0] != '.')
                found.emplace_back(entry->d_name);
        closedir(directory);
        return found;
    }
};

// ---- reading ----

TEST_F(Trust, AFileOfRootsIsTrusted)
{
    EXPECT_EQ(opened(closed + "/file"), 0);
    EXPECT_EQ(opened(sticky + "/file"), 0);
    EXPECT_EQ(opened("//media///closed//file"), 0);
    EXPECT_EQ(opened("/media/./closed/../closed/file"), 0);
    EXPECT_EQ(opened("/media/sticky/../closed/file"), 0);
}

TEST_F(Trust, WhatIsNotThereIsToldApart)
{
    EXPECT_EQ(opened(closed + "/none"), -ENOENT);
    EXPECT_EQ(opened("/media/none/file"), -ENOENT);
    make_link("nowhere", closed + "/link");
    EXPECT_EQ(opened(closed + "/link"), -ENOENT);
}

TEST_F(Trust, AFileOfSomebodyElsesIsNot)
{
    for (const std::string& directory : {closed, sticky}) {
        give(directory + "/file");
        EXPECT_EQ(opened(directory + "/file"), -EACCES);
    }
}

TEST_F(Trust, AFileThatOthersMayWriteToIsNot)
{
    constexpr mode_t modes[] = {0666, 0664, 0646, 0602, 0620};
    for (const mode_t mode : modes) {
        ASSERT_EQ(chmod((closed + "/file").c_str(), mode), 0);
        EXPECT_EQ(opened(closed + "/file"), -EPERM) << mode;
    }
    ASSERT_EQ(chmod((closed + "/file").c_str(), 0755), 0);
    EXPECT_EQ(opened(closed + "/file"), 0);
}

TEST_F(Trust, WhatIsNoFileIsNotAndIsNotWaitedFor)
{
    ASSERT_EQ(mkfifo((closed + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(opened(closed + "/fifo"), -EACCES);
    EXPECT_EQ(opened(closed), -EACCES);
    EXPECT_EQ(opened(closed + "/"), -EACCES);
    EXPECT_EQ(opened("/"), -EACCES);
    EXPECT_EQ(opened(closed + "/file/below"), -EACCES);
    EXPECT_EQ(opened("/dev/null"), -EACCES);
    EXPECT_EQ(opened("media/closed/file"), -EINVAL);
    EXPECT_EQ(opened(""), -EINVAL);
}

TEST_F(Trust, ADirectoryOfSomebodyElsesOnTheWayIsNot)
{
    make_directory(closed + "/sub", 0755);
    write_file(closed + "/sub/file", "content");
    EXPECT_EQ(opened(closed + "/sub/file"), 0);
    give(closed + "/sub");
    EXPECT_EQ(opened(closed + "/sub/file"), -EACCES);
    EXPECT_EQ(opened(closed + "/sub/../file"), -EACCES);
}

TEST_F(Trust, ADirectoryInWhichOthersMayRenameIsNot)
{
    write_file(open_dir + "/file", "content");
    EXPECT_EQ(opened(open_dir + "/file"), -EPERM);
    EXPECT_EQ(opened(open_dir + "/../closed/file"), -EPERM);
    ASSERT_EQ(chmod(open_dir.c_str(), 0775), 0);
    EXPECT_EQ(opened(open_dir + "/file"), -EPERM);
}

TEST_F(Trust, LinksOfRootsAreFollowed)
{
    make_link(closed + "/file", sticky + "/whole");
    EXPECT_EQ(opened(sticky + "/whole"), 0);
    make_link("closed", "/media/relative");
    EXPECT_EQ(opened("/media/relative/file"), 0);
    ASSERT_EQ(unlink("/media/relative"), 0);
    make_link("../closed/", sticky + "/up");
    EXPECT_EQ(opened(sticky + "/up/file"), 0);
    make_link("up/file", sticky + "/chain");
    EXPECT_EQ(opened(sticky + "/chain"), 0);
}

TEST_F(Trust, ALinkOfSomebodyElsesIsNotFollowed)
{
    make_link(closed + "/file", sticky + "/link");
    give(sticky + "/link");
    EXPECT_EQ(opened(sticky + "/link"), -EACCES);
}

TEST_F(Trust, ALinkToWhatIsNotTrustedIsNotTrusted)
{
    write_file(open_dir + "/file", "content");
    make_link(open_dir + "/file", closed + "/link");
    EXPECT_EQ(opened(closed + "/link"), -EPERM);
}

TEST_F(Trust, LinksInACircleEnd)
{
    make_link("other", closed + "/one");
    make_link("one", closed + "/other");
    EXPECT_EQ(opened(closed + "/one"), -ELOOP);
}

// Anybody may give a file of root's a second name in an open directory, where the kernel lets them.
TEST_F(Trust, AFileWithASecondNameIsNotWhereOthersCouldHaveGivenIt)
{
    ASSERT_EQ(link((sticky + "/file").c_str(), (sticky + "/again").c_str()), 0);
    EXPECT_EQ(opened(sticky + "/file"), -EACCES);
    EXPECT_EQ(opened(sticky + "/again"), -EACCES);
    ASSERT_EQ(link((closed + "/file").c_str(), (closed + "/again").c_str()), 0);
    EXPECT_EQ(opened(closed + "/again"), 0) << "root alone could";
    make_link(closed + "/file", sticky + "/link");
    ASSERT_EQ(link((sticky + "/link").c_str(), (sticky + "/same").c_str()), 0);
    EXPECT_EQ(opened(sticky + "/link"), -EACCES);
}

// What is mounted by somebody else may tell any owner.
TEST_F(Trust, AMountPointIsNotWhereOthersCouldHaveMounted)
{
    make_directory(sticky + "/mounted", 0755);
    make_directory(closed + "/mounted", 0755);
    for (const std::string& directory : {sticky, closed}) {
        ASSERT_EQ(mount("x", (directory + "/mounted").c_str(), "tmpfs", 0, "mode=755"), 0);
        write_file(directory + "/mounted/file", "content");
    }
    EXPECT_EQ(opened(sticky + "/mounted/file"), -EACCES);
    EXPECT_EQ(opened(closed + "/mounted/file"), 0);
    for (const std::string& directory : {sticky, closed})
        ASSERT_EQ(umount((directory + "/mounted").c_str()), 0);
}

// Between the look at an entry and its opening somebody puts something else in its place. What is
// opened is what counts.
TEST_F(Trust, WhatIsExchangedBehindTheLookIsSeenThrough)
{
    const std::string file = sticky + "/file";
    write_file(closed + "/other", "content");
    const std::function<void()> exchanges[] = {
        [&] { make_link(closed + "/other", file); },
        [&] { EXPECT_EQ(mkfifo(file.c_str(), 0600), 0); },
        [&] {
            write_file(file, "content");
            give(file);
        },
        [&] { EXPECT_EQ(link((closed + "/other").c_str(), file.c_str()), 0); },
    };
    for (const auto& exchange : exchanges) {
        call_before("openat", 3, [&] { // of "media", "sticky" and the file
            EXPECT_EQ(unlink(file.c_str()), 0);
            exchange();
        });
        alarm(60); // a FIFO is not waited for
        EXPECT_LT(opened(file), 0);
        alarm(0);
        EXPECT_TRUE(call_failed());
        ASSERT_EQ(unlink(file.c_str()), 0);
        write_file(file, "content");
    }
}

TEST_F(Trust, ADirectoryThatIsExchangedBehindTheLookIsSeenThrough)
{
    make_directory(sticky + "/sub", 0755);
    write_file(sticky + "/sub/file", "content");
    call_before("openat", 3, [&] {
        EXPECT_EQ(rename((sticky + "/sub").c_str(), (sticky + "/was").c_str()), 0);
        make_link(closed, sticky + "/sub");
    });
    EXPECT_LT(opened(sticky + "/sub/file"), 0);
    EXPECT_TRUE(call_failed());
}

TEST_F(Trust, ADirectoryThatBecomesSomebodyElsesBehindTheLookIsNot)
{
    make_directory(sticky + "/sub", 0755);
    write_file(sticky + "/sub/file", "content");
    call_before("openat", 3, [&] {
        EXPECT_EQ(rename((sticky + "/sub").c_str(), (sticky + "/was").c_str()), 0);
        make_directory(sticky + "/sub", 0755);
        write_file(sticky + "/sub/file", "content");
        give(sticky + "/sub");
    });
    EXPECT_EQ(opened(sticky + "/sub/file"), -EACCES);
    EXPECT_TRUE(call_failed());
}

TEST_F(Trust, NamesAndPathsThatAreTooLongAreRefused)
{
    EXPECT_EQ(opened("/" + std::string(300, 'x')), -ENAMETOOLONG);
    EXPECT_EQ(opened("/" + std::string(5000, 'x')), -ENAMETOOLONG);
    std::string path = closed;
    while (path.size() < 4000)
        path += "/.";
    EXPECT_EQ(opened(path + "/file"), 0);
    make_link(std::string(2000, 'x'), closed + "/long");
    EXPECT_EQ(opened(closed + "/long/" + std::string(2500, 'y')), -ENAMETOOLONG);
}

TEST_F(Trust, TheOwnUsersFilesAreTrustedToo)
{
    give(closed + "/file");
    ASSERT_EQ(seteuid(stranger), 0);
    const int result = trust_open((closed + "/file").c_str());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_GE(result, 0);
    close(result);
}

// ---- writing ----

const std::string temporary = sticky + "/new.tmp";

// Writes through a stream that is opened for it, and tells what the file holds then.
std::string written()
{
    const FileGuard stream(trust_create(temporary.c_str()));
    if (!stream)
        return "errno " + std::to_string(errno);
    EXPECT_GE(fputs("new", stream.get()), 0);
    EXPECT_EQ(fflush(stream.get()), 0);
    struct stat status = {};
    EXPECT_EQ(lstat(temporary.c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_uid, geteuid());
    return read_file(temporary);
}

TEST_F(Trust, AFileIsMadeAndMadeEmpty)
{
    EXPECT_EQ(written(), "new");
    write_file(temporary, "something longer");
    EXPECT_EQ(written(), "new");
    EXPECT_EQ(names().size(), 2U) << "nothing was set aside";
    EXPECT_TRUE(fake_log_texts().empty());
}

TEST_F(Trust, NothingIsMadeWithoutADirectory)
{
    EXPECT_EQ(trust_create("/media/none/file"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

// Where the file that was there is now.
std::string aside(const std::vector<std::string>& found)
{
    for (const std::string& name : found) {
        if (name.compare(0, 14, "new.tmp.aside.") == 0)
            return sticky + "/" + name;
    }
    return "nowhere";
}

void expect_set_aside(const std::vector<std::string>& found)
{
    const std::string line =
        "trust(#)" + temporary + " was somebody else's, it is " + aside(found) + " now";
    EXPECT_EQ(fake_log_texts(), std::vector<std::string>{line});
    fake_log_clear();
}

TEST_F(Trust, AFileOfSomebodyElsesIsSetAsideAsItIs)
{
    write_file(temporary, "theirs");
    give(temporary);
    EXPECT_EQ(written(), "new");
    EXPECT_EQ(read_file(aside(names())), "theirs");
    expect_set_aside(names());
}

TEST_F(Trust, ALinkIsSetAsideAndNotFollowed)
{
    make_link(closed + "/file", temporary);
    EXPECT_EQ(written(), "new");
    EXPECT_EQ(read_file(closed + "/file"), "content");
    expect_set_aside(names());
}

TEST_F(Trust, ASecondNameOfAFileOfRootsIsSetAside)
{
    ASSERT_EQ(link((sticky + "/file").c_str(), temporary.c_str()), 0);
    EXPECT_EQ(written(), "new");
    EXPECT_EQ(read_file(sticky + "/file"), "content");
    expect_set_aside(names());
}

// Between the look and the making somebody is quicker.
TEST_F(Trust, WhatHasJustComeIsSetAsideToo)
{
    write_file(temporary, "theirs");
    give(temporary);
    call_fail("lstat", 1, ENOENT);
    EXPECT_EQ(written(), "new");
    EXPECT_TRUE(call_failed());
    EXPECT_EQ(read_file(aside(names())), "theirs");
    expect_set_aside(names());
}

// Between the look and the opening an own file is exchanged.
TEST_F(Trust, WhatTookAnOwnFilesPlaceIsSetAsideToo)
{
    write_file(temporary, "own");
    call_before("open", 1, [] {
        EXPECT_EQ(unlink(temporary.c_str()), 0);
        write_file(temporary, "theirs");
        give(temporary);
    });
    EXPECT_EQ(written(), "new");
    EXPECT_TRUE(call_failed());
    EXPECT_EQ(read_file(aside(names())), "theirs");
    expect_set_aside(names());
}

TEST_F(Trust, WhatAnOwnFileWasExchangedForIsNotFollowed)
{
    for (const bool appends : {false, true}) {
        write_file(temporary, "own");
        call_before("open", 1, [] {
            EXPECT_EQ(unlink(temporary.c_str()), 0);
            make_link(closed + "/file", temporary);
        });
        const FileGuard stream((appends ? trust_append : trust_create)(temporary.c_str()));
        EXPECT_TRUE(call_failed());
        EXPECT_FALSE(stream);
        EXPECT_EQ(read_file(closed + "/file"), "content");
        ASSERT_EQ(unlink(temporary.c_str()), 0);
    }
}

TEST_F(Trust, AFifoThatTookAnOwnFilesPlaceIsNotWaitedFor)
{
    write_file(temporary, "own");
    call_before("open", 1, [] {
        EXPECT_EQ(unlink(temporary.c_str()), 0);
        EXPECT_EQ(mkfifo(temporary.c_str(), 0600), 0);
    });
    alarm(20);
    EXPECT_EQ(trust_append(temporary.c_str()), nullptr);
    alarm(0);
    EXPECT_TRUE(call_failed());
}

TEST_F(Trust, AFifoIsSetAsideAndNotWaitedFor)
{
    ASSERT_EQ(mkfifo(temporary.c_str(), 0666), 0);
    EXPECT_EQ(written(), "new");
    expect_set_aside(names());
}

TEST_F(Trust, ADirectoryIsSetAsideWithWhatItHolds)
{
    make_directory(temporary, 0777);
    write_file(temporary + "/below", "theirs");
    EXPECT_EQ(written(), "new");
    EXPECT_EQ(read_file(aside(names()) + "/below"), "theirs");
    expect_set_aside(names());
}

// One who foresaw the name has laid a directory there, too.
TEST_F(Trust, WhatLiesAtTheNewNameIsPassedOver)
{
    fake_world().monotonic_usec = 0;
    make_directory(temporary + ".aside.0", 0777);
    write_file(temporary, "theirs");
    give(temporary);
    EXPECT_EQ(written(), "new");
    EXPECT_EQ(read_file(temporary + ".aside.1"), "theirs");
}

TEST_F(Trust, WhatIsMountedThereIsTakenOff)
{
    write_file(temporary, "theirs");
    give(temporary);
    fake_world().fail("rename", 1, EBUSY);
    EXPECT_EQ(written(), "new");
    EXPECT_EQ(fake_world().calls("umount2"),
              std::vector<std::string>{"umount2 " + temporary + " 0xa"});
}

TEST_F(Trust, WhatCannotBeMovedIsToldOnce)
{
    write_file(temporary, "theirs");
    give(temporary);
    fake_world().fail("rename", 0, EROFS);
    EXPECT_EQ(trust_create(temporary.c_str()), nullptr);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(fake_log_texts(),
              std::vector<std::string>{
                  "trust(#)" + temporary +
                  " is somebody else's and cannot be moved (err=" + std::to_string(EROFS) + ")"});
    EXPECT_EQ(read_file(temporary), "theirs");
}

// What appending to the file says: 0 when it went well.
int appended()
{
    const FileGuard stream(trust_append(temporary.c_str()));
    if (!stream)
        return errno;
    return fputs("+", stream.get()) >= 0 && fflush(stream.get()) == 0 ? 0 : -1;
}

TEST_F(Trust, AppendingAddsToAnOwnFileAndMakesOne)
{
    EXPECT_EQ(appended(), 0);
    EXPECT_EQ(appended(), 0);
    EXPECT_EQ(read_file(temporary), "++");
}

TEST_F(Trust, WhatIsOpenIsNoChilds)
{
    for (const bool made : {true, false}) {
        const FileGuard written(trust_create(temporary.c_str()));
        const FileGuard appended(trust_append(temporary.c_str()));
        ASSERT_TRUE(written && appended);
        EXPECT_EQ(fcntl(fileno(written.get()), F_GETFD), FD_CLOEXEC) << made;
        EXPECT_EQ(fcntl(fileno(appended.get()), F_GETFD), FD_CLOEXEC) << made;
    }
}

TEST_F(Trust, TheFirstDescriptorIsAsGoodAsAnyOther)
{
    with_input_closed([] {
        const int fd = trust_open((closed + "/file").c_str());
        EXPECT_GE(fd, 0);
        close(fd);
        EXPECT_EQ(written(), "new");
        EXPECT_EQ(written(), "new");
        EXPECT_EQ(appended(), 0);
        ASSERT_EQ(unlink(temporary.c_str()), 0);
        EXPECT_EQ(appended(), 0);
    });
    EXPECT_EQ(read_file(temporary), "+");
}

TEST_F(Trust, NorIsAnyStepOfTheWay)
{
    make_link("../closed/", sticky + "/up");
    EXPECT_TRUE(inheritable_after([] {
                    close(trust_open((sticky + "/up/file").c_str()));
                    EXPECT_EQ(written(), "new");
                    EXPECT_EQ(appended(), 0);
                }).empty());
}

TEST_F(Trust, AppendingLeavesAloneWhatIsSomebodyElses)
{
    make_link(closed + "/file", temporary);
    EXPECT_EQ(appended(), EPERM);
    EXPECT_EQ(read_file(closed + "/file"), "content");
    ASSERT_EQ(unlink(temporary.c_str()), 0);
    ASSERT_EQ(mkfifo(temporary.c_str(), 0666), 0);
    EXPECT_EQ(appended(), EPERM);
    ASSERT_EQ(unlink(temporary.c_str()), 0);
    write_file(temporary, "theirs");
    give(temporary);
    EXPECT_EQ(appended(), EPERM);
    EXPECT_EQ(read_file(temporary), "theirs");
}

} // namespace
