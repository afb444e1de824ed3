#include "tools/info_tool.h"

#include "fake_files.h"
#include "support/child.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

const char device_file[] = "/tmp/devices";
const char share_file[] = "/tmp/shares";
const char identifier[] = "1234:00ab:ABC:1";

const char defaults[] = "Share Name=\nComment=\nSync=Disable\nReadOnly=Disable\n"
                        "Guest Access=Disable\nGuest Hide=Disable\nAdministrator=FullAccess\n"
                        "Full Access Users=\nRead Only Users=\nBlock Users=\nHide Users=\n";

// Describes one device from these files' texts.
ChildResult describe(const std::string& devices, const std::string& shares,
                     const char* device = identifier)
{
    write_file(device_file, devices);
    write_file(share_file, shares);
    return run_child([&] { return hotplug_info_devinfo(device_file, share_file, device); });
}

// What is told of a device with these settings that is not plugged in, the last line left out.
std::string settings_told(const std::string& settings)
{
    const ChildResult result = describe(std::string("[") + identifier + "]\n" + settings, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const std::string last = "Status=Unplug\n";
    const size_t length = result.out.size() - last.size();
    EXPECT_EQ(result.out.substr(length), last);
    return result.out.substr(0, length);
}

// What is told of the share of a device without settings.
std::string share_told(const std::string& lines)
{
    const ChildResult result =
        describe(std::string("[") + identifier + "]\n",
                 std::string("[Drive(A1)]\nIdentifier=") + identifier + "\n" + lines);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out.substr(0, sizeof defaults - 1), defaults);
    return result.out.substr(sizeof defaults - 1);
}

std::string replaced(const std::string& text, const std::string& old, const std::string& by)
{
    const size_t at = text.find(old);
    EXPECT_NE(at, std::string::npos) << old;
    return std::string(text).replace(at, old.size(), by);
}

// ---- the device's settings ----

TEST(InfoDevice, WithoutSettingsTellsTheDefaults)
{
    EXPECT_EQ(settings_told(""), defaults);
}

TEST(InfoDevice, TellsEverySettingInItsOrder)
{
    EXPECT_EQ(settings_told("Hide Users=8,\nBlock Users=7,\nRead Only Users=6,\n"
                            "Full Access Users=5,\nAdministrator=Hide\nGuest Hide=Enable\n"
                            "Guest Access=Yes\nRead Only=1\nSync=Enable\nFile System=EXT3\n"
                            "Comment=My disk\nPath=/srv/disk\nShare Name=Photos\n"),
              "DevType=InternalDisk\nShare Name=Photos\nComment=My disk\nFile System=EXT3\n"
              "Sync=Enable\nReadOnly=1\nGuest Access=Yes\nGuest Hide=Enable\n"
              "Administrator=Hide\nFull Access Users=5,\nRead Only Users=6,\nBlock Users=7,\n"
              "Hide Users=8,\n");
}

struct SettingRow {
    const char* key;
    const char* otherwise; // the default's line
    const char* line;      // with the value "x"
};

const SettingRow setting_rows[] = {
    {"sharename", "Share Name=\n", "Share Name=x\n"},
    {"comment", "Comment=\n", "Comment=x\n"},
    {"sync", "Sync=Disable\n", "Sync=x\n"},
    {"readonly", "ReadOnly=Disable\n", "ReadOnly=x\n"},
    {"guestaccess", "Guest Access=Disable\n", "Guest Access=x\n"},
    {"guesthide", "Guest Hide=Disable\n", "Guest Hide=x\n"},
    {"administrator", "Administrator=FullAccess\n", "Administrator=x\n"},
    {"fullaccessusers", "Full Access Users=\n", "Full Access Users=x\n"},
    {"readonlyusers", "Read Only Users=\n", "Read Only Users=x\n"},
    {"blockusers", "Block Users=\n", "Block Users=x\n"},
    {"hideusers", "Hide Users=\n", "Hide Users=x\n"},
};

