#include "config/config_file.h"

#include "config/filesystems.h"
#include "fake/fake_log.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

const std::string path = "/tmp/test.conf";

std::string text_of(const char* text)
{
    return text != nullptr ? text : "(null)";
}

// Frees the record and what it leaves behind on purpose.
void release(ConfHotplug* config)
{
    if (config == nullptr)
        return;
    char* const options[] = {config->vfatoptions, config->ntfsoptions, config->extfsoptions};
    free_config_hotplug(config);
    for (char* text : options)
        free(text);
}

using ConfigGuard = Guard<ConfHotplug, release>;

ConfHotplug* load(const std::string& content)
{
    write_file(path, content);
    ConfHotplug* config = load_config_hotplug(path.c_str());
    EXPECT_NE(config, nullptr);
    return config;
}

void expect_defaults(const ConfHotplug* config)
{
    EXPECT_EQ(config->smbtype, SMB_TYPE_OWN);
    EXPECT_EQ(config->naswork, 1);
    EXPECT_EQ(config->fatvolumelabel, 1);
    EXPECT_EQ(text_of(config->smbconfigpath), "/tmp/vynas.dir.conf");
    EXPECT_EQ(text_of(config->deviceconfigpath), "/tmp/hotplug.dev.conf");
    EXPECT_EQ(text_of(config->mountpath), "/tmp/hotplug.dev.conf");
    EXPECT_EQ(text_of(config->devicepath), "/tmp/hotplug.dev.conf");
    EXPECT_EQ(config->defaultuid, 0U);
    EXPECT_EQ(config->defaultgid, 0U);
    EXPECT_EQ(config->fileumask, 0113U);
    EXPECT_EQ(config->dirumask, 0002U);
    EXPECT_EQ(config->mountvfat, 1U);
    EXPECT_EQ(config->mountntfs, 1U);
    EXPECT_EQ(config->mountext, 1U);
    EXPECT_EQ(text_of(config->vfatoptions), "utf8");
    EXPECT_EQ(config->ntfsoptions, nullptr);
    EXPECT_EQ(config->extfsoptions, nullptr);
}

// ---- the file ----

TEST(ConfigFile, EmptyGivesTheDefaults)
{
    const ConfigGuard config(load(""));
    expect_defaults(config.get());
    EXPECT_TRUE(fake_log_lines().empty());
}

TEST(ConfigFile, MissingGivesTheDefaultsAndALine)
{
    const ConfigGuard config(load_config_hotplug("/tmp/none.conf"));
    ASSERT_TRUE(config);
    expect_defaults(config.get());
    EXPECT_EQ(fake_log_texts(),
              (std::vector<std::string>{"config_file(#)No Such File(/tmp/none.conf)"}));
    EXPECT_EQ(fake_log_lines().at(0).priority, LOG_ERR);
}

TEST(ConfigFile, NullPathGivesNullWithoutALine)
{
    EXPECT_EQ(load_config_hotplug(nullptr), nullptr);
    EXPECT_TRUE(fake_log_lines().empty());
}

TEST(ConfigFile, KeysInASectionAreNotTheDaemons)
{
    const ConfigGuard config(load("[vyhotplugd]\nsmbtype=samba\nmountfs=ntfs\n"
                                  "mountpath=/mnt\ndefaultuid=5\nvfatoptions=x\n"));
    expect_defaults(config.get());
}

TEST(ConfigFile, LastOfARepeatedKeyCounts)
{
    const ConfigGuard config(load("smbtype=samba\nmountfs=fat\ndefaultuid=7\nmountpath=/a\n"
                                  "smbtype=nas\nmountfs=ntfs\ndefaultuid=x\nmountpath=b\n"));
    EXPECT_EQ(config->smbtype, SMB_TYPE_OWN);
    EXPECT_EQ(config->mountvfat, 0U);
    EXPECT_EQ(config->mountntfs, 1U);
    EXPECT_EQ(config->defaultuid, 0U);
    EXPECT_EQ(text_of(config->mountpath), "/tmp/hotplug.dev.conf");
}

TEST(ConfigFile, KeysMayBeWrittenWithBlanksAndCapitals)
{
    const ConfigGuard config(load("SMB Type = Samba\nDS / NAS work = disable\n"
                                  "Mount Path = /media\nDefault UID = 12\n"));
    EXPECT_EQ(config->smbtype, SMB_TYPE_SAMBA);
    EXPECT_EQ(config->naswork, 0);
    EXPECT_EQ(text_of(config->mountpath), "/media");
    EXPECT_EQ(config->defaultuid, 12U);
}

