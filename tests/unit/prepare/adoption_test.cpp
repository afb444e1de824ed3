#include "prepare/adoption.h"

#include "config/filesystems.h"
#include "fake/fake_world.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>

namespace {

char mount_folder[] = "/tmp/hotplug";
char device_folder[] = "/tmp/hotdev";
const std::string numbers = "/sys/dev/block/";

class AdoptionTest : public testing::Test {
  protected:
    AdoptionTest()
    {
        config.mountpath = mount_folder;
        config.devicepath = device_folder;
        config.adopt = 1;
        config.mountvfat = config.mountext = config.mountntfs = 1;
        mkdir(mount_folder, 0755);
        mkdir(device_folder, 0755);
        EXPECT_EQ(mount("numbers", "/sys/dev/block", "tmpfs", 0, "mode=755"), 0);
        make_node("sda1", 8, 1);
    }

    static void make_node(const std::string& name, unsigned major, unsigned minor)
    {
        const std::string path = std::string(device_folder) + "/" + name;
        unlink(path.c_str());
        EXPECT_EQ(mknod(path.c_str(), S_IFBLK | 0600, makedev(major, minor)), 0);
    }
    ~AdoptionTest() override { fake_world_reset(); }

    // A stick with its partition's directory in that of the disk, as sysfs has them.
    static void plug(const std::string& disk, const std::string& part, const std::string& sequence)
    {
        const std::string directory = numbers + "disk" + disk;
        mkdir(directory.c_str(), 0755);
        mkdir((directory + "/part").c_str(), 0755);
        if (!sequence.empty())
            write_file(directory + "/diskseq", sequence + "\n");
        EXPECT_EQ(symlink((directory + "/part").c_str(), (numbers + part).c_str()), 0);
    }

    static void unplug(const std::string& disk, const std::string& part)
    {
        unlink((numbers + part).c_str());
        // Kept under another name, so that its number is not used again.
        rename((numbers + "disk" + disk).c_str(), (numbers + "old" + disk).c_str());
    }

    void add(const std::string& line) { text += line + "\n"; }

    // A line of the kernel's table.
    static std::string line(const std::string& id, const std::string& device, const char* name,
                            const char* type = "ext4", const char* source = "/tmp/hotdev/sda1")
    {
        return id + " 35 " + device + " / /tmp/hotplug/" + name + " rw - " + type + " " + source +
               " rw";
    }

    int note()
    {
        MountinfoGuard table;
        EXPECT_EQ(mountinfo_parse(text.data(), text.size(), table.out()), 0);
        return adoption_note(&config, table.get());
    }

    // "stays", or why it does not.
    std::string judge(const std::string& mount)
    {
        MountinfoGuard table;
        AdoptionNotes notes;
        EXPECT_EQ(mountinfo_parse(mount.data(), mount.size(), table.out()), 0);
        EXPECT_EQ(table->count, 1U);
        EXPECT_EQ(adoption_load(&notes), 0);
        const char* refusal = adoption_refusal(&config, notes, table->entries[0]);
        return refusal == nullptr ? "stays" : refusal;
    }

    ConfHotplug config = {};
    std::string text = "1 0 8:1 / / rw - ext4 /dev/root rw\n";
    const std::string stick = line("36", "8:1", "sda1");
};

constexpr char untold[] = "its device cannot be told";
constexpr char unnoted[] = "nothing is noted of its device";
constexpr char swapped[] = "another device or medium is in its place";

} // namespace

TEST_F(AdoptionTest, WhatIsStillPluggedStays)
{
    plug("A", "8:1", "7");
    add(stick);
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(stick), "stays");
    struct stat status = {};
    EXPECT_EQ(lstat(adoption_notes_path, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
}

TEST_F(AdoptionTest, AWholeDisksSequenceIsInItsOwnDirectory)
{
    mkdir((numbers + "8:0").c_str(), 0755);
    write_file(numbers + "8:0/diskseq", "3\n");
    const std::string disk = line("36", "8:0", "sda0");
    make_node("sda0", 8, 0);
    add(disk);
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(disk), "stays");
    write_file(numbers + "8:0/diskseq", "4\n");
    EXPECT_EQ(judge(disk), swapped);
}

