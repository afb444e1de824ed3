#include "agent/diagnosis.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr uint32_t everything = (1U << filesystem_count) - 1;

class DiagnosisTest : public testing::Test {
  protected:
    DiagnosisTest()
    {
        EXPECT_TRUE(block_name_parse("sda1", &name_));
        config_.mountvfat = config_.mountntfs = config_.mountext = 1;
        findings_.name = &name_;
        findings_.volume = &volume_;
        findings_.config = &config_;
        findings_.available = everything;
    }

    void holds(const char* type, const char* usage = "filesystem")
    {
        volume_ = {};
        strcpy(volume_.type, type);
        strcpy(volume_.usage, usage);
    }

    const Diagnosis& made()
    {
        diagnosis_make(findings_, &diagnosis_);
        return diagnosis_;
    }

    // "CODE words [command]", with "?" in front where it may change.
    std::string told()
    {
        const Diagnosis& is = made();
        return std::string(is.may_change ? "?" : "") + trouble_word(is.trouble) + " " + is.words +
               (is.command[0] != '\0' ? std::string(" [") + is.command + "]" : "");
    }

    // The bit of the kernel's, or the driver's, filesystem goes.
    void lacks(const char* type)
    {
        for (int i = 0; i < filesystem_count; i++) {
            if (strcmp(filesystems[i].type, type) == 0)
                findings_.available &= ~(1U << i);
        }
    }

    BlockName name_ = {};
    Volume volume_ = {};
    ConfHotplug config_ = {};
    Findings findings_;
    Diagnosis diagnosis_ = {};
};

} // namespace

TEST_F(DiagnosisTest, OfWhatIsNoFilesystem)
{
    const struct {
        const char* type;
        const char* usage;
        const char* told;
    } rows[] = {
        {"crypto_LUKS", "crypto", "encrypted sda1 is encrypted (LUKS)"},
        {"BitLocker", "crypto", "encrypted sda1 is encrypted (BitLocker)"},
        {"cs_fvault2", "crypto", "encrypted sda1 is encrypted (FileVault)"},
        {"other", "crypto", "encrypted sda1 is encrypted"},
        {"LVM2_member", "raid", "member sda1 is a member of LVM"},
        {"linux_raid_member", "raid", "member sda1 is a member of RAID"},
        {"isw_raid_member", "raid", "member sda1 is a member of RAID"},
        {"zfs_member", "filesystem", "member sda1 is a member of ZFS"},
        {"bcache", "other", "member sda1 is a member of bcache"},
        {"ceph_bluestore", "other", "member sda1 is a member of Ceph"},
        {"drbd", "raid", "member sda1 is a member of DRBD"},
        {"stratis", "raid", "member sda1 is a member of Stratis"},
        {"VMFS_volume_member", "raid", "member sda1 is a member of VMFS"},
        {"swap", "other", "swap sda1 is a swap area"},
        {"swsuspend", "other", "swap sda1 is a swap area, with a suspended system in it"},
        {"", "", "nothing sda1 has no filesystem that is known"},
        {"apfs", "filesystem", "not-known sda1 holds apfs, which the service cannot mount"},
        {"jfs", "", "not-known sda1 holds jfs, which the service cannot mount"},
    };
    for (const auto& row : rows) {
        holds(row.type, row.usage);
        EXPECT_EQ(told(), row.told) << row.type;
    }
    holds("", "");
    strcpy(volume_.table, "dos");
    EXPECT_EQ(told(), "nothing sda1 has a partition table without a partition");
}

TEST_F(DiagnosisTest, OfWhatTheConfigurationDoesNotName)
{
    for (const char* type : {"exfat", "f2fs", "btrfs", "xfs", "hfsplus", "udf", "iso9660"}) {
        holds(type);
        EXPECT_EQ(told(),
                  std::string("not-named sda1 holds ") + type + ", which otherfs does not name");
    }
    config_.mountvfat = config_.mountntfs = config_.mountext = 0;
    for (const char* type : {"vfat", "ext4", "ext3", "ext2", "ntfs"}) {
        holds(type);
        EXPECT_EQ(told(),
                  std::string("not-named sda1 holds ") + type + ", which mountfs does not name");
    }
}