TEST(ConfigFile, EveryKeyReachesItsField)
{
    const ConfigGuard config(
        load("smbtype=samba\nds/naswork=disable\nsmbconfigpath=/a/smb\ndeviceconfigpath=/a/dev\n"
             "mountpath=/a/mnt\ndevicepath=/a/node\ndefaultuid=1001\ndefaultgid=1002\n"
             "defaultfilepermission=640\ndefaultdirectorypermission=750\nvfatoptions=v,w\n"
             "ntfsoptions=n\nextfsoptions=e\nmountfs=ext\nfatvolumelabel=0\n"));
    EXPECT_EQ(config->smbtype, SMB_TYPE_SAMBA);
    EXPECT_EQ(config->naswork, 0);
    EXPECT_EQ(config->fatvolumelabel, 0);
    EXPECT_EQ(text_of(config->smbconfigpath), "/a/smb");
    EXPECT_EQ(text_of(config->deviceconfigpath), "/a/dev");
    EXPECT_EQ(text_of(config->mountpath), "/a/mnt");
    EXPECT_EQ(text_of(config->devicepath), "/a/node");
    EXPECT_EQ(config->defaultuid, 1001U);
    EXPECT_EQ(config->defaultgid, 1002U);
    EXPECT_EQ(config->fileumask, 0137U);
    EXPECT_EQ(config->dirumask, 0027U);
    EXPECT_EQ(config->mountvfat, 0U);
    EXPECT_EQ(config->mountntfs, 0U);
    EXPECT_EQ(config->mountext, 1U);
    EXPECT_EQ(text_of(config->vfatoptions), "v,w");
    EXPECT_EQ(text_of(config->ntfsoptions), "n");
    EXPECT_EQ(text_of(config->extfsoptions), "e");
}

// ---- words ----

struct FlagRow {
    const char* value;
    int expected;
};

TEST(ConfigFile, SmbtypeIsSambaOnlyByThatWord)
{
    const FlagRow rows[] = {
        {"samba", 2},      {"SAMBA", 2},     {"Samba", 2},      {"vy nas mira", 1},
        {"VYNAS Mira", 1}, {"vynasmira", 1}, {"Vy NasMira", 1}, {"vynas", 1},
        {"VY NAS", 1},     {"nasmira", 1},   {"nas mira", 1},   {"nfs", 1},
        {"samba4", 1},     {"sam ba", 1},    {"2", 1},          {"", 1},
    };
    for (const FlagRow& row : rows) {
        const ConfigGuard config(load(std::string("smbtype=") + row.value + "\n"));
        EXPECT_EQ(config->smbtype, row.expected) << '"' << row.value << '"';
    }
}

TEST(ConfigFile, SwitchesAreOffOnlyWhenTheirValueSaysSo)
{
    const FlagRow rows[] = {
        {"disable", 0}, {"DISABLE", 0}, {"0", 0},  {"enable", 1}, {"1", 1},  {"Enable", 1},
        {"no", 1},      {"off", 1},     {"00", 1}, {"", 1},       {"-1", 1}, {"n", 1},
    };
    for (const FlagRow& row : rows) {
        const ConfigGuard work(load(std::string("ds/naswork=") + row.value + "\n"));
        EXPECT_EQ(work->naswork, row.expected) << '"' << row.value << '"';
        EXPECT_EQ(work->fatvolumelabel, 1) << '"' << row.value << '"';
        const ConfigGuard label(load(std::string("fatvolumelabel=") + row.value + "\n"));
        EXPECT_EQ(label->fatvolumelabel, row.expected) << '"' << row.value << '"';
        EXPECT_EQ(label->naswork, 1) << '"' << row.value << '"';
    }
}

TEST(ConfigFile, NasworkIsNotReadWithoutItsPrefix)
{
    const ConfigGuard config(load("naswork=disable\n"));
    EXPECT_EQ(config->naswork, 1);
}

// ---- paths ----

TEST(ConfigFile, PathsThatAreNotAbsoluteFallBack)
{
    for (const char* value : {"", "relative", "./x", "~/x", "\"/x\"", "x/y"}) {
        std::string content;
        for (const char* key : {"smbconfigpath", "deviceconfigpath", "mountpath", "devicepath"})
            content += std::string(key) + "=" + value + "\n";
        const ConfigGuard config(load(content));
        expect_defaults(config.get());
    }
}