TEST_F(AdoptionTest, WhatNothingIsNotedOfGoes)
{
    plug("A", "8:1", "7");
    EXPECT_EQ(judge(stick), unnoted);
    add(stick);
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(line("99", "8:1", "sda1")), "stays") << "namespaces give numbers of their own";
    EXPECT_EQ(judge(line("36", "8:2", "sda1")), untold);
    EXPECT_EQ(judge(line("36", "8:1", "sdb1")), untold) << "without a node";
    make_node("sdb1", 8, 1);
    EXPECT_EQ(judge(line("36", "8:1", "sdb1")), unnoted);
    ASSERT_EQ(link("/tmp/hotdev/sda1", "/tmp/hotdev/sdc1"), 0);
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(line("36", "8:1", "sdc1")), unnoted) << "of another name";
    unlink("/tmp/hotdev/sdc1");
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(stick), "stays");
    usleep(20000); // some ticks of the clock that the kernel stamps with
    make_node("sda1", 8, 1);
    EXPECT_EQ(judge(stick), unnoted) << "its node is of another mount";
}

TEST_F(AdoptionTest, WhatIsNotPluggedAnyMoreGoes)
{
    plug("A", "8:1", "7");
    add(stick);
    EXPECT_EQ(note(), 0);
    unplug("A", "8:1");
    EXPECT_EQ(judge(stick), "its device is not plugged any more");
}

// A second stick got the numbers of the first while the service was down.
TEST_F(AdoptionTest, AnotherStickUnderTheSameNumbersIsNotTakenForTheFirst)
{
    for (const char* sequence : {"8", "7", ""}) {
        plug("A", "8:1", sequence);
        text = stick + "\n";
        unlink(adoption_notes_path);
        EXPECT_EQ(note(), 0);
        unplug("A", "8:1");
        plug("A", "8:1", sequence);
        EXPECT_EQ(judge(stick), swapped) << sequence;
        unplug("A", "8:1");
        rename((numbers + "oldA").c_str(), (numbers + "older" + sequence).c_str());
    }
}

// A reader stays plugged, and its numbers and its directory with it.
TEST_F(AdoptionTest, AnotherCardInTheSameReaderIsNotTakenForTheFirst)
{
    plug("A", "8:1", "7");
    add(stick);
    EXPECT_EQ(note(), 0);
    write_file(numbers + "diskA/diskseq", "8\n");
    EXPECT_EQ(judge(stick), swapped);
    // Nor is it after the notes were written again, since settings were changed, say.
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(stick), swapped);
}

// Before Linux 5.15 nobody can tell one card from another; what has no medium to change stays.
TEST_F(AdoptionTest, WhereMediaAreNotCountedAReadersMountGoes)
{
    plug("A", "8:1", "");
    write_file(numbers + "diskA/removable", "0\n");
    add(stick);
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(stick), "stays");
    write_file(numbers + "diskA/removable", "1\n");
    EXPECT_EQ(judge(stick), "this kernel does not count media, it may hold another");
    write_file(numbers + "diskA/diskseq", "1\n");
    EXPECT_EQ(judge(stick), swapped);
}

// The service unmounted the first card, and mounted the second.
TEST_F(AdoptionTest, ACardThatWasMountedAnewIsNotedAnew)
{
    plug("A", "8:1", "7");
    add(stick);
    EXPECT_EQ(note(), 0);
    write_file(numbers + "diskA/diskseq", "8\n");
    usleep(20000); // some ticks of the clock that the kernel stamps with
    make_node("sda1", 8, 1);
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(stick), "stays");
}

TEST_F(AdoptionTest, AMountThatIsGoneIsNotNotedAnyMore)
{
    plug("A", "8:1", "7");
    add(stick);
    EXPECT_EQ(note(), 0);
    text.clear();
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(stick), unnoted);
}

