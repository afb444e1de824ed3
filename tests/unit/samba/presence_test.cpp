#include "samba/presence.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string line_at(const std::string& directory)
{
    return "36 1 8:1 / " + directory + " rw - ext4 /dev/sd rw\n";
}

// Whether the path is mounted, with mounts at "/", "/media" and these directories.
bool is_mounted(const MountPlace& place, const std::string& path,
                const std::vector<std::string>& directories)
{
    std::string text = line_at("/") + line_at("/media");
    for (const std::string& directory : directories)
        text += line_at(directory);
    MountinfoGuard table;
    EXPECT_EQ(mountinfo_parse(text.data(), text.size(), table.out()), 0);
    return presence_is_mounted(&place, path.c_str(), table.get());
}

const MountPlace usual = {.configured = "/media/vy", .resolved = "/media/vy"};
const MountPlace linked = {.configured = "/shares/", .resolved = "/media/vy"};

} // namespace

TEST(Presence, APathBelowThePlaceIsAMountedOne)
{
    EXPECT_TRUE(presence_is_mounted_path(&usual, "/media/vy/sda1"));
    EXPECT_TRUE(presence_is_mounted_path(&usual, "/media/vy//sda1/x"));
    EXPECT_FALSE(presence_is_mounted_path(&usual, "/media/vy"));
    EXPECT_FALSE(presence_is_mounted_path(&usual, "/media/vy2/sda1"));
    EXPECT_FALSE(presence_is_mounted_path(&usual, "/srv"));
}

TEST(Presence, MountedIsWhatLiesOnAMountBelowThePlace)
{
    EXPECT_TRUE(is_mounted(usual, "/media/vy/sda1", {"/media/vy/sda1"}));
    EXPECT_TRUE(is_mounted(usual, "/media/vy/sda1/music", {"/media/vy/sda1"}));
    EXPECT_FALSE(is_mounted(usual, "/media/vy/sda1", {}));
    EXPECT_FALSE(is_mounted(usual, "/media/vy/sda1", {"/media/vy"}));
    EXPECT_FALSE(is_mounted(usual, "/media/vy/sda1", {"/media/vy/sda10", "/media/vy/sda"}));
    EXPECT_FALSE(is_mounted(usual, "/media/vy/sda1", {"/media/vy/sda1/deeper"}));
    EXPECT_FALSE(is_mounted(usual, "/srv", {"/srv"}));
}

TEST(Presence, APlaceBehindALinkIsLookedForWhereItIs)
{
    EXPECT_TRUE(presence_is_mounted_path(&linked, "/shares/sda1"));
    EXPECT_TRUE(presence_is_mounted_path(&linked, "/media/vy/sda1"));
    EXPECT_TRUE(is_mounted(linked, "/shares/sda1", {"/media/vy/sda1"}));
    EXPECT_TRUE(is_mounted(linked, "/media/vy/sda1", {"/media/vy/sda1"}));
    EXPECT_FALSE(is_mounted(linked, "/shares/sda1", {"/shares/sda1"}));
}

TEST(Presence, APathThatIsTooLongIsNotMounted)
{
    EXPECT_FALSE(is_mounted(usual, "/media/vy/" + std::string(5000, 'x'), {"/media/vy/sda1"}));
}
