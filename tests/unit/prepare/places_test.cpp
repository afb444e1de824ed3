#include "prepare/places.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "lib/guard.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

constexpr unsigned somebody = 1234;
constexpr char place[] = "/tmp/place";

using Texts = std::vector<std::string>;

class PlacesTest : public testing::Test {
  protected:
    PlacesTest()
    {
        umask(022);
        fake_log_clear();
    }
    ~PlacesTest() override { fake_world_reset(); }

    static struct stat status_of(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
        return status;
    }

    static void expect_own_directory(const std::string& path)
    {
        const struct stat status = status_of(path);
        EXPECT_TRUE(S_ISDIR(status.st_mode)) << path;
        EXPECT_EQ(status.st_mode & 07777U, 0755U) << path;
        EXPECT_EQ(status.st_uid, 0U) << path;
    }

    static void expect_link(const std::string& path, const std::string& target)
    {
        char found[256] = "";
        EXPECT_GE(readlink(path.c_str(), found, sizeof found - 1), 0) << path;
        EXPECT_EQ(found, target);
        EXPECT_EQ(status_of(path).st_uid, 0U);
    }

    static void make_directory(const std::string& path, unsigned owner, mode_t mode)
    {
        EXPECT_EQ(mkdir(path.c_str(), 0700), 0) << path;
        EXPECT_EQ(chown(path.c_str(), owner, owner), 0);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
    }

    static void make_link(const std::string& path, const std::string& target, unsigned owner)
    {
        EXPECT_EQ(symlink(target.c_str(), path.c_str()), 0);
        EXPECT_EQ(lchown(path.c_str(), owner, owner), 0);
    }

    static void make_file(const std::string& path, const std::string& text, unsigned owner)
    {
        write_file(path, text);
        EXPECT_EQ(chown(path.c_str(), owner, owner), 0);
    }

    // What is in a directory and begins so.
    static Texts names(const std::string& directory, const std::string& beginning)
    {
        Texts found;
        DIR* stream = opendir(directory.c_str());
        while (const dirent* entry = readdir(stream)) {
            const std::string name = entry->d_name;
            if (name.compare(0, beginning.size(), beginning) == 0)
                found.push_back(name);
        }
        closedir(stream);
        std::sort(found.begin(), found.end());
        return found;
    }

    // The one directory into which what was in the way has come.
    static std::string aside()
    {
        const Texts found = names("/tmp", "place.aside-");
        EXPECT_EQ(found.size(), 1U);
        const std::string path = found.empty() ? "" : "/tmp/" + found[0];
        EXPECT_EQ(status_of(path).st_mode & 07777U, 0700U);
        EXPECT_EQ(status_of(path).st_uid, 0U);
        return path + "/it";
    }

    static void expect_told(const std::string& text)
    {
        EXPECT_EQ(fake_log_texts(), Texts{"prepare(#)" + text});
        EXPECT_EQ(fake_log_lines().at(0).priority, LOG_WARNING);
    }

    static void expect_nothing_aside() { EXPECT_EQ(names("/tmp", "place."), Texts{}); }
};

} // namespace

// ---- the directory above ----

TEST_F(PlacesTest, ParentOfAPath)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"/a/b/c", "/a/b"}, {"/a", "/"},  {"/", "/"},       {"/a/b/", "/a"},
        {"/a//b", "/a"},    {"//a", "/"}, {"/a/b//", "/a"},
    };
    for (const auto& [path, expected] : rows) {
        char parent[place_path_size];
        EXPECT_EQ(place_parent(path.c_str(), parent), 0);
        EXPECT_EQ(parent, expected) << path;
    }
    char parent[place_path_size];
    EXPECT_EQ(place_parent(std::string(place_path_size, 'x').c_str(), parent), -ENAMETOOLONG);
}

// ---- root's own directories ----

TEST_F(PlacesTest, MakesAnOwnDirectory)
{
    umask(077);
    EXPECT_EQ(place_own_directory(place), 0);
    expect_own_directory(place);
    EXPECT_TRUE(fake_log_texts().empty());
}

