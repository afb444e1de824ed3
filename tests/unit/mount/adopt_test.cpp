#include "mount/adopt.h"

#include "config/filesystems.h"
#include "fake/fake_world.h"
#include "lib/guard.h"
#include "partition.h"
#include "support/files.h"

#include <errno.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

// ---- lines ----

int find(std::string table, const char* directory, MountLine* line)
{
    table += '\n';
    const FileGuard stream(tmpfile());
    EXPECT_EQ(fwrite(table.data(), 1, table.size(), stream.get()), table.size());
    rewind(stream.get());
    return mount_line_find(stream.get(), directory, line);
}

TEST(MountLineTest, IsFoundByItsDirectory)
{
    MountLine line = {};
    ASSERT_EQ(find("proc /proc proc rw 0 0\n/dev/sda1 /mnt/sda1 ext4 rw,nodev 0 0\n"
                   "/dev/sda1 /mnt/sda10 vfat ro 0 0",
                   "/mnt/sda1", &line),
              0);
    EXPECT_STREQ(line.source, "/dev/sda1");
    EXPECT_STREQ(line.type, "ext4");
    EXPECT_FALSE(line.readonly);
}

TEST(MountLineTest, TheLastOneCounts)
{
    MountLine line = {};
    ASSERT_EQ(find("/dev/sda1 /mnt/sda1 ext4 rw 0 0\n/dev/sdb1 /mnt/sda1 vfat ro,x 0 0",
                   "/mnt/sda1", &line),
              0);
    EXPECT_STREQ(line.source, "/dev/sdb1");
    EXPECT_TRUE(line.readonly);
}

TEST(MountLineTest, OptionsAreWholeWords)
{
    for (const char* options :
         {"rw", "rw,errors=remount-ro", "rw,rootcontext=x", "rw,roo,,r", "rw,"}) {
        MountLine line = {};
        ASSERT_EQ(find(std::string("/dev/sda1 /mnt ext4 ") + options + " 0 0", "/mnt", &line), 0);
        EXPECT_FALSE(line.readonly) << options;
    }
    for (const char* options : {"ro", "ro,nodev", "nodev,ro", "nodev,errors=remount-ro,ro,x"}) {
        MountLine line = {};
        ASSERT_EQ(find(std::string("/dev/sda1 /mnt ext4 ") + options + " 0 0", "/mnt", &line), 0);
        EXPECT_TRUE(line.readonly) << options;
    }
}

TEST(MountLineTest, NamesWithBlanksAreRead)
{
    MountLine line = {};
    ASSERT_EQ(find("/my\\040dev /my\\040dir ext4 rw,errors=remount-ro 0 0", "/my dir", &line), 0);
    EXPECT_STREQ(line.source, "/my dev");
    EXPECT_FALSE(line.readonly) << "only the word ro itself";
}

TEST(MountLineTest, ThatIsNotThereOrTooLongIsNotFound)
{
    MountLine line = {};
    EXPECT_EQ(find("", "/mnt/sda1", &line), -1);
    EXPECT_EQ(find("/dev/sda1 /mnt/sda2 ext4 rw 0 0", "/mnt/sda1", &line), -1);
    EXPECT_EQ(find(std::string(256, 'x') + " /mnt ext4 rw 0 0", "/mnt", &line), -1);
    EXPECT_EQ(find("x /mnt " + std::string(32, 'x') + " rw 0 0", "/mnt", &line), -1);
    EXPECT_EQ(find("/dev/sda1 /mnt ext4 rw 0 0\n" + std::string(300, 'x') + " /mnt ext4 rw 0 0",
                   "/mnt", &line),
              -1)
        << "what is covered does not count";
}

// ---- taking over: with real filesystems it is shown in the system tests ----

class AdoptTest : public PartitionTest {
  protected:
    AdoptTest() { EXPECT_EQ(mkdir(mountpoint.c_str(), 0755), 0); }
    ~AdoptTest() override
    {
        (void)umount("/proc/self/mounts");
        while (umount(mountpoint.c_str()) == 0) {
        }
        rmdir(mountpoint.c_str());
    }

    // The kernel's table with a line of the mountpoint's at its end, and the rest before it.
    void show(const std::string& source, const std::string& rest, const std::string& before = "")
    {
        write_file("/tmp/mounts", before + source + " " + mountpoint + " " + rest + " 0 0\n");
        (void)umount("/proc/self/mounts");
        ASSERT_EQ(::mount("/tmp/mounts", "/proc/self/mounts", nullptr, MS_BIND, nullptr), 0);
    }

    // A node with the numbers that the filesystem at the mountpoint has.
    void make_node(dev_t more = 0)
    {
        struct stat root = {};
        ASSERT_EQ(stat(mountpoint.c_str(), &root), 0);
        unlink(devnode.c_str());
        ASSERT_EQ(mknod(devnode.c_str(), S_IFBLK | 0600, root.st_dev + more), 0);
    }

