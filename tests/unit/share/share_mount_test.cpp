#include "share/share_mount.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string line_at(const std::string& directory)
{
    return "36 1 8:1 / " + directory + " rw - ext4 /dev/sd rw\n";
}

// Whether the path is mounted, with mounts at "/", "/media" and these directories.
bool is_mounted(const MountRoot& root, const std::string& path,
                const std::vector<std::string>& directories)
{
    std::string text = line_at("/") + line_at("/media");
    for (const std::string& directory : directories)
        text += line_at(directory);
    MountinfoGuard table;
    EXPECT_EQ(mountinfo_parse(text.data(), text.size(), table.out()), 0);
    return share_mount_find(&root, path.c_str(), table.get()) != nullptr;
}

const MountRoot usual = {.configured = "/media/vy", .resolved = "/media/vy"};
const MountRoot linked = {.configured = "/shares/", .resolved = "/media/vy"};

} // namespace

TEST(ShareMount, APathBelowTheRootIsAMountedOne)
{
    EXPECT_TRUE(share_mount_is_wanted(&usual, "/media/vy/sda1"));
    EXPECT_TRUE(share_mount_is_wanted(&usual, "/media/vy//sda1/x"));
    EXPECT_FALSE(share_mount_is_wanted(&usual, "/media/vy"));
    EXPECT_FALSE(share_mount_is_wanted(&usual, "/media/vy2/sda1"));
    EXPECT_FALSE(share_mount_is_wanted(&usual, "/srv"));
}

TEST(ShareMount, MountedIsWhatLiesOnAMountBelowTheRoot)
{
    EXPECT_TRUE(is_mounted(usual, "/media/vy/sda1", {"/media/vy/sda1"}));
    EXPECT_TRUE(is_mounted(usual, "/media/vy/sda1/music", {"/media/vy/sda1"}));
    EXPECT_FALSE(is_mounted(usual, "/media/vy/sda1", {}));
    EXPECT_FALSE(is_mounted(usual, "/media/vy/sda1", {"/media/vy"}));
    EXPECT_FALSE(is_mounted(usual, "/media/vy/sda1", {"/media/vy/sda10", "/media/vy/sda"}));
    EXPECT_FALSE(is_mounted(usual, "/media/vy/sda1", {"/media/vy/sda1/deeper"}));
    EXPECT_FALSE(is_mounted(usual, "/srv", {"/srv"}));
}

TEST(ShareMount, ARootBehindALinkIsLookedForWhereItIs)
{
    EXPECT_TRUE(share_mount_is_wanted(&linked, "/shares/sda1"));
    EXPECT_TRUE(share_mount_is_wanted(&linked, "/media/vy/sda1"));
    EXPECT_TRUE(is_mounted(linked, "/shares/sda1", {"/media/vy/sda1"}));
    EXPECT_TRUE(is_mounted(linked, "/media/vy/sda1", {"/media/vy/sda1"}));
    EXPECT_FALSE(is_mounted(linked, "/shares/sda1", {"/shares/sda1"}));
}

TEST(ShareMount, APathThatIsTooLongIsNotMounted)
{
    EXPECT_FALSE(is_mounted(usual, "/media/vy/" + std::string(5000, 'x'), {"/media/vy/sda1"}));
}