TEST_F(PlacesTest, LeavesAnOwnDirectoryAsItIs)
{
    make_directory(place, 0, 0755);
    write_file("/tmp/place/file", "text");
    const struct stat before = status_of(place);
    EXPECT_EQ(place_own_directory(place), 0);
    const struct stat after = status_of(place);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
    EXPECT_EQ(read_file("/tmp/place/file"), "text");
    EXPECT_TRUE(fake_log_texts().empty());
}

// Whoever starts it may have closed its input.
TEST_F(PlacesTest, OpensADirectoryThroughAnyDescriptor)
{
    make_directory(place, 0, 0700);
    const FdGuard input(dup(STDIN_FILENO));
    close(STDIN_FILENO);
    const int result = place_own_directory(place);
    EXPECT_EQ(dup2(input.get(), STDIN_FILENO), STDIN_FILENO);
    EXPECT_EQ(result, 0);
    expect_own_directory(place);
}

TEST_F(PlacesTest, OpensAnOwnDirectoryThatOthersCouldNotEnter)
{
    make_directory(place, 0, 0700);
    write_file("/tmp/place/file", "text");
    EXPECT_EQ(place_own_directory(place), 0);
    expect_own_directory(place);
    EXPECT_EQ(read_file("/tmp/place/file"), "text");
}

TEST_F(PlacesTest, DoesNotTakeOverWhatOthersCouldWriteTo)
{
    make_directory(place, 0, 0775);
    write_file("/tmp/place/file", "planted");
    EXPECT_EQ(place_own_directory(place), 0);
    expect_own_directory(place);
    EXPECT_FALSE(exists("/tmp/place/file"));
    EXPECT_EQ(read_file(aside() + "/file"), "planted");
}

TEST_F(PlacesTest, SetsAnotherUsersDirectoryAside)
{
    make_directory(place, somebody, 0755);
    make_file("/tmp/place/file", "planted", somebody);
    EXPECT_EQ(place_own_directory(place), 0);
    expect_own_directory(place);
    EXPECT_FALSE(exists("/tmp/place/file"));
    const std::string folder = aside();
    EXPECT_EQ(read_file(folder + "/file"), "planted");
    expect_told("/tmp/place: a directory of user 1234 was in the way, now below " +
                folder.substr(0, folder.size() - 3));
}

TEST_F(PlacesTest, RemovesAnotherUsersEmptyDirectory)
{
    make_directory(place, somebody, 0755);
    EXPECT_EQ(place_own_directory(place), 0);
    expect_own_directory(place);
    expect_nothing_aside();
    expect_told("/tmp/place: a directory of user 1234 was in the way, removed");
}

TEST_F(PlacesTest, FollowsNoLink)
{
    make_directory("/tmp/elsewhere", 0, 0700);
    write_file("/tmp/elsewhere/file", "text");
    make_link(place, "/tmp/elsewhere", somebody);
    EXPECT_EQ(place_own_directory(place), 0);
    expect_own_directory(place);
    EXPECT_FALSE(exists("/tmp/place/file"));
    EXPECT_EQ(status_of("/tmp/elsewhere").st_mode & 07777U, 0700U);
    EXPECT_EQ(read_file("/tmp/elsewhere/file"), "text");
    expect_told("/tmp/place: a link of user 1234 was in the way, removed");
}

TEST_F(PlacesTest, RemovesFilesAndPipesInTheWay)
{
    make_file(place, "planted", somebody);
    EXPECT_EQ(place_own_directory(place), 0);
    expect_own_directory(place);
    expect_told("/tmp/place: a file of user 1234 was in the way, removed");
    fake_log_clear();
    EXPECT_EQ(rmdir(place), 0);
    EXPECT_EQ(mkfifo(place, 0666), 0);
    EXPECT_EQ(place_own_directory(place), 0); // which opening it would wait for
    expect_own_directory(place);
    expect_told("/tmp/place: a special file of user 0 was in the way, removed");
}

