#include "agent/diagnosis.h"

#include "agent/kernel_log.h"
#include "lib/str.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>

const char* trouble_word(Trouble trouble)
{
    static constexpr const char* words[TROUBLE_COUNT] = {
        "none",      "not-named",    "no-module", "no-driver",  "not-known", "encrypted",
        "member",    "swap",         "nothing",   "several",    "refused",   "read-only",
        "no-medium", "out-of-range", "silent",    "unreadable",
    };
    return words[trouble];
}

// ---- what there is to know of kinds of volumes ----

namespace {

// A volume that is no filesystem.
struct OtherVolume {
    const char* type; // blkid's; null: any of the usage
    const char* usage;
    Trouble trouble;
    const char* words;
};

// A filesystem that the service can mount.
struct KnownFilesystem {
    const char* type;   // blkid's, and mount(2)'s
    const char* prefix; // what the kernel begins its lines about it with; null: they name no device
    const char* command; // what checks it; null for nothing
};

} // namespace

static constexpr OtherVolume other_volumes[] = {
    {"crypto_LUKS", nullptr, TROUBLE_ENCRYPTED, "is encrypted (LUKS)"},
    {"BitLocker", nullptr, TROUBLE_ENCRYPTED, "is encrypted (BitLocker)"},
    {"cs_fvault2", nullptr, TROUBLE_ENCRYPTED, "is encrypted (FileVault)"},
    {nullptr, "crypto", TROUBLE_ENCRYPTED, "is encrypted"},
    {"LVM2_member", nullptr, TROUBLE_MEMBER, "is a member of LVM"},
    {"LVM1_member", nullptr, TROUBLE_MEMBER, "is a member of LVM"},
    {"zfs_member", nullptr, TROUBLE_MEMBER, "is a member of ZFS"},
    {"bcache", nullptr, TROUBLE_MEMBER, "is a member of bcache"},
    {"ceph_bluestore", nullptr, TROUBLE_MEMBER, "is a member of Ceph"},
    {"drbd", nullptr, TROUBLE_MEMBER, "is a member of DRBD"},
    {"stratis", nullptr, TROUBLE_MEMBER, "is a member of Stratis"},
    {"VMFS_volume_member", nullptr, TROUBLE_MEMBER, "is a member of VMFS"},
    {nullptr, "raid", TROUBLE_MEMBER, "is a member of RAID"},
    {"swap", nullptr, TROUBLE_SWAP, "is a swap area"},
    {"swsuspend", nullptr, TROUBLE_SWAP, "is a swap area, with a suspended system in it"},
};

static constexpr KnownFilesystem known_filesystems[] = {
    {"vfat", "FAT-fs (", "fsck.vfat"},     {"ext2", "EXT", "e2fsck -f"},
    {"ext3", "EXT", "e2fsck -f"},          {"ext4", "EXT", "e2fsck -f"},
    {"ntfs", "ntfs3", "ntfsfix"},          {"ntfs3", "ntfs3", "ntfsfix -d"},
    {"exfat", "exFAT-fs (", "fsck.exfat"}, {"f2fs", "F2FS-fs (", "fsck.f2fs"},
    {"btrfs", "BTRFS ", "btrfs check"},    {"xfs", "XFS (", "xfs_repair"},
    {"hfsplus", nullptr, "fsck.hfsplus"},  {"udf", "UDF-fs", nullptr},
    {"iso9660", "ISOFS", nullptr},
};

static const KnownFilesystem* known_of(const char* type)
{
    for (const KnownFilesystem& known : known_filesystems) {
        if (strcmp(known.type, type) == 0)
            return &known;
    }
    return nullptr;
}

const char* diagnosis_kernel_prefix(const char* type)
{
    const KnownFilesystem* known = known_of(type);
    return known != nullptr ? known->prefix : nullptr;
}

// ---- words ----

static void say(Diagnosis* diagnosis, Trouble trouble, const BlockName& name, const char* words)
{
    diagnosis->trouble = trouble;
    (void)snprintf(diagnosis->words, sizeof diagnosis->words, "%s %s", name.text, words);
}

static void say_holds(Diagnosis* diagnosis, Trouble trouble, const BlockName& name,
                      const char* words)
{
    diagnosis->trouble = trouble;
    (void)snprintf(diagnosis->words, sizeof diagnosis->words, "%s holds %s%s", name.text,
                   diagnosis->type, words);
}