    void expect_refusal()
    {
        EXPECT_EQ(vyadopt(&entry, &config), -1);
        EXPECT_EQ(entry.mounted, 0);
        EXPECT_EQ(entry.fstype, CONF_DEV_FS_UNKNOWN);
        EXPECT_EQ(fake_world().count("mount"), 0);
    }
};

TEST_F(AdoptTest, WithoutAMountNothingIsTakenOver)
{
    expect_refusal();
}

TEST_F(AdoptTest, AFilesystemOfNoneOfItsTypesIsNotTakenOver)
{
    ASSERT_EQ(::mount("x", mountpoint.c_str(), "tmpfs", 0, nullptr), 0);
    expect_refusal();
}

TEST_F(AdoptTest, OneOfTheKernelsIsKnownByItsNumbers)
{
    show("/dev/root", "ext4 rw");
    make_node();
    EXPECT_EQ(vyadopt(&entry, &config), 0);
    EXPECT_EQ(entry.mounted, 1);
    EXPECT_EQ(entry.fstype, CONF_DEV_FS_EXT4);
    EXPECT_EQ(dev.flags & HOTPLUG_FLAG_READONLY, 0);
    EXPECT_EQ(fake_world().count("mount"), 0) << "no flags are wanted of it";
}

TEST_F(AdoptTest, OneWithOtherNumbersIsNotTakenOver)
{
    show(devnode, "ext4 rw");
    make_node(1);
    expect_refusal();
}

// The node goes with an unmount, and the next daemon makes it only when it mounts.
TEST_F(AdoptTest, WithoutANodeTheMessagesNumbersCount)
{
    struct stat root = {};
    ASSERT_EQ(stat(mountpoint.c_str(), &root), 0);
    show("/dev/root", "ext4 rw");
    expect_refusal();
    write_file(devnode, "no node");
    dev.major = static_cast<int32_t>(major(root.st_dev));
    dev.minor = static_cast<int32_t>(minor(root.st_dev));
    EXPECT_EQ(vyadopt(&entry, &config), 0);
    EXPECT_EQ(entry.mounted, 1);
}

TEST_F(AdoptTest, ADriversIsKnownByItsSourceAlone)
{
    for (const char* type : {"fuseblk rw", "fuse rw", "fuse.ntfs-3g rw"}) {
        show("/dev/other", type);
        make_node();
        expect_refusal();
        show(devnode, type);
        make_node(1);
        EXPECT_EQ(vyadopt(&entry, &config), 0) << type;
        EXPECT_EQ(entry.fstype, CONF_DEV_FS_NTFS);
        entry.mounted = 0;
        entry.fstype = CONF_DEV_FS_UNKNOWN;
    }
}

TEST_F(AdoptTest, WhatIsNotEnabledIsNotTakenOver)
{
    config.mountext = 0;
    show("/dev/root", "ext4 rw");
    make_node();
    expect_refusal();
    show("/dev/root", "exfat rw");
    expect_refusal();
    config.otherfs[0] = CONF_DEV_FS_EXFAT;
    EXPECT_EQ(vyadopt(&entry, &config), 0);
    EXPECT_EQ(entry.fstype, CONF_DEV_FS_EXFAT);
}

TEST_F(AdoptTest, WhatIsCoveredIsNotTakenOver)
{
    make_node();
    show(std::string(300, 'x'), "ext4 rw", devnode + " " + mountpoint + " ext4 rw 0 0\n");
    expect_refusal();
}

TEST_F(AdoptTest, WhatIsReadOnlyIsSoForItsShare)
{
    show("/dev/root", "vfat ro,nosuid", "/dev/root / ext4 rw 0 0\n");
    make_node();
    EXPECT_EQ(vyadopt(&entry, &config), 0);
    EXPECT_NE(dev.flags & HOTPLUG_FLAG_READONLY, 0);
}

TEST_F(AdoptTest, TheConfiguredFlagsAreThoseOfTheMountAlone)
{
    config.mountflags = MS_NOSUID;
    show("/dev/root", "ext4 ro");
    make_node();
    fake_world().mounts[mountpoint] = {devnode, "ext4", 0, ""};
    EXPECT_EQ(vyadopt(&entry, &config), 0);
    EXPECT_EQ(fake_world().mounts[mountpoint].flags, unsigned{MS_NOSUID | MS_NODEV | MS_RDONLY});
    EXPECT_EQ(fake_world().count("mount"), 1);
}

TEST_F(AdoptTest, WhoseFlagsCannotBeSetIsNotTakenOver)
{
    config.mountflags = MS_NOSUID;
    show("/dev/root", "ext4 rw");
    make_node();
    fake_world().fail("mount", 1, EINVAL);
    EXPECT_EQ(vyadopt(&entry, &config), -1);
    EXPECT_EQ(entry.mounted, 0);
}

} // namespace