TEST_F(PlacesTest, RefusesAFolderThatOthersDecideIn)
{
    make_directory("/tmp/theirs", somebody, 0755);
    make_directory("/tmp/open", 0, 0777);
    make_link("/tmp/link", "/tmp/theirs", 0);
    make_directory("/tmp/sticky", somebody, 01777);
    for (const char* path :
         {"/tmp/theirs/place", "/tmp/open/place", "/tmp/link/place", "/tmp/sticky/place"}) {
        EXPECT_EQ(place_own_directory(path), -EPERM) << path;
        EXPECT_EQ(place_link(path, "/x"), -EPERM) << path;
        EXPECT_EQ(place_clear(path), -EPERM) << path;
        EXPECT_FALSE(exists(path)) << path;
    }
    EXPECT_EQ(place_own_directory("/tmp/none/place"), -ENOENT);
    EXPECT_EQ(place_link("/tmp/none/place", "/x"), -ENOENT);
    EXPECT_EQ(place_clear("/tmp/none/place"), -ENOENT);
}

// Somebody who puts a link there again each time.
TEST_F(PlacesTest, GivesInToSomebodyWhoIsQuicker)
{
    make_link(place, "/etc", somebody);
    fake_world().fail("unlink", 0, ENOENT);
    EXPECT_EQ(place_own_directory(place), -EEXIST);
    EXPECT_EQ(place_clear(place), -EEXIST);
    EXPECT_EQ(fake_world().count("unlink"), 32);
    EXPECT_EQ(status_of(place).st_uid, somebody);
}

TEST_F(PlacesTest, TellsWhatCannotBeTakenAway)
{
    make_directory(place, somebody, 0755);
    make_file("/tmp/place/file", "planted", somebody);
    fake_world().fail("rename", 0, EBUSY); // a mount of theirs
    EXPECT_EQ(place_own_directory(place), -EBUSY);
    EXPECT_EQ(place_clear(place), -EBUSY);
    expect_nothing_aside();
    EXPECT_EQ(read_file("/tmp/place/file"), "planted");
    fake_world_reset();
    fake_world().fail("mkdir", 0, ENOSPC);
    EXPECT_EQ(place_own_directory(place), -ENOSPC);
}

// ---- links ----

TEST_F(PlacesTest, MakesALink)
{
    EXPECT_EQ(place_link(place, "/etc/target"), 0);
    expect_link(place, "/etc/target");
    expect_nothing_aside();
    EXPECT_TRUE(fake_log_texts().empty());
}

TEST_F(PlacesTest, LeavesARightLinkAsItIs)
{
    make_link(place, "/etc/target", 0);
    const struct stat before = status_of(place);
    EXPECT_EQ(place_link(place, "/etc/target"), 0);
    EXPECT_EQ(status_of(place).st_ino, before.st_ino);
    EXPECT_TRUE(fake_world().journal.empty());
}

TEST_F(PlacesTest, ReplacesOtherLinksAndFiles)
{
    make_file("/tmp/victim", "text", 0);
    make_link(place, "/tmp/victim", somebody);
    EXPECT_EQ(place_link(place, "/etc/target"), 0);
    expect_link(place, "/etc/target");
    EXPECT_EQ(read_file("/tmp/victim"), "text");
    expect_told("/tmp/place: a link of user 1234 was in the way, removed");

    unlink(place);
    make_link(place, "/etc/target", somebody); // the right target, until its owner changes it
    EXPECT_EQ(place_link(place, "/etc/target"), 0);
    expect_link(place, "/etc/target");

    unlink(place);
    make_link(place, "/etc/target2", 0);
    EXPECT_EQ(place_link(place, "/etc/target"), 0);
    expect_link(place, "/etc/target");

    unlink(place);
    make_file(place, "#!/bin/sh\n", somebody);
    EXPECT_EQ(place_link(place, "/etc/target"), 0);
    expect_link(place, "/etc/target");
    expect_nothing_aside();
}

