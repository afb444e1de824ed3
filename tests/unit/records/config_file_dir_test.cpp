// What the share file says.
#include "records/config_file_dir.h"

#include "config/filesystems.h"
#include "device/crtsec.h"
#include "device/kinds.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "record.h"
#include "records/volume_label.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <string.h>
#include <syslog.h>

#include <functional>
#include <string>
#include <vector>

namespace {

const std::string path = "/tmp/vynas.dir.conf";

// What one of the writers writes.
std::string written(const std::function<int(FILE*)>& writer)
{
    FILE* stream = fopen("/tmp/part", "w");
    EXPECT_EQ(writer(stream), 0);
    fclose(stream);
    return read_file("/tmp/part");
}

// The text of a file's sections, each beginning with its header.
std::vector<std::string> sections_of(const std::string& text)
{
    std::vector<std::string> sections;
    for (size_t at = 0; at < text.size();) {
        size_t next = text.find("\n[", at);
        next = next == std::string::npos ? text.size() : next + 1;
        sections.push_back(text.substr(at, next - at));
        at = next;
    }
    return sections;
}

std::vector<std::string> headers_of(const std::string& text)
{
    std::vector<std::string> headers;
    for (const std::string& section : sections_of(text))
        headers.push_back(section.substr(0, section.find('\n')));
    return headers;
}

bool has_line(const std::string& text, const std::string& line)
{
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

using Names = std::vector<std::string>;

class ShareFileTest : public testing::Test {
  protected:
    ShareFileTest() { EXPECT_EQ(crtsec_init(), 0); }
    ~ShareFileTest() override
    {
        crtsec_term();
        for (MountEntry* entry : entries)
            mount_entry_free(entry);
        conf_dev_free(table);
    }

    // A directory share.
    ConfDev* add_directory(const std::string& serial, const std::string& directory)
    {
        ConfDev* dev = add_record(table, serial, 0);
        set_text(&dev->path, directory);
        return dev;
    }

    // A mounted partition of the first USB disk, with its record.
    MountEntry* add_partition(int32_t minor = 1)
    {
        MountEntry* entry = create_partition();
        entry->dev->minor = minor;
        entries.push_back(entry);
        EXPECT_EQ(crtsec_blk_add(entry), 0);
        return entry;
    }

    ConfDev* record_of(const MountEntry* entry)
    {
        const HotplugDev* dev = entry->dev;
        const int32_t partition = hotplug_dev_partition(dev);
        ConfDev* found = conf_dev_find(table, dev->vid, dev->pid, dev->serial, partition);
        return found != nullptr ? found
                                : conf_dev_add(table, dev->vid, dev->pid, dev->serial, partition);
    }

    std::string saved(int naswork = 0)
    {
        EXPECT_EQ(conf_dir_save(path.c_str(), table, naswork), 0);
        EXPECT_FALSE(exists("/tmp/vyhotplug.dir.conf.tmp"));
        return read_file(path);
    }

    // The share's name of the one partition after a save.
    std::string name_of(MountEntry* entry)
    {
        (void)record_of(entry);
        const Names headers = headers_of(saved());
        EXPECT_EQ(headers.size(), 1U);
        return headers.empty() ? "" : headers[0];
    }

    ConfDevTable* table = conf_dev_create();
    std::vector<MountEntry*> entries;
};

// ---- a share's settings ----

TEST_F(ShareFileTest, DefaultSettingsAreAHeaderAlone)
{
    const ConfDev* dev = add_record(table, "ABC");
    EXPECT_EQ(written([&](FILE* stream) { return conf_dir_info(stream, "My Disk", dev); }),
              "[My Disk]\n");
}

TEST_F(ShareFileTest, SettingsHaveTheirOrder)
{
    ConfDev* dev = add_record(table, "ABC");
    set_text(&dev->sharename, "not written here");
    set_text(&dev->path, "/not/written/here");
    set_text(&dev->comment, "all of it");
    dev->filesystem = CONF_DEV_FS_NTFS;
    dev->sync = dev->readonly = dev->guestaccess = dev->guesthide = 1;
    dev->administrator = CONF_DEV_ADMIN_BLOCK;
    add_users(dev->fullaccessusers, {500, 501});
    add_users(dev->readonlyusers, {502});
    add_users(dev->blockusers, {503});
    add_users(dev->hideusers, {504, 505});
    EXPECT_EQ(written([&](FILE* stream) { return conf_dir_info(stream, "N", dev); }),
              "[N]\n"
              "Comment=all of it\n"
              "File System=NTFS\n"
              "Sync=Enable\n"
              "Read Only=Enable\n"
              "Guest Access=Enable\n"
              "Guest Hide=Enable\n"
              "Administrator=Block\n"
              "Full Access Users=500,501,\n"
              "Read Only Users=502,\n"
              "Block Users=503,\n"
              "Hide Users=504,505,\n");
}

struct SettingRow {
    const char* name;
    std::function<void(ConfDev*)> set;
    const char* lines; // behind the header
};

TEST_F(ShareFileTest, EachSettingHasItsLine)
{
    const std::vector<SettingRow> rows = {
        {"ext2", [](ConfDev* dev) { dev->filesystem = 1; }, "File System=EXT2\n"},
        {"ext3", [](ConfDev* dev) { dev->filesystem = 2; }, "File System=EXT3\n"},
        {"ext4", [](ConfDev* dev) { dev->filesystem = 3; }, ""},
        {"fat", [](ConfDev* dev) { dev->filesystem = 4; }, "File System=FAT\n"},
        {"ntfs", [](ConfDev* dev) { dev->filesystem = 5; }, "File System=NTFS\n"},
        {"filesystem 6", [](ConfDev* dev) { dev->filesystem = 6; }, ""},
        {"sync", [](ConfDev* dev) { dev->sync = 1; }, "Sync=Enable\n"},
        {"sync 2", [](ConfDev* dev) { dev->sync = 2; }, ""},
        {"read-only", [](ConfDev* dev) { dev->readonly = 1; }, "Read Only=Enable\n"},
        {"read-only 2", [](ConfDev* dev) { dev->readonly = 2; }, ""},
        {"guest access", [](ConfDev* dev) { dev->guestaccess = 1; }, "Guest Access=Enable\n"},
        {"guest access 2", [](ConfDev* dev) { dev->guestaccess = 2; }, ""},
        {"guest hide", [](ConfDev* dev) { dev->guesthide = 1; }, "Guest Hide=Enable\n"},
        {"guest hide 2", [](ConfDev* dev) { dev->guesthide = 2; }, ""},
        {"block", [](ConfDev* dev) { dev->administrator = 1; }, "Administrator=Block\n"},
        {"ro", [](ConfDev* dev) { dev->administrator = 2; }, "Administrator=ReadOnly\n"},
        {"full", [](ConfDev* dev) { dev->administrator = 3; }, ""},
        {"administrator 4", [](ConfDev* dev) { dev->administrator = 4; }, ""},
        {"empty comment", [](ConfDev* dev) { set_text(&dev->comment, ""); }, "Comment=\n"},
    };
    for (const SettingRow& row : rows) {
        ConfDev* dev = add_record(table, "ABC");
        row.set(dev);
        EXPECT_EQ(written([&](FILE* stream) { return conf_dir_info(stream, "N", dev); }),
                  std::string("[N]\n") + row.lines)
            << row.name;
        EXPECT_EQ(conf_dev_del(table, dev), 0);
    }
}

// The share service looks for the spelling with the T; the device file has none.
TEST_F(ShareFileTest, HideIsSpeltHideT)
{
    ConfDev* dev = add_record(table, "ABC");
    dev->administrator = CONF_DEV_ADMIN_HIDE;
    EXPECT_EQ(written([&](FILE* stream) { return conf_dir_info(stream, "N", dev); }),
              "[N]\nAdministrator=HideT\n");
}

TEST_F(ShareFileTest, SettingsThatCannotBeWrittenFail)
{
    ConfDev* dev = add_record(table, "ABC");
    FILE* stream = fopen("/dev/full", "w");
    setvbuf(stream, nullptr, _IONBF, 0);
    EXPECT_EQ(conf_dir_info(stream, "N", dev), -1);
    const MountEntry* entry = add_partition();
    EXPECT_EQ(conf_dir_exinfo(stream, entry), -1);
    fclose(stream);
}

// ---- what is known of a device ----

struct DeviceRow {
    const char* name;
    std::function<void(MountEntry*)> set;
    const char* lines;
};

TEST_F(ShareFileTest, EachDeviceDetailHasItsLine)
{
    const std::vector<DeviceRow> rows = {
        {"nothing", [](MountEntry*) {}, ""},
        {"not mounted", [](MountEntry* entry) { entry->mounted = 0; }, "Status=Unmount\n"},
        {"ext2", [](MountEntry* entry) { entry->fstype = 1; }, "File System=EXT2\n"},
        {"ext3", [](MountEntry* entry) { entry->fstype = 2; }, "File System=EXT3\n"},
        {"ext4", [](MountEntry* entry) { entry->fstype = 3; }, ""},
        {"fat", [](MountEntry* entry) { entry->fstype = 4; }, "File System=FAT\n"},
        {"ntfs", [](MountEntry* entry) { entry->fstype = 5; }, "File System=NTFS\n"},
        {"vendor id", [](MountEntry* entry) { entry->dev->vid = 0x1234; }, "VID=4660\n"},
        {"product id", [](MountEntry* entry) { entry->dev->pid = 0xFFFF; }, "PID=65535\n"},
        {"serial", [](MountEntry* entry) { set_text(&entry->dev->serial, "S 1"); }, "Serial=S 1\n"},
        {"vendor", [](MountEntry* entry) { set_text(&entry->dev->vname, "V"); },
         "Manufactuare=V\n"},
        {"product", [](MountEntry* entry) { set_text(&entry->dev->pname, "P"); }, "Product=P\n"},
        {"speed", [](MountEntry* entry) { entry->dev->speed = 480; }, "Speed=480\n"},
        {"port", [](MountEntry* entry) { entry->dev->usbport[0] = 4; }, "USB Port=4\n"},
        {"port path", [](MountEntry* entry) { memcpy(entry->dev->usbport, "\1\3\2", 3); },
         "USB Port=1-3-2\n"},
        {"whole port path",
         [](MountEntry* entry) { memcpy(entry->dev->usbport, "\1\2\3\4\5\6\7\10", 8); },
         "USB Port=1-2-3-4-5-6-7-8\n"},
        {"port path with a gap",
         [](MountEntry* entry) { memcpy(entry->dev->usbport, "\1\0\2", 3); }, "USB Port=1\n"},
        {"no first port", [](MountEntry* entry) { memcpy(entry->dev->usbport, "\0\1\2", 3); }, ""},
        {"port above 127", [](MountEntry* entry) { entry->dev->usbport[0] = 200; },
         "USB Port=-56\n"}, // a signed number
        {"read-only", [](MountEntry* entry) { entry->dev->flags = 2; }, "Read Only=Enable\n"},
        {"removable", [](MountEntry* entry) { entry->dev->flags = 1; }, ""},
        {"both flags", [](MountEntry* entry) { entry->dev->flags = 3; }, "Read Only=Enable\n"},
    };
    for (const DeviceRow& row : rows) {
        HotplugDev device = {};
        MountEntry entry = {};
        entry.mounted = 1;
        entry.dev = &device;
        row.set(&entry);
        EXPECT_EQ(written([&](FILE* stream) { return conf_dir_exinfo(stream, &entry); }), row.lines)
            << row.name;
        hotplug_dev_clear(&device);
    }
}

TEST_F(ShareFileTest, DeviceDetailsHaveTheirOrder)
{
    MountEntry* entry = add_partition();
    entry->mounted = 0;
    set_text(&entry->dev->vname, "Acme");
    set_text(&entry->dev->pname, "FlashKey");
    entry->dev->speed = 12;
    memcpy(entry->dev->usbport, "\1\3\2", 3);
    entry->dev->flags = HOTPLUG_FLAG_READONLY;
    EXPECT_EQ(written([&](FILE* stream) { return conf_dir_exinfo(stream, entry); }),
              "Status=Unmount\n"
              "File System=FAT\n"
              "VID=4660\n"
              "PID=171\n"
              "Serial=ABC\n"
              "Manufactuare=Acme\n"
              "Product=FlashKey\n"
              "Speed=12\n"
              "USB Port=1-3-2\n"
              "Read Only=Enable\n");
}

// ---- directory shares ----

TEST_F(ShareFileTest, NothingToShareIsAnEmptyFile)
{
    write_file(path, "[old]\n");
    add_record(table, "no path, not mounted");
    EXPECT_EQ(saved(1), "");
}

TEST_F(ShareFileTest, DirectoryShareHasItsLinesInOrder)
{
    ConfDev* dev = add_directory("ABC", "/srv/data");
    set_text(&dev->sharename, "Data");
    dev->readonly = 1;
    EXPECT_EQ(saved(1), "[Data]\n"
                        "Read Only=Enable\n"
                        "Path=/srv/data\n"
                        "Comment=Internal Disk\n"
                        "Identifier=1234:00ab:ABC:0\n");
}

TEST_F(ShareFileTest, DirectoryShareKeepsItsOwnComment)
{
    set_text(&add_directory("ABC", "/srv")->comment, "mine");
    EXPECT_EQ(saved(), "[Disk(0)]\n"
                       "Comment=mine\n"
                       "Path=/srv\n"
                       "Identifier=1234:00ab:ABC:0\n");
}

TEST_F(ShareFileTest, UnnamedDirectorySharesAreNumberedInTableOrder)
{
    add_directory("a", "/a");
    set_text(&add_directory("b", "/b")->sharename, "B");
    add_record(table, "no path");
    add_directory("c", "/c");
    const std::string text = saved();
    EXPECT_EQ(headers_of(text), (Names{"[Disk(0)]", "[B]", "[Disk(1)]"}));
    EXPECT_TRUE(has_line(sections_of(text).at(2), "Path=/c"));
    EXPECT_EQ(headers_of(saved()), (Names{"[Disk(0)]", "[B]", "[Disk(1)]"})) << "each time anew";
}

TEST_F(ShareFileTest, DirectorySharesNameIsCutTo39Bytes)
{
    const std::string name = "abcdefghijklmnopqrstuvwxyz0123456789ABCDEFG";
    set_text(&add_directory("a", "/a")->sharename, name);
    EXPECT_EQ(headers_of(saved()), (Names{"[" + name.substr(0, 39) + "]"}));
}

TEST_F(ShareFileTest, DirectoriesComeBeforePartitions)
{
    MountEntry* entry = add_partition();
    (void)record_of(entry);
    add_directory("a", "/a");
    add_directory("b", "/b");
    EXPECT_EQ(headers_of(saved()), (Names{"[Disk(0)]", "[Disk(1)]", "[Drive(A1)]"}));
}

// ---- partition shares ----

TEST_F(ShareFileTest, PartitionShareHasItsLinesInOrder)
{
    MountEntry* entry = add_partition();
    ConfDev* dev = record_of(entry);
    dev->guestaccess = 1;
    label_tool_prints("mlabel", "PHOTOS\n");
    EXPECT_EQ(saved(), "[PHOTOS(A1)]\n"
                       "Guest Access=Enable\n"
                       "Identifier=1234:00ab:ABC:1\n"
                       "Path=/mnt/sda1\n"
                       "Volume Label=PHOTOS\n"
                       "Comment=USB Storage Device (0x1234/0x00AB)\n");
}

TEST_F(ShareFileTest, PartitionShareKeepsItsOwnComment)
{
    MountEntry* entry = add_partition();
    set_text(&record_of(entry)->comment, "mine");
    EXPECT_EQ(saved(), "[Drive(A1)]\n"
                       "Comment=mine\n"
                       "Identifier=1234:00ab:ABC:1\n"
                       "Path=/mnt/sda1\n");
}

TEST_F(ShareFileTest, DeviceDetailsAreWrittenOnlyWhenAskedFor)
{
    MountEntry* entry = add_partition();
    (void)record_of(entry);
    const std::string plain = saved(0);
    for (const char* key : {"VID=", "PID=", "Serial=", "Status=", "USB Port=", "File System="})
        EXPECT_EQ(plain.find(key), std::string::npos) << key;
    const std::string details = "File System=FAT\nVID=4660\nPID=171\nSerial=ABC\n";
    EXPECT_EQ(saved(1), plain + details);
    EXPECT_EQ(saved(2), plain + details);
}

// Readers take the last: what was found, and the device's own switch.
TEST_F(ShareFileTest, SectionMayHoldTwoFilesystemsAndTwoReadOnlyLines)
{
    MountEntry* entry = add_partition();
    ConfDev* dev = record_of(entry);
    dev->filesystem = CONF_DEV_FS_NTFS;
    dev->readonly = 1;
    entry->dev->flags = HOTPLUG_FLAG_READONLY;
    const std::string text = saved(1);
    const size_t wanted = text.find("File System=NTFS\n");
    const size_t found = text.find("File System=FAT\n");
    ASSERT_NE(wanted, std::string::npos);
    ASSERT_NE(found, std::string::npos);
    EXPECT_LT(wanted, found);
    const size_t first = text.find("Read Only=Enable\n");
    EXPECT_NE(text.find("Read Only=Enable\n", first + 1), std::string::npos);
}

TEST_F(ShareFileTest, PartitionsComeInTheSetsOrder)
{
    (void)record_of(add_partition(2));
    (void)record_of(add_partition(1));
    EXPECT_EQ(headers_of(saved()), (Names{"[Drive(A2)]", "[Drive(A1)]"}));
}

TEST_F(ShareFileTest, RemovedPartitionIsLeftOut)
{
    (void)record_of(add_partition(1));
    MountEntry* gone = add_partition(2);
    (void)record_of(gone);
    gone->gone = 1;
    (void)record_of(add_partition(3));
    EXPECT_EQ(headers_of(saved()), (Names{"[Drive(A1)]", "[Drive(A3)]"}));
    EXPECT_EQ(gone->sharename, nullptr);
    EXPECT_TRUE(fake_log_lines().empty());
    EXPECT_EQ(fake_world().spawned.size(), 2U) << "its label is not read";
}

TEST_F(ShareFileTest, PartitionThatIsNotMountedIsWrittenAllTheSame)
{
    MountEntry* entry = add_partition();
    (void)record_of(entry);
    entry->mounted = 0;
    const std::string text = saved(1);
    EXPECT_EQ(headers_of(text), (Names{"[Drive(A1)]"}));
    EXPECT_TRUE(has_line(text, "Status=Unmount"));
}

TEST_F(ShareFileTest, PartitionWithoutARecordIsLoggedAndLeftOut)
{
    MountEntry* unknown = add_partition(1);
    set_text(&unknown->dev->serial, "other");
    (void)record_of(add_partition(2));
    EXPECT_EQ(headers_of(saved()), (Names{"[Drive(A2)]"}));
    EXPECT_EQ(fake_log_texts(), (Names{"config_file_dir(#)Error - External Directory Config."}));
    EXPECT_EQ(fake_log_lines().at(0).priority, LOG_ERR);
    EXPECT_EQ(unknown->sharename, nullptr);
    EXPECT_EQ(fake_world().spawned.size(), 1U) << "its label is not read";
}

TEST_F(ShareFileTest, PartitionWithoutASerialHasItsRecord)
{
    MountEntry* entry = add_partition();
    free(entry->dev->serial);
    entry->dev->serial = nullptr;
    EXPECT_EQ(name_of(entry), "[Drive(A1)]");
    EXPECT_TRUE(has_line(read_file(path), "Identifier=1234:00ab::1"));
}

TEST_F(ShareFileTest, PartitionWhoseRecordHasAPathIsWrittenOnceAsADirectory)
{
    MountEntry* entry = add_partition();
    set_text(&record_of(entry)->path, "/srv");
    EXPECT_EQ(headers_of(saved(1)), (Names{"[Disk(0)]"}));
    EXPECT_TRUE(has_line(read_file(path), "Path=/srv"));
    EXPECT_EQ(entry->sharename, nullptr);
    EXPECT_TRUE(fake_log_lines().empty());
    EXPECT_TRUE(fake_world().spawned.empty()) << "its label is not read";
}

TEST_F(ShareFileTest, TwoSharesMayHaveOneName)
{
    MountEntry* first = add_partition(1);
    MountEntry* second = add_partition(1);
    set_text(&second->dev->serial, "other");
    (void)record_of(first);
    (void)record_of(second);
    EXPECT_EQ(headers_of(saved()), (Names{"[Drive(A1)]", "[Drive(A1)]"}));
}

// ---- names ----

struct NameRow {
    int32_t major, minor;
    uint8_t range;
    const char* label;
    const char* header;
};

TEST_F(ShareFileTest, NameIsTheLabelTheDisksLetterAndThePartition)
{
    const NameRow rows[] = {
        {8, 1, 16, "", "[Drive(A1)]"},
        {8, 2, 16, "", "[Drive(A2)]"},
        {8, 15, 16, "", "[Drive(A15)]"},
        {8, 16, 16, "", "[Drive(B0)]"},
        {8, 17, 16, "", "[Drive(B1)]"},
        {8, 33, 16, "", "[Drive(C1)]"},
        {8, 241, 16, "", "[Drive(P1)]"},
        {8, 1, 16, "PHOTOS\n", "[PHOTOS(A1)]"},
        {8, 1, 16, "My  Disk \n", "[My  Disk (A1)]"},
        {8, 1, 16, "\n", "[Drive(A1)]"},
        {179, 1, 8, "PHOTOS\n", "[PHOTOS(MMCA1)]"},
        {179, 1, 8, "", "[Drive(MMCA1)]"},
        {179, 9, 8, "", "[Drive(MMCB1)]"},
        {179, 8, 8, "", "[Drive(MMCB0)]"},
        {7, 1, 16, "PHOTOS\n", "[]"}, // no name for such a device
        {180, 1, 8, "", "[]"},
    };
    MountEntry* entry = add_partition();
    for (const NameRow& row : rows) {
        entry->dev->major = row.major;
        entry->dev->minor = row.minor;
        entry->dev->range = row.range;
        label_tool_prints("mlabel", row.label);
        (void)record_of(entry);
        EXPECT_EQ(headers_of(saved()), (Names{row.header})) << row.major << ":" << row.minor;
        EXPECT_EQ(std::string("[") + entry->sharename + "]", row.header);
    }
}

// The copy is one byte stricter than its size of 34, and cuts no character.
TEST_F(ShareFileTest, LabelsFirst32BytesAreUsed)
{
    const std::string label = "abcdefghijklmnopqrstuvwxyz0123456789ABCD";
    MountEntry* entry = add_partition();
    label_tool_prints("mlabel", label + "\n");
    EXPECT_EQ(name_of(entry), "[" + label.substr(0, 32) + "(A1)]");
    EXPECT_TRUE(has_line(read_file(path), "Volume Label=" + label.substr(0, 32)));
    label_tool_prints("mlabel", std::string(31, 'a') + "\xC3\x84" + "b\n");
    EXPECT_EQ(name_of(entry), "[" + std::string(31, 'a') + "(A1)]");
    EXPECT_TRUE(has_line(read_file(path), "Volume Label=" + std::string(31, 'a')));
    label_tool_prints("mlabel", std::string(30, 'a') + "\xC3\x84" + "b\n");
    EXPECT_EQ(name_of(entry), "[" + std::string(30, 'a') + "\xC3\x84(A1)]");
}

TEST_F(ShareFileTest, NameOfTheLongestLabelIsCutTo39Bytes)
{
    MountEntry* entry = add_partition();
    entry->dev->major = MAJOR_MMC;
    entry->dev->range = 64;
    entry->dev->minor = 63;
    label_tool_prints("mlabel", std::string(200, 'x') + "\n");
    EXPECT_EQ(name_of(entry), "[" + (std::string(32, 'x') + "(MMCA63)").substr(0, 39) + "]");
}

// A label that the copy takes nothing of is as good as none.
TEST_F(ShareFileTest, LabelThatIsNoUtf8NamesADrive)
{
    MountEntry* entry = add_partition();
    label_tool_prints("mlabel", "\xBF\xBB\xEF"
                                "abc\n");
    EXPECT_EQ(name_of(entry), "[Drive(A1)]");
    EXPECT_EQ(read_file(path).find("Volume Label"), std::string::npos);
}

TEST_F(ShareFileTest, NoLabelNoVolumeLabelLine)
{
    MountEntry* entry = add_partition();
    EXPECT_EQ(name_of(entry), "[Drive(A1)]");
    EXPECT_EQ(read_file(path).find("Volume Label"), std::string::npos);
}

TEST_F(ShareFileTest, FatLabelsThatAreSwitchedOffNameDrives)
{
    MountEntry* entry = add_partition();
    label_tool_prints("mlabel", "PHOTOS\n");
    conf_dir_set_fat_vlabel(0);
    EXPECT_EQ(name_of(entry), "[Drive(A1)]");
    EXPECT_EQ(read_file(path).find("Volume Label"), std::string::npos);
    conf_dir_set_fat_vlabel(1);
}

TEST_F(ShareFileTest, Ext3PartitionIsADrive)
{
    MountEntry* entry = add_partition();
    entry->fstype = CONF_DEV_FS_EXT3;
    EXPECT_EQ(name_of(entry), "[Drive(A1)]");
    EXPECT_TRUE(fake_world().spawned.empty());
}

TEST_F(ShareFileTest, ShareNameOfTheRecordSavesReadingALabel)
{
    const std::string name = "abcdefghijklmnopqrstuvwxyz0123456789ABCDEFG";
    MountEntry* entry = add_partition();
    set_text(&record_of(entry)->sharename, name);
    label_tool_prints("mlabel", "PHOTOS\n");
    EXPECT_EQ(name_of(entry), "[" + name.substr(0, 39) + "]");
    EXPECT_EQ(read_file(path).find("Volume Label"), std::string::npos);
    EXPECT_TRUE(fake_world().spawned.empty());
}

TEST_F(ShareFileTest, ShareNameOfTheRecordIsUsedForAnyKindOfDevice)
{
    MountEntry* entry = add_partition();
    entry->dev->major = 7;
    set_text(&record_of(entry)->sharename, "Loop");
    EXPECT_EQ(name_of(entry), "[Loop]");
}

TEST_F(ShareFileTest, NamesAreWrittenAsTheyAre)
{
    MountEntry* entry = add_partition();
    label_tool_prints("mlabel", "a]b/%s\\[\n");
    EXPECT_EQ(name_of(entry), "[a]b/%s\\[(A1)]");
}

TEST_F(ShareFileTest, EntryIsGivenACopyOfItsSharesName)
{
    MountEntry* entry = add_partition();
    set_text(&entry->sharename, "earlier");
    ConfDev* dev = record_of(entry);
    long before = memory_blocks();
    (void)saved();
    EXPECT_STREQ(entry->sharename, "Drive(A1)");
    EXPECT_EQ(memory_blocks(), before) << "the earlier name is freed";
    set_text(&dev->sharename, "Mine");
    before = memory_blocks();
    (void)saved();
    EXPECT_EQ(memory_blocks(), before);
    EXPECT_STREQ(entry->sharename, "Mine");
    EXPECT_NE(entry->sharename, dev->sharename);
}

// ---- comments ----

struct CommentRow {
    int32_t major;
    const char* vname;
    const char* pname;
    uint16_t vid, pid;
    const char* comment;
};

TEST_F(ShareFileTest, CommentTellsTheKindAndTheMaker)
{
    const CommentRow rows[] = {
        {8, "Acme", "FlashKey", 1, 2, "USB Storage Device (Acme/FlashKey)"},
        {8, "Acme", nullptr, 1, 2, "USB Storage Device (Acme)"},
        {8, nullptr, "FlashKey", 1, 2, "USB Storage Device (FlashKey)"},
        {8, nullptr, nullptr, 0xabcd, 0x00ef, "USB Storage Device (0xABCD/0x00EF)"},
        {8, "", "", 1, 2, "USB Storage Device (/)"},
        {179, nullptr, nullptr, 0, 0, "MMC Block Device (0x0000/0x0000)"},
        {179, "Acme", "Card", 0, 0, "MMC Block Device (Acme/Card)"},
        {7, "Acme", nullptr, 0, 0, " (Acme)"},
        {7, nullptr, nullptr, 1, 2, " (0x0001/0x0002)"},
    };
    for (const CommentRow& row : rows) {
        MountEntry* entry = add_partition();
        entry->dev->major = row.major;
        entry->dev->vid = row.vid;
        entry->dev->pid = row.pid;
        if (row.vname != nullptr)
            set_text(&entry->dev->vname, row.vname);
        if (row.pname != nullptr)
            set_text(&entry->dev->pname, row.pname);
        (void)record_of(entry);
        const std::string text = saved();
        EXPECT_TRUE(has_line(text, std::string("Comment=") + row.comment)) << text;
        crtsec_blk_del(entry);
    }
}

TEST_F(ShareFileTest, CommentIsCutTo63Bytes)
{
    MountEntry* entry = add_partition();
    set_text(&entry->dev->vname, std::string(30, 'v'));
    set_text(&entry->dev->pname, std::string(30, 'p'));
    (void)record_of(entry);
    const std::string whole =
        "USB Storage Device (" + std::string(30, 'v') + "/" + std::string(30, 'p') + ")";
    EXPECT_TRUE(has_line(saved(), "Comment=" + whole.substr(0, 63)));
}

TEST_F(ShareFileTest, DirectoryAndPartitionKeepTheirOwnCommentsEvenEmpty)
{
    set_text(&add_directory("dir", "/srv")->comment, "");
    MountEntry* entry = add_partition();
    set_text(&record_of(entry)->comment, "");
    for (const std::string& section : sections_of(saved())) {
        EXPECT_TRUE(has_line(section, "Comment="));
        EXPECT_EQ(section.find("Comment="), section.rfind("Comment=")) << section;
    }
}

} // namespace
