#include "mount/adopt.h"

#include "config/filesystems.h"
#include "fake/fake_world.h"
#include "lib/guard.h"
#include "partition.h"
#include "support/files.h"

#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>

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

// ---- taking over: what the kernel's own filesystems need is shown with real ones ----

class AdoptTest : public PartitionTest {
  protected:
    AdoptTest() { EXPECT_EQ(mkdir(mountpoint.c_str(), 0755), 0); }
    ~AdoptTest() override
    {
        while (umount(mountpoint.c_str()) == 0) {
        }
        rmdir(mountpoint.c_str());
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

} // namespace