TEST_F(PlacesTest, PutsALinkInADirectorysPlace)
{
    make_directory(place, somebody, 0755);
    EXPECT_EQ(place_link(place, "/etc/target"), 0);
    expect_link(place, "/etc/target");
    expect_nothing_aside();
    unlink(place);
    make_directory(place, somebody, 0755);
    make_file("/tmp/place/file", "planted", somebody);
    EXPECT_EQ(place_link(place, "/etc/target"), 0);
    expect_link(place, "/etc/target");
    EXPECT_EQ(read_file(aside() + "/file"), "planted");
}

TEST_F(PlacesTest, LeavesNothingBehindWhenALinkCannotBeMade)
{
    make_file(place, "old", somebody);
    fake_world().fail("rename", 0, EIO);
    EXPECT_EQ(place_link(place, "/etc/target"), -EIO);
    EXPECT_EQ(read_file(place), "old");
    expect_nothing_aside();
    EXPECT_EQ(place_link(place, ""), -ENOENT); // symlink(2)'s answer
    expect_nothing_aside();
}

// ---- nothing ----

TEST_F(PlacesTest, ClearsWhatIsNotRootsOwnFile)
{
    EXPECT_EQ(place_clear(place), 0);
    make_file("/tmp/victim", "text", 0);
    make_link(place, "/tmp/victim", 0);
    EXPECT_EQ(place_clear(place), 0);
    EXPECT_FALSE(exists(place));
    EXPECT_EQ(read_file("/tmp/victim"), "text");

    make_file(place, "planted", somebody);
    EXPECT_EQ(place_clear(place), 0);
    EXPECT_FALSE(exists(place));

    EXPECT_EQ(link("/tmp/victim", place), 0); // writing to it would be writing to the other
    EXPECT_EQ(place_clear(place), 0);
    EXPECT_FALSE(exists(place));
    EXPECT_EQ(read_file("/tmp/victim"), "text");

    make_directory(place, somebody, 0755);
    make_file("/tmp/place/file", "planted", somebody);
    EXPECT_EQ(place_clear(place), 0);
    EXPECT_FALSE(exists(place));
    EXPECT_EQ(read_file(aside() + "/file"), "planted");
}

TEST_F(PlacesTest, LeavesRootsOwnFile)
{
    write_file(place, "of a service that was killed");
    EXPECT_EQ(place_clear(place), 0);
    EXPECT_EQ(read_file(place), "of a service that was killed");
    EXPECT_TRUE(fake_world().journal.empty());
}

// ---- directories of the administrator ----

TEST_F(PlacesTest, MakesADirectoryWithItsParents)
{
    EXPECT_EQ(place_directory("/tmp/a/b//c/"), 0);
    expect_own_directory("/tmp/a");
    expect_own_directory("/tmp/a/b");
    expect_own_directory("/tmp/a/b/c");
}

TEST_F(PlacesTest, LeavesADirectoryAsItIsWhoseverItIs)
{
    make_directory("/tmp/real", somebody, 0770);
    make_link(place, "/tmp/real", somebody);
    EXPECT_EQ(place_directory(place), 0);
    EXPECT_EQ(place_directory("/tmp/place/sub"), 0);
    EXPECT_EQ(status_of("/tmp/real").st_mode & 07777U, 0770U);
    expect_own_directory("/tmp/real/sub");
}

TEST_F(PlacesTest, TellsWhatIsNoDirectory)
{
    write_file(place, "");
    EXPECT_EQ(place_directory(place), -ENOTDIR);
    EXPECT_EQ(place_directory("/tmp/place/sub"), -ENOTDIR);
    fake_world().fail("mkdir", 0, EROFS);
    EXPECT_EQ(place_directory("/tmp/a/b"), -EROFS);
    EXPECT_EQ(place_directory(("/" + std::string(place_path_size, 'x')).c_str()), -ENAMETOOLONG);
}