TEST(InfoDevice, TellsAValueInPlaceOfEachDefault)
{
    for (const SettingRow& row : setting_rows)
        EXPECT_EQ(settings_told(std::string(row.key) + "=x\n"),
                  replaced(defaults, row.otherwise, row.line))
            << row.key;
}

TEST(InfoDevice, AnEmptyValueCountsAsNone)
{
    for (const SettingRow& row : setting_rows)
        EXPECT_EQ(settings_told(std::string(row.key) + "=\n"), defaults) << row.key;
    EXPECT_EQ(settings_told("path=\nfilesystem=\n"), defaults);
}

TEST(InfoDevice, TheLastOfTwoValuesCounts)
{
    EXPECT_EQ(settings_told("comment=a\ncomment=b\n"),
              replaced(defaults, "Comment=\n", "Comment=b\n"));
    EXPECT_EQ(settings_told("comment=a\ncomment=\n"), defaults);
}

TEST(InfoDevice, OfAPathOnlyItsBeingThereIsTold)
{
    EXPECT_EQ(settings_told("path=/srv/disk\n"), std::string("DevType=InternalDisk\n") + defaults);
}

TEST(InfoDevice, AFilesystemIsToldBehindTheComment)
{
    EXPECT_EQ(settings_told("filesystem=NTFS\n"),
              replaced(defaults, "Comment=\n", "Comment=\nFile System=NTFS\n"));
}

TEST(InfoDevice, OnlyItsOwnSectionCounts)
{
    const ChildResult result = describe(
        "comment=top\n[other]\ncomment=other\n[1234:00ab:ABC:1]\n[last]\ncomment=last\n", "");
    EXPECT_EQ(result.out, std::string(defaults) + "Status=Unplug\n");
}

// ---- which device ----

TEST(InfoDevice, AnUnknownOneIsToldNothingOf)
{
    for (const char* device : {"1234:00ab:ABC:2", "1234:00ab:ABC:", "1234:00AB:ABC:1",
                               " 1234:00ab:ABC:1", "1234:00ab:ABC:10", ""}) {
        const ChildResult result = describe("[1234:00ab:ABC:1]\n", "", device);
        EXPECT_EQ(result.status, 255) << device;
        EXPECT_EQ(result.out, "") << device;
        EXPECT_EQ(result.err, "") << device;
    }
}

TEST(InfoDevice, WithoutItsFileNothingIsTold)
{
    write_file(share_file, "[Drive(A1)]\nIdentifier=1234:00ab:ABC:1\n");
    const ChildResult result =
        run_child([] { return hotplug_info_devinfo("/tmp/missing", share_file, identifier); });
    EXPECT_EQ(result.status, 255);
    EXPECT_EQ(result.out, "");
}

TEST(InfoDevice, WithoutTheShareFileNothingIsTold)
{
    write_file(device_file, "[1234:00ab:ABC:1]\n");
    const ChildResult result =
        run_child([] { return hotplug_info_devinfo(device_file, "/tmp/missing", identifier); });
    EXPECT_EQ(result.status, 255);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
}

// What cannot be found for want of memory is an error. A value that cannot be read by then counts
// as none.
TEST(InfoDevice, WithoutMemoryItFailsOrTellsSomething)
{
    write_file(device_file, "[1234:00ab:ABC:1]\nfilesystem=FAT\n");
    write_file(share_file, "[Drive(A1)]\nIdentifier=1234:00ab:ABC:1\nPath=/tmp\n");
    int failures = 0;
    for (int nth = 1;; nth++) {
        static constexpr int told_all = 77;
        const ChildResult result = run_child([nth] {
            memory_fail(nth);
            const int status = hotplug_info_devinfo(device_file, share_file, identifier);
            return memory_failed() ? status : told_all;
        });
        if (result.status == told_all)
            break;
        failures += result.status == 255 ? 1 : 0;
        EXPECT_EQ(result.status, result.out.empty() ? 255 : 0) << nth;
    }
    EXPECT_GT(failures, 5);
}