// The mount and device directories have no default of their own: the start-up's directory checks
// are to complain about the file name.
TEST(ConfigFile, ThreePathKeysShareOneFallback)
{
    const ConfigGuard config(load("smbconfigpath=/a\n"));
    EXPECT_EQ(text_of(config->smbconfigpath), "/a");
    EXPECT_EQ(text_of(config->deviceconfigpath), "/tmp/hotplug.dev.conf");
    EXPECT_EQ(text_of(config->mountpath), "/tmp/hotplug.dev.conf");
    EXPECT_EQ(text_of(config->devicepath), "/tmp/hotplug.dev.conf");
}

TEST(ConfigFile, TheSharedFallbackDoesNotFollowTheDeviceFilesPath)
{
    const ConfigGuard config(load("deviceconfigpath=/elsewhere\n"));
    EXPECT_EQ(text_of(config->deviceconfigpath), "/elsewhere");
    EXPECT_EQ(text_of(config->mountpath), "/tmp/hotplug.dev.conf");
    EXPECT_EQ(text_of(config->devicepath), "/tmp/hotplug.dev.conf");
}

TEST(ConfigFile, PathsAreTakenAsTheyStand)
{
    const ConfigGuard config(
        load("mountpath= /a b/../c// \ndevicepath=/" + std::string(1500, 'd') + "\n"));
    EXPECT_EQ(text_of(config->mountpath), "/a b/../c//");
    EXPECT_EQ(text_of(config->devicepath), "/" + std::string(1500, 'd'));
}

// ---- numbers ----

struct NumberRow {
    const char* value;
    uint32_t expected;
};

TEST(ConfigFile, OwnersAreDecimalAndZeroWhenTheyAreNoNumber)
{
    const NumberRow rows[] = {
        {"1000", 1000},    {"0", 0},
        {"010", 10},       {"2147483647", 2147483647},
        {"+5", 5},         {"-1", 4294967295U},
        {"2147483648", 0}, {"99999999999", 0},
        {"abc", 0},        {"12x", 0},
        {"1 2", 0},        {"0x10", 0},
        {"", 0},
    };
    for (const NumberRow& row : rows) {
        const ConfigGuard config(
            load(std::string("defaultuid=") + row.value + "\ndefaultgid=" + row.value + "\n"));
        EXPECT_EQ(config->defaultuid, row.expected) << '"' << row.value << '"';
        EXPECT_EQ(config->defaultgid, row.expected) << '"' << row.value << '"';
    }
}

TEST(ConfigFile, PermissionsAreOctalAndKeptAsUmasks)
{
    const NumberRow rows[] = {
        {"600", 0177}, {"644", 0133}, {"755", 0022}, {"0664", 0113}, {"777", 0},
        {"0", 0777},   {"000", 0777}, {"1777", 0},   {"4644", 0133}, {"-1", 0},
    };
    for (const NumberRow& row : rows) {
        const ConfigGuard config(load(std::string("defaultfilepermission=") + row.value +
                                      "\ndefaultdirectorypermission=" + row.value + "\n"));
        EXPECT_EQ(config->fileumask, row.expected) << '"' << row.value << '"';
        EXPECT_EQ(config->dirumask, row.expected) << '"' << row.value << '"';
    }
}

TEST(ConfigFile, BadPermissionsKeepTheDefaultUmasks)
{
    for (const char* value : {"", "rw-r--r--", "abc", "648", "64x", "0x1ff", "99999999999999"}) {
        const ConfigGuard config(load(std::string("defaultfilepermission=") + value +
                                      "\ndefaultdirectorypermission=" + value + "\n"));
        EXPECT_EQ(config->fileumask, 75U) << '"' << value << '"';
        EXPECT_EQ(config->dirumask, 2U) << '"' << value << '"';
    }
}

// ---- mount options ----

TEST(ConfigFile, EmptyOptionsAreAsGoodAsNone)
{
    const ConfigGuard config(load("vfatoptions=\nntfsoptions= \nextfsoptions=\t\n"));
    EXPECT_EQ(text_of(config->vfatoptions), "utf8");
    EXPECT_EQ(config->ntfsoptions, nullptr);
    EXPECT_EQ(config->extfsoptions, nullptr);
}