static void advise(Diagnosis* diagnosis, const BlockName& name, const char* type)
{
    const KnownFilesystem* known = known_of(type);
    if (known != nullptr && known->command != nullptr)
        (void)snprintf(diagnosis->command, sizeof diagnosis->command, "%s /dev/%s", known->command,
                       name.text);
}

// ---- filesystems ----

// Whether the row's filesystem is one that mounts what blkid calls so: NTFS has two.
static bool mounts_type(const Filesystem& row, const char* type)
{
    return strcmp(row.type, type) == 0 ||
           (row.code == CONF_DEV_FS_NTFS3 && strcmp(type, "ntfs") == 0);
}

static bool is_wanted(const Filesystem& row, const ConfHotplug* config)
{
    return config == nullptr || filesystem_is_wanted(row, config);
}

// A copy of what is mounted: XFS and btrfs tell it by its UUID, and no check finds anything wrong.
static bool is_copy(const char* kernel)
{
    return strstr(kernel, "duplicate UUID") != nullptr ||
           strstr(kernel, "duplicate device") != nullptr;
}

// The kernel's words, and its errno's text where there is one in them. Of two that could mount it
// `able` is the first.
static void say_refused(const Findings& findings, Diagnosis* diagnosis, const Filesystem& able)
{
    const char* who = able.driver != nullptr ? able.driver : "the kernel";
    const int error = kernel_line_errno(findings.kernel);
    char words[diagnosis_words_size];
    (void)snprintf(words, sizeof words, ", but %s refused it%s%s%s%s%s", who,
                   error != 0 || findings.kernel[0] != '\0' ? ": " : "",
                   error != 0 ? strerror(error) : "",
                   error != 0 && findings.kernel[0] != '\0' ? " (" : "", findings.kernel,
                   error != 0 && findings.kernel[0] != '\0' ? ")" : "");
    say_holds(diagnosis, TROUBLE_REFUSED, *findings.name, words);
    diagnosis->may_change = findings.kernel[0] == '\0';
    if (!is_copy(findings.kernel))
        advise(diagnosis, *findings.name, able.type);
}

static void judge_filesystem(const Findings& findings, Diagnosis* diagnosis)
{
    const char* type = findings.volume->type;
    const Filesystem* unnamed = nullptr; // those that could mount it
    const Filesystem* lacking = nullptr;
    const Filesystem* able = nullptr;
    for (int i = 0; i < filesystem_count; i++) {
        const Filesystem& row = filesystems[i];
        if (!mounts_type(row, type))
            continue;
        const Filesystem** place = !is_wanted(row, findings.config)      ? &unnamed
                                   : (findings.available >> i & 1U) == 0 ? &lacking
                                                                         : &able;
        *place = *place == nullptr ? &row : *place;
    }
    const BlockName& name = *findings.name;
    if (able != nullptr)
        return say_refused(findings, diagnosis, *able);
    if (lacking != nullptr && lacking->driver == nullptr)
        return say_holds(diagnosis, TROUBLE_NO_MODULE, name,
                         ", which this kernel has no module for");
    if (lacking != nullptr)
        return say_holds(diagnosis, TROUBLE_NO_DRIVER, name,
                         ", whose driver ntfs-3g is not installed");
    if (unnamed != nullptr && filesystem_is_other(*unnamed))
        return say_holds(diagnosis, TROUBLE_NOT_NAMED, name, ", which otherfs does not name");
    if (unnamed != nullptr)
        return say_holds(diagnosis, TROUBLE_NOT_NAMED, name, ", which mountfs does not name");
    say_holds(diagnosis, TROUBLE_NOT_KNOWN, name, ", which the service cannot mount");
}

static void judge_volume(const Findings& findings, Diagnosis* diagnosis)
{
    const Volume& volume = *findings.volume;
    for (const OtherVolume& other : other_volumes) {
        const bool same = other.type != nullptr ? strcmp(other.type, volume.type) == 0
                                                : strcmp(other.usage, volume.usage) == 0;
        if (same)
            return say(diagnosis, other.trouble, *findings.name, other.words);
    }
    if (volume.type[0] != '\0')
        return judge_filesystem(findings, diagnosis);
    const char* words = volume.table[0] != '\0' ? "has a partition table without a partition"
                                                : "has no filesystem that is known";
    say(diagnosis, TROUBLE_NOTHING, *findings.name, words);
}