// ---- its share ----

TEST(InfoShare, ADeviceWithoutOneIsUnplugged)
{
    for (const char* shares :
         {"", "[Drive(B1)]\nIdentifier=1234:00ab:ABC:2\n", "[Drive(A1)]\n",
          "Identifier=1234:00ab:ABC:1\n", "[Drive(A1)]\nIdentifier=1234:00AB:ABC:1\n",
          "[Drive(A1)]\nIdentifier=1234:00ab:ABC:1x\n"}) {
        const ChildResult result = describe("[1234:00ab:ABC:1]\n", shares);
        EXPECT_EQ(result.out, std::string(defaults) + "Status=Unplug\n") << shares;
        EXPECT_EQ(result.status, 0) << shares;
    }
}

const char share_defaults[] = "Status=Mount\nAuto Mount Share Name=Drive(A1)\n"
                              "Auto Mount Comment=\nFile System=DefFS\nManufactuare=\nProduct=\n"
                              "Volume Label=\n";

TEST(InfoShare, WithoutLinesTellsTheDefaults)
{
    EXPECT_EQ(share_told(""), share_defaults);
}

TEST(InfoShare, TellsEveryLineInItsOrder)
{
    EXPECT_EQ(share_told("Path=/missing\nVolume Label=PHOTOS\nProduct=FlashKey\n"
                         "Manufactuare=Acme\nPID=171\nVID=4660\nFile System=FAT\n"
                         "Comment=USB Storage Device (Acme/FlashKey)\nStatus=Unmount\n"),
              "Status=Unmount\nAuto Mount Share Name=Drive(A1)\n"
              "Auto Mount Comment=USB Storage Device (Acme/FlashKey)\nFile System=FAT\n"
              "Manufactuare=Acme\nProduct=FlashKey\nVolume Label=PHOTOS\nPath=/missing\n");
}

TEST(InfoShare, EmptyLinesCountAsNone)
{
    EXPECT_EQ(share_told("Path=\nVolume Label=\nProduct=\nManufactuare=\nPID=\nVID=\n"
                         "File System=\nComment=\nStatus=\n"),
              share_defaults);
}

TEST(InfoShare, TheVendorIdStandsInForAMissingName)
{
    EXPECT_EQ(share_told("VID=4660\n"),
              replaced(share_defaults, "Manufactuare=\n", "Manufactuare=4660\n"));
    EXPECT_EQ(share_told("VID=4660\nManufactuare=\n"),
              replaced(share_defaults, "Manufactuare=\n", "Manufactuare=4660\n"));
}

TEST(InfoShare, TheProductIdStandsInForAMissingName)
{
    EXPECT_EQ(share_told("PID=171\n"), replaced(share_defaults, "Product=\n", "Product=171\n"));
    EXPECT_EQ(share_told("PID=171\nProduct=\n"),
              replaced(share_defaults, "Product=\n", "Product=171\n"));
}

// Kept: "manufacturer" has never been a key.
TEST(InfoShare, TheManufacturersKeyHasItsOwnSpelling)
{
    EXPECT_EQ(share_told("Manufacturer=Acme\nManufacture=Acme\n"), share_defaults);
}

TEST(InfoShare, AFilesystemOfTheDevicesSettingsIsToldOnlyOnce)
{
    const ChildResult result =
        describe("[1234:00ab:ABC:1]\nfilesystem=EXT3\n",
                 "[Drive(A1)]\nIdentifier=1234:00ab:ABC:1\nFile System=FAT\n");
    EXPECT_EQ(result.out, replaced(defaults, "Comment=\n", "Comment=\nFile System=EXT3\n") +
                              replaced(share_defaults, "File System=DefFS\n", ""));
}