TEST(ConfigFile, GivenFatOptionsReplaceUtf8)
{
    const ConfigGuard config(load("vfatoptions=codepage=437,iocharset=utf8\n"));
    EXPECT_EQ(text_of(config->vfatoptions), "codepage=437,iocharset=utf8");
}

// ---- filesystems ----

struct FilesystemRow {
    const char* value;
    uint32_t vfat, ntfs, ext;
};

TEST(ConfigFile, MountfsReplacesAllThreeDefaults)
{
    const FilesystemRow rows[] = {
        {"ntfs", 0, 1, 0},
        {"ext3,VFAT", 1, 0, 1},
        {"fat", 1, 0, 0},
        {"vfat", 1, 0, 0},
        {"ext", 0, 0, 1},
        {"ext2", 0, 0, 1},
        {"ext4", 0, 0, 1},
        {"Fat,Ntfs,Ext", 1, 1, 1},
        {"exfat", 0, 0, 0},
        {"", 0, 0, 0},
        {",,", 0, 0, 0},
        {"hfs,ntfs,xfs", 0, 1, 0},
        {"ntfs=1,ext=0", 0, 1, 1},
        {"ntfs,=x,fat", 0, 1, 0}, // items behind one without a name are lost
        {"ntfs, fat", 0, 1, 0},   // a blank belongs to the name
        {"ntfs fat", 0, 0, 0},
        {"fat,fat,vfat", 1, 0, 0},
    };
    for (const FilesystemRow& row : rows) {
        const ConfigGuard config(load(std::string("mountfs=") + row.value + "\n"));
        EXPECT_EQ(config->mountvfat, row.vfat) << '"' << row.value << '"';
        EXPECT_EQ(config->mountntfs, row.ntfs) << '"' << row.value << '"';
        EXPECT_EQ(config->mountext, row.ext) << '"' << row.value << '"';
    }
}

TEST(ConfigFile, MountfsItemsAreLoggedOneByOne)
{
    const ConfigGuard config(load("mountfs=ntfs,x=1\n"));
    std::vector<std::string> texts;
    for (const FakeLogLine& line : fake_log_lines())
        texts.push_back(line.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"getopt(245)ntfs", "getopt(243)x=1"}));
}

// ---- memory ----

TEST(ConfigFile, FreeingNullIsHarmless)
{
    free_config_hotplug(nullptr);
}

// The mount layer may hold on to the option texts, so the record goes without them.
TEST(ConfigFile, FreeingTheRecordLeavesTheOptionTexts)
{
    const long before = memory_blocks();
    ConfHotplug* config = load("vfatoptions=v\nntfsoptions=n\nextfsoptions=e\n");
    EXPECT_EQ(memory_blocks(), before + 8) << "the record, four paths, three option texts";
    char* const options[] = {config->vfatoptions, config->ntfsoptions, config->extfsoptions};
    free_config_hotplug(config);
    EXPECT_EQ(memory_blocks(), before + 3) << "three option texts";
    EXPECT_STREQ(options[0], "v");
    EXPECT_STREQ(options[1], "n");
    EXPECT_STREQ(options[2], "e");
    for (char* text : options)
        free(text);
}

struct TextRow {
    const char* name;
    char* ConfHotplug::*field;
};

// The texts that are there whatever the file says.
const TextRow texts[] = {
    {"smbconfigpath", &ConfHotplug::smbconfigpath},
    {"deviceconfigpath", &ConfHotplug::deviceconfigpath},
    {"mountpath", &ConfHotplug::mountpath},
    {"devicepath", &ConfHotplug::devicepath},
    {"vfatoptions", &ConfHotplug::vfatoptions},
};

std::vector<std::string> missing_texts(const ConfHotplug* config)
{
    std::vector<std::string> missing;
    for (const TextRow& row : texts) {
        if (config->*row.field == nullptr)
            missing.emplace_back(row.name);
    }
    return missing;
}

// ---- other filesystems ----

std::vector<int> others(const std::string& content)
{
    const ConfigGuard config(load(content));
    std::vector<int> codes;
    for (const uint8_t code : config->otherfs) {
        if (code != 0)
            codes.push_back(code);
    }
    return codes;
}