TEST_F(DiagnosisTest, OfWhatTheMachineCannotDo)
{
    config_.otherfs[0] = CONF_DEV_FS_EXFAT;
    holds("exfat");
    lacks("exfat");
    EXPECT_EQ(told(), "no-module sda1 holds exfat, which this kernel has no module for");
    holds("ext4");
    lacks("ext4");
    EXPECT_EQ(told(), "no-module sda1 holds ext4, which this kernel has no module for");
    holds("ntfs");
    lacks("ntfs");
    EXPECT_EQ(told(), "no-driver sda1 holds ntfs, whose driver ntfs-3g is not installed");
    config_.otherfs[1] = CONF_DEV_FS_NTFS3;
    EXPECT_EQ(told(), "?refused sda1 holds ntfs, but the kernel refused it [ntfsfix -d /dev/sda1]");
    lacks("ntfs3");
    config_.mountntfs = 0;
    EXPECT_EQ(told(), "no-module sda1 holds ntfs, which this kernel has no module for");
}

TEST_F(DiagnosisTest, OfWhatWasRefused)
{
    const struct {
        const char* type;
        ConfDevFs other;
        const char* kernel;
        const char* told;
    } rows[] = {
        {"ext4", CONF_DEV_FS_UNKNOWN, "",
         "?refused sda1 holds ext4, but the kernel refused it [e2fsck -f /dev/sda1]"},
        {"vfat", CONF_DEV_FS_UNKNOWN, "FAT-fs (sda1): bogus number of FATs",
         "refused sda1 holds vfat, but the kernel refused it: FAT-fs (sda1): bogus number of FATs "
         "[fsck.vfat /dev/sda1]"},
        {"xfs", CONF_DEV_FS_XFS, "XFS (sda1): SB validate failed with error -5.",
         "refused sda1 holds xfs, but the kernel refused it: Input/output error (XFS (sda1): "
         "SB validate failed with error -5.) [xfs_repair /dev/sda1]"},
        {"exfat", CONF_DEV_FS_EXFAT, "exFAT-fs (sda1): x",
         "refused sda1 holds exfat, but the kernel refused it: exFAT-fs (sda1): x "
         "[fsck.exfat /dev/sda1]"},
        {"xfs", CONF_DEV_FS_XFS, "XFS (sda1): Filesystem has duplicate UUID 1-2 - can't mount",
         "refused sda1 holds xfs, but the kernel refused it: XFS (sda1): Filesystem has duplicate "
         "UUID 1-2 - can't mount"}, // nothing is wrong with a copy
        {"btrfs", CONF_DEV_FS_BTRFS, "BTRFS warning: duplicate device /dev/vyhotplug/sda1 devid 1",
         "refused sda1 holds btrfs, but the kernel refused it: BTRFS warning: duplicate device "
         "/dev/vyhotplug/sda1 devid 1"},
        {"iso9660", CONF_DEV_FS_ISO9660, "",
         "?refused sda1 holds iso9660, but the kernel refused it"},
        {"ntfs", CONF_DEV_FS_UNKNOWN, "",
         "?refused sda1 holds ntfs, but ntfs-3g refused it [ntfsfix /dev/sda1]"},
    };
    for (const auto& row : rows) {
        config_.otherfs[0] = row.other;
        holds(row.type);
        findings_.kernel = row.kernel;
        EXPECT_EQ(told(), row.told) << row.type;
        EXPECT_STREQ(diagnosis_.type, row.type);
    }
    EXPECT_STREQ(diagnosis_kernel_prefix("ntfs"), "ntfs3") << "older ones say ntfs3: sda1:, newer "
                                                              "ones ntfs3(sda1):";
    findings_.config = nullptr; // then everything may be wanted
    findings_.kernel = "";
    holds("udf");
    EXPECT_EQ(made().trouble, TROUBLE_REFUSED);
}

// How the kernel's lines about it begin, or what checks it: each filesystem has one of the two.
TEST_F(DiagnosisTest, KnowsEveryFilesystemOfTheService)
{
    findings_.config = nullptr;
    for (const Filesystem& filesystem : filesystems) {
        holds(filesystem.type);
        EXPECT_TRUE(diagnosis_kernel_prefix(filesystem.type) != nullptr ||
                    made().command[0] != '\0')
            << filesystem.type;
    }
}

TEST_F(DiagnosisTest, OfWhatBlkidCannotTell)
{
    findings_.answer = Answer::nothing;
    EXPECT_EQ(told(), "nothing sda1 has no filesystem that is known");
    findings_.answer = Answer::silent;
    EXPECT_EQ(told(), "silent sda1 does not answer: it cannot be read in time");
    findings_.answer = Answer::unreadable;
    findings_.failure = "blkid cannot be run";
    EXPECT_EQ(told(), "unreadable sda1 cannot be read: blkid cannot be run");
    findings_.answer = Answer::undecided;
    EXPECT_EQ(told(), "several sda1 looks like several filesystems [wipefs /dev/sda1]");
    strcpy(volume_.several, "ext4, vfat");
    EXPECT_EQ(told(),
              "several sda1 looks like several filesystems (ext4, vfat) [wipefs /dev/sda1]");
}