TEST_F(AdoptionTest, NotesOfAnotherBootDoNotCount)
{
    plug("A", "8:1", "7");
    add(stick);
    EXPECT_EQ(note(), 0);
    std::string notes = read_file(adoption_notes_path);
    EXPECT_EQ(judge(stick), "stays");
    write_file(adoption_notes_path,
               "00000000-0000-0000-0000-000000000000" + notes.substr(notes.find('\n')));
    EXPECT_EQ(judge(stick), unnoted);
}

TEST_F(AdoptionTest, BrokenNotesAreNone)
{
    plug("A", "8:1", "7");
    add(stick);
    EXPECT_EQ(note(), 0);
    const std::string notes = read_file(adoption_notes_path);
    for (size_t cut = 0; cut < notes.size(); cut++) {
        write_file(adoption_notes_path, notes.substr(0, cut));
        EXPECT_EQ(judge(stick), unnoted) << cut;
    }
    write_file(adoption_notes_path, notes);
    EXPECT_EQ(judge(stick), "stays");
    unlink(adoption_notes_path);
    EXPECT_EQ(symlink("/etc/passwd", adoption_notes_path), 0);
    AdoptionNotes none;
    EXPECT_EQ(adoption_load(&none), -ELOOP);
}

TEST_F(AdoptionTest, FilesystemsThatAreNotEnabledGo)
{
    plug("A", "8:1", "7");
    add(stick);
    EXPECT_EQ(note(), 0);
    config.mountext = 0;
    EXPECT_EQ(judge(stick), "its filesystem is not enabled");
    EXPECT_EQ(judge(line("36", "8:1", "sda1", "exfat")), "its filesystem is not enabled");
    EXPECT_EQ(judge(line("36", "8:1", "sda1", "fuse.other", "/dev/other")), untold);
    EXPECT_EQ(judge(line("36", "8:1", "sda1", "tmpfs")), "its filesystem is not enabled");
    config.otherfs[0] = CONF_DEV_FS_EXFAT;
    EXPECT_EQ(judge(line("36", "8:1", "sda1", "exfat")), "stays");
    config.otherfs[0] = CONF_DEV_FS_BTRFS;
    EXPECT_EQ(judge(line("36", "0:41", "sda1", "btrfs")), untold);
}

TEST_F(AdoptionTest, ADriversMountIsKnownByItsSource)
{
    plug("A", "8:1", "7");
    const std::string ntfs = line("36", "0:50", "sda1", "fuseblk", "/tmp/hotdev/sda1");
    add(ntfs);
    EXPECT_EQ(note(), 0);
    EXPECT_EQ(judge(ntfs), "stays");
    EXPECT_EQ(judge(line("36", "0:50", "sda1", "fuseblk", "/dev/sda1")), untold);
    fake_world().fail("statfs", 1, ENOTCONN);
    EXPECT_EQ(judge(ntfs), "its driver does not answer");
    unlink("/tmp/hotdev/sda1");
    EXPECT_EQ(judge(ntfs), untold);
    write_file("/tmp/hotdev/sda1", "");
    EXPECT_EQ(judge(ntfs), untold);
    make_node("sda1", 8, 2);
    EXPECT_EQ(judge(ntfs), unnoted);
}

TEST_F(AdoptionTest, OnlyTheServicesOwnAreNoted)
{
    plug("A", "8:1", "7");
    for (const char* name : {"sda1/inner", "archive", "sda"})
        add(line("36", "8:1", name));
    add("36 35 8:1 / /tmp/hotplug rw - ext4 /dev/x rw");
    EXPECT_EQ(note(), 0);
    const std::string notes = read_file(adoption_notes_path);
    EXPECT_EQ(notes.find('\n'), notes.size() - 1);
}

TEST_F(AdoptionTest, NotesThatCannotBeWrittenLeaveThoseOfBefore)
{
    plug("A", "8:1", "7");
    add(stick);
    EXPECT_EQ(note(), 0);
    const std::string before = read_file(adoption_notes_path);
    text.clear();
    fake_world().fail("rename", 1, EIO);
    EXPECT_EQ(note(), -EIO);
    EXPECT_EQ(read_file(adoption_notes_path), before);
    EXPECT_EQ(names_in("/run/vyhotplugd"), std::set<std::string>{"mounts"});
}