TEST(ConfigFile, OtherFilesystemsAreThoseNamedInTheirOrderEachOnce)
{
    EXPECT_EQ(others(""), std::vector<int>{});
    EXPECT_EQ(others("otherfs=\n"), std::vector<int>{});
    EXPECT_EQ(others("otherfs=exfat,ntfs3,f2fs,btrfs,xfs,hfsplus,udf,iso9660\n"),
              (std::vector<int>{6, 7, 8, 9, 10, 11, 12, 13}));
    EXPECT_EQ(others("otherfs=xfs, ExFAT ,xfs,,exfat\n"), (std::vector<int>{10, 6}));
    EXPECT_EQ(others("otherfs=vfat,ext4,ntfs,fat,zfs,,udf\n"), std::vector<int>{12})
        << "the five have a key of their own";
    EXPECT_TRUE(fake_log_lines().empty());
}

TEST(ConfigFile, OtherFilesystemsHaveOptionsOfTheirOwn)
{
    const ConfigGuard config(load("exfatoptions=iocharset=utf8\niso9660options=norock\n"
                                  "f2fsoptions=\nvfatoptions=x\n"));
    EXPECT_EQ(text_of(config->otheroptions[CONF_DEV_FS_EXFAT]), "iocharset=utf8");
    EXPECT_EQ(text_of(config->otheroptions[CONF_DEV_FS_ISO9660]), "norock");
    EXPECT_EQ(config->otheroptions[CONF_DEV_FS_F2FS], nullptr) << "empty is none";
    EXPECT_EQ(config->otheroptions[CONF_DEV_FS_FAT], nullptr);
}

TEST(ConfigFile, LabelsOfAllFilesystemsAreReadOnlyWhenAsked)
{
    const struct {
        const char* text;
        int expected;
    } rows[] = {{"", 0},
                {"labels=all\n", 1},
                {"labels=ALL\n", 1},
                {"labels=\n", 0},
                {"labels=enable\n", 0}};
    for (const auto& row : rows) {
        const ConfigGuard config(load(row.text));
        EXPECT_EQ(config->labels, row.expected) << row.text;
    }
}

// ---- what closes doors ----

TEST(ConfigFile, StrictAndAdoptAreOffUnlessTheirKeysSayMoreThanDisable)
{
    const struct {
        const char* text;
        int expected;
    } rows[] = {{"", 0},     {"=enable\n", 1}, {"=ENABLE\n", 1}, {"=1\n", 1},     {"=disable\n", 0},
                {"=0\n", 0}, {"=yes\n", 1},    {"=\n", 1},       {"=enabel\n", 1}};
    for (const auto& row : rows) {
        const std::string text = row.text;
        const ConfigGuard config(load(text.empty() ? "" : "strict" + text + "adopt" + text));
        EXPECT_EQ(config->strict, row.expected) << text;
        EXPECT_EQ(config->adopt, row.expected) << text;
    }
}

TEST(ConfigFile, EveryMountFlagHasItsWord)
{
    const struct {
        const char* words;
        unsigned long flags;
    } rows[] = {{"nosuid", MS_NOSUID},
                {"nodev", MS_NODEV},
                {"noexec", MS_NOEXEC},
                {"noatime", MS_NOATIME},
                {"nodiratime", MS_NODIRATIME},
                {"sync", MS_SYNCHRONOUS},
                {"dirsync", MS_DIRSYNC},
                {"nosymfollow", 256},
                {"", 0},
                {",,", 0},
                {"NoSuid,nodev , \tnoexec", MS_NOSUID | MS_NODEV | MS_NOEXEC}};
    for (const auto& row : rows) {
        const ConfigGuard config(load(std::string("mountflags=") + row.words + "\n"));
        EXPECT_EQ(config->mountflags, row.flags) << row.words;
        EXPECT_TRUE(fake_log_lines().empty());
    }
}

TEST(ConfigFile, AnUnknownMountFlagIsToldAndTheOthersCount)
{
    const ConfigGuard config(load("mountflags=nosuid,nodevv,ro, ,noexec\n"));
    EXPECT_EQ(config->mountflags, uint32_t{MS_NOSUID | MS_NOEXEC});
    EXPECT_EQ(fake_log_texts(),
              (std::vector<std::string>{"config_file(#)Error - Unknown Mount Flag(nodevv)",
                                        "config_file(#)Error - Unknown Mount Flag(ro)",
                                        "config_file(#)Error - Unknown Mount Flag()"}));
    fake_log_clear();
}