TEST_F(DiagnosisTest, OfWhatIsMountedReadOnly)
{
    const struct {
        const char* type;
        bool hibernated;
        const char* kernel;
        const char* words;
        const char* command;
    } rows[] = {
        {"fuseblk", true, "", "sda1 holds NTFS: hibernated, mounted read-only", ""},
        {"ntfs3", false, "", "sda1 holds NTFS: dirty, mounted read-only", "ntfsfix /dev/sda1"},
        {"hfsplus", false, "", "sda1 holds hfsplus with a journal, or locked: mounted read-only",
         "fsck.hfsplus /dev/sda1"},
        {"udf", false, "", "sda1 holds udf, mounted read-only", ""},
        {"vfat", false, "FAT-fs (sda1): x", "sda1 holds vfat, mounted read-only: FAT-fs (sda1): x",
         "fsck.vfat /dev/sda1"},
    };
    for (const auto& row : rows) {
        diagnosis_make_readonly(name_, row.type, row.hibernated, row.kernel, &diagnosis_);
        EXPECT_EQ(diagnosis_.trouble, TROUBLE_READ_ONLY);
        EXPECT_STREQ(diagnosis_.words, row.words);
        EXPECT_STREQ(diagnosis_.command, row.command);
    }
    diagnosis_make_readonly(name_, "iso9660", false, "", &diagnosis_);
    EXPECT_EQ(diagnosis_.trouble, TROUBLE_NONE);
}

TEST_F(DiagnosisTest, OfWhatIsOutOfRange)
{
    const struct {
        const char* name;
        int32_t major;
        int32_t minor;
        const char* range;
        const char* words; // "" for what is in range
    } rows[] = {
        {"sda1", 8, 1, "16", ""},
        {"sdp15", 8, 255, "16", ""},
        {"sdq", 65, 0, "16", "sdq is the 17th disk: out of range"},
        {"sdaa", 65, 160, "16", "sdaa is the 27th disk: out of range"},
        {"sdaa2", 65, 162, "16", "sdaa2 is on the 27th disk: out of range"},
        {"sdu", 65, 64, "16", "sdu is the 21st disk: out of range"},
        {"sdv", 65, 80, "", "sdv is the 22nd disk: out of range"},
        {"sdw", 65, 96, "", "sdw is the 23rd disk: out of range"},
        {"sddg", 65, 96, "", "sddg is the 111th disk: out of range"},
        {"sda16", 259, 0, "16", "sda16 is the 16th partition: out of range"},
        {"mmcblk0p9", 259, 3, "8", "mmcblk0p9 is the 9th partition: out of range"},
        {"mmcblk0p1", 179, 1, "8", ""},
        {"mmcblk25", 179, 200, "8", ""},
        {"mmcblk26", 179, 208, "8", "mmcblk26 is the 27th card: out of range"},
        {"mmcblk2p1", 179, 513, "256", "mmcblk2p1 is on the 3rd card: out of range"},
        {"mmcblk1p1", 179, 257, "256", ""},
    };
    for (const auto& row : rows) {
        BlockName name = {};
        ASSERT_TRUE(block_name_parse(row.name, &name));
        diagnosis_make_range(name, row.major, row.minor, row.range, &diagnosis_);
        EXPECT_STREQ(diagnosis_.words, row.words) << row.name;
        EXPECT_EQ(diagnosis_.trouble == TROUBLE_NONE, row.words[0] == '\0') << row.name;
    }
}

TEST_F(DiagnosisTest, OfAnEmptyDrive)
{
    diagnosis_make_empty(name_, &diagnosis_);
    EXPECT_STREQ(diagnosis_.words, "sda1 is empty: no medium");
    EXPECT_STREQ(trouble_word(diagnosis_.trouble), "no-medium");
}

TEST(Trouble, HasAWordEach)
{
    for (int i = 0; i < TROUBLE_COUNT; i++) {
        const char* word = trouble_word(static_cast<Trouble>(i));
        ASSERT_NE(word, nullptr) << i;
        EXPECT_EQ(strcspn(word, " \t\n"), strlen(word));
    }
}