TEST(InfoShare, TheFirstOfTheDevicesSectionsCounts)
{
    const ChildResult result =
        describe("[1234:00ab:ABC:1]\n", "[Other]\nIdentifier=x\n[First]\n"
                                        "Identifier=1234:00ab:ABC:1\nComment=1\n[Second]\n"
                                        "Identifier=1234:00ab:ABC:1\nComment=2\n");
    EXPECT_EQ(result.out, defaults + replaced(replaced(share_defaults, "Drive(A1)", "First"),
                                              "Comment=\n", "Comment=1\n"));
}

// An appended empty section of the same name hides the share: it is about to be withdrawn.
TEST(InfoShare, AFlaggedShareIsUnplugged)
{
    const ChildResult result =
        describe("[1234:00ab:ABC:1]\n", "[Drive(A1)]\nIdentifier=1234:00ab:ABC:1\n[Drive(A1)]\n");
    EXPECT_EQ(result.out, std::string(defaults) + "Status=Unplug\n");
}

// ---- sizes ----

TEST(InfoSizes, AMissingPathHasNone)
{
    EXPECT_EQ(share_told("Path=/missing/path\n"),
              std::string(share_defaults) + "Path=/missing/path\n");
}

TEST(InfoSizes, AreThoseOfThePathsFilesystem)
{
    fake_files().scripted = false;
    struct statvfs status;
    ASSERT_EQ(statvfs("/sys/block", &status), 0);
    const unsigned long long size = status.f_frsize;
    EXPECT_EQ(share_told("Path=/sys/block\n"),
              std::string(share_defaults) +
                  "Path=/sys/block\nMax Size=" + std::to_string(size * status.f_blocks) +
                  "\nFree Size=" + std::to_string(size * status.f_bfree) + "\n");
}

TEST(InfoSizes, CountWhatIsKeptBackForRootAsFree)
{
    fake_files().scripted = true;
    fake_files().block_size = 1024;
    fake_files().blocks = 1000;
    fake_files().free_blocks = 500;
    fake_files().available_blocks = 400;
    EXPECT_EQ(share_told("Path=/tmp\n"),
              std::string(share_defaults) + "Path=/tmp\nMax Size=1024000\nFree Size=512000\n");
}

TEST(InfoSizes, CountInTheBlocksThatAreCounted)
{
    fake_files().scripted = true;
    fake_files().preferred_size = 65536;
    fake_files().block_size = 4096;
    fake_files().blocks = 10;
    fake_files().free_blocks = 5;
    EXPECT_EQ(share_told("Path=/tmp\n"),
              std::string(share_defaults) + "Path=/tmp\nMax Size=40960\nFree Size=20480\n");
}

TEST(InfoSizes, HaveMoreThan32Bits)
{
    fake_files().scripted = true;
    fake_files().block_size = 65536;
    fake_files().blocks = 0x3FFFFFFF;
    fake_files().free_blocks = 0x20000000;
    EXPECT_EQ(share_told("Path=/tmp\n"),
              std::string(share_defaults) +
                  "Path=/tmp\nMax Size=70368744112128\nFree Size=35184372088832\n");
}

// ---- the list ----

TEST(InfoList, PrintsEverySectionInTheFilesOrder)
{
    write_file(device_file, "top=1\n[c]\nkey=1\n[a]\n[ b ]\n[a]\n");
    const ChildResult result = run_child([] { return hotplug_info_list(device_file); });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "c\na\n b \na\n");
    EXPECT_EQ(result.err, "");
}

TEST(InfoList, PrintsNothingForAnEmptyFile)
{
    write_file(device_file, "");
    const ChildResult result = run_child([] { return hotplug_info_list(device_file); });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
}

TEST(InfoList, FailsWithoutAFile)
{
    const ChildResult result = run_child([] { return hotplug_info_list("/tmp/missing"); });
    EXPECT_EQ(result.status, 255);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
}

} // namespace