// A door that was to be closed must not stay open for want of memory.
TEST(ConfigFile, WhatClosesDoorsIsReadOrNothingIs)
{
    for (const char* key : {"strict=enable\n", "adopt=enable\n", "mountflags=nosuid\n"}) {
        write_file(path, key);
        int refused = 0;
        for (int nth = 1;; nth++) {
            memory_fail(nth);
            ConfHotplug* config = load_config_hotplug(path.c_str());
            const bool failed = memory_failed();
            refused += config == nullptr ? 1 : 0;
            release(config);
            if (!failed)
                break;
        }
        EXPECT_EQ(refused, 2) << key << ": for the record, and for the value";
    }
}

// How often the file was opened since this watch was made.
class OpenCount {
  public:
    OpenCount() : fd_(inotify_init1(IN_NONBLOCK))
    {
        EXPECT_GE(inotify_add_watch(fd_.get(), path.c_str(), IN_OPEN | IN_CLOSE), 0);
    }
    int count() const
    {
        // Each opening is followed by a closing: the kernel would merge openings in a row.
        inotify_event events[256];
        const ssize_t size = read(fd_.get(), events, sizeof events);
        int opened = 0;
        for (ssize_t at = 0; at < size / static_cast<ssize_t>(sizeof *events); at++)
            opened += (events[at].mask & IN_OPEN) != 0 ? 1 : 0;
        return opened;
    }

  private:
    FdGuard fd_;
};

TEST(ConfigFile, IsReadOnceForAllItsKeys)
{
    write_file(path, "mountpath=/mnt\n");
    const OpenCount opened;
    const ConfigGuard config(load_config_hotplug(path.c_str()));
    ASSERT_TRUE(config);
    EXPECT_EQ(text_of(config->mountpath), "/mnt");
    EXPECT_EQ(opened.count(), 1);
}

// Whatever allocation fails: no record, or one in which some values are missing.
TEST(ConfigFile, SurvivesAnyAllocationThatFails)
{
    write_file(path, "smbtype=samba\nmountpath=/mnt\ndefaultuid=5\nntfsoptions=n\nmountfs=ntfs\n");
    const long before = memory_blocks();
    const int descriptors = open_descriptors();
    int refused = 0;
    std::vector<std::string> null_texts;
    for (int nth = 1;; nth++) {
        memory_fail(nth);
        ConfHotplug* config = load_config_hotplug(path.c_str());
        const bool failed = memory_failed();
        refused += config == nullptr ? 1 : 0;
        if (config != nullptr) {
            const std::vector<std::string> missing = missing_texts(config);
            null_texts.insert(null_texts.end(), missing.begin(), missing.end());
            if (!missing.empty()) {
                EXPECT_EQ(missing.size(), 1U) << "loading goes on behind " << missing[0];
                EXPECT_EQ(config->mountvfat, 0U) << "loading goes on behind " << missing[0];
            }
        }
        release(config);
        ASSERT_EQ(memory_blocks(), before) << "allocation " << nth;
        ASSERT_EQ(open_descriptors(), descriptors) << "allocation " << nth;
        if (!failed)
            break;
    }
    EXPECT_EQ(refused, 1) << "only the record itself is worth giving up for";
    EXPECT_EQ(null_texts, (std::vector<std::string>{"smbconfigpath", "deviceconfigpath",
                                                    "mountpath", "devicepath", "vfatoptions"}))
        << "a text that cannot be copied stays null";
}

// A list of filesystems that cannot be made a map is as good as not there; a map that lost its
// items on the way names nothing.
TEST(ConfigFile, FilesystemsAreAllNoneOrTheNamedOneWhenMemoryRunsOut)
{
    write_file(path, "mountfs=ntfs\n");
    int all = 0;
    int none = 0;
    for (int nth = 1;; nth++) {
        memory_fail(nth);
        ConfHotplug* config = load_config_hotplug(path.c_str());
        const bool failed = memory_failed();
        if (config != nullptr && failed) {
            const uint32_t flags =
                config->mountvfat * 100 + config->mountntfs * 10 + config->mountext;
            all += flags == 111 ? 1 : 0;
            none += flags == 0 ? 1 : 0;
            EXPECT_TRUE(flags == 111 || flags == 10 || flags == 0) << flags;
        }
        release(config);
        if (!failed)
            break;
    }
    EXPECT_GT(all, 0);
    EXPECT_GT(none, 0);
}

} // namespace