void diagnosis_make(const Findings& findings, Diagnosis* diagnosis)
{
    *diagnosis = {};
    const BlockName& name = *findings.name;
    char words[diagnosis_words_size];
    switch (findings.answer) {
    case Answer::had:
        str_cpy(diagnosis->type, findings.volume->type);
        return judge_volume(findings, diagnosis);
    case Answer::nothing:
        return say(diagnosis, TROUBLE_NOTHING, name, "has no filesystem that is known");
    case Answer::undecided:
        (void)snprintf(words, sizeof words, "looks like several filesystems%s%s%s",
                       findings.volume->several[0] != '\0' ? " (" : "", findings.volume->several,
                       findings.volume->several[0] != '\0' ? ")" : "");
        say(diagnosis, TROUBLE_SEVERAL, name, words);
        (void)snprintf(diagnosis->command, sizeof diagnosis->command, "wipefs /dev/%s", name.text);
        return;
    case Answer::silent:
        return say(diagnosis, TROUBLE_SILENT, name, "does not answer: it cannot be read in time");
    case Answer::unreadable:
        (void)snprintf(words, sizeof words, "cannot be read: %s", findings.failure);
        return say(diagnosis, TROUBLE_UNREADABLE, name, words);
    }
}

// ---- without blkid ----

void diagnosis_make_readonly(const BlockName& name, const char* type, bool hibernated,
                             const char* kernel, Diagnosis* diagnosis)
{
    *diagnosis = {};
    const bool ntfs = strcmp(type, "fuseblk") == 0 || strncmp(type, "ntfs", 4) == 0;
    if (strcmp(type, "iso9660") == 0)
        return; // as always
    str_ncpy(diagnosis->type, ntfs ? "ntfs" : type, sizeof diagnosis->type);
    if (ntfs) {
        say(diagnosis, TROUBLE_READ_ONLY, name,
            hibernated ? "holds NTFS: hibernated, mounted read-only"
                       : "holds NTFS: dirty, mounted read-only");
    } else if (strcmp(type, "hfsplus") == 0) {
        say_holds(diagnosis, TROUBLE_READ_ONLY, name,
                  " with a journal, or locked: mounted read-only");
    } else {
        char words[diagnosis_words_size];
        (void)snprintf(words, sizeof words, ", mounted read-only%s%s",
                       kernel[0] != '\0' ? ": " : "", kernel);
        say_holds(diagnosis, TROUBLE_READ_ONLY, name, words);
    }
    if (!hibernated)
        advise(diagnosis, name, diagnosis->type);
}

void diagnosis_make_empty(const BlockName& name, Diagnosis* diagnosis)
{
    *diagnosis = {};
    say(diagnosis, TROUBLE_NO_MEDIUM, name, "is empty: no medium");
}

static const char* ordinal(int number)
{
    const int tens = number % 100 / 10;
    const int ones = number % 10;
    if (tens == 1 || ones == 0 || ones > 3)
        return "th";
    static constexpr const char* words[] = {"st", "nd", "rd"};
    return words[ones - 1];
}

// Which disk it is of its kind, counted from 1: sda, sdz (26), sdaa (27); mmcblk0.
static int place_of(const BlockName& name)
{
    const DeviceKind& kind = block_name_kind(name);
    const bool counted = kernel_kind(kind).disks == device_digits;
    int place = 0;
    for (size_t i = strlen(kind.prefix); i < name.disk_length; i++)
        place = counted ? place * 10 + (name.text[i] - '0') : place * 26 + (name.text[i] - 'a' + 1);
    return counted ? place + 1 : place;
}

void diagnosis_make_range(const BlockName& name, int32_t major, int32_t minor, const char* range,
                          Diagnosis* diagnosis)
{
    static constexpr int32_t letters = 26;
    static constexpr int32_t usual_minors = 16; // which the service takes where it is not told
    static constexpr int32_t major_further =
        259; // of partitions that have no minor of their disk's
    *diagnosis = {};
    int32_t minors = 0;
    if (str_to_long(range, &minors, 10) != 0 || minors < 1 || minors > 255)
        minors = usual_minors;
    const bool known = device_kind(major) != nullptr;
    if (known && minor / minors < letters)
        return;
    const bool of_partition = !known && major == major_further && name.partition > 0;
    const int place = of_partition ? name.partition : place_of(name);
    char words[diagnosis_words_size];
    (void)snprintf(words, sizeof words, "%s the %d%s %s: out of range",
                   !of_partition && name.partition > 0 ? "is on" : "is", place, ordinal(place),
                   of_partition ? "partition" : kernel_kind(block_name_kind(name)).noun);
    say(diagnosis, TROUBLE_OUT_OF_RANGE, name, words);
}
