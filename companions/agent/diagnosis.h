// Why a device is not mounted, or only for reading: what was found out about it in, words out.
// Pure.
#pragma once

#include "agent/block_device.h"
#include "agent/volume.h"
#include "config/filesystems.h"

#include <stdint.h>

enum Trouble : uint8_t {
    TROUBLE_NONE,
    TROUBLE_NOT_NAMED,    // the configuration does not name its filesystem
    TROUBLE_NO_MODULE,    // the kernel has no module for it
    TROUBLE_NO_DRIVER,    // its driver is not installed
    TROUBLE_NOT_KNOWN,    // the service mounts no such filesystem
    TROUBLE_ENCRYPTED,    // LUKS, BitLocker, ...
    TROUBLE_MEMBER,       // of LVM, RAID, ZFS, ...
    TROUBLE_SWAP,         // a swap area
    TROUBLE_NOTHING,      // no filesystem that blkid knows
    TROUBLE_SEVERAL,      // it looks like several
    TROUBLE_REFUSED,      // the kernel, or the driver, does not mount it
    TROUBLE_READ_ONLY,    // it is mounted, but not for writing
    TROUBLE_NO_MEDIUM,    // an empty drive
    TROUBLE_OUT_OF_RANGE, // more disks or partitions than the service takes
    TROUBLE_SILENT,       // it does not answer
    TROUBLE_UNREADABLE,   // it cannot be read
    TROUBLE_COUNT,
};

// The word for it in the state file: "not-named", ...
const char* trouble_word(Trouble trouble);

constexpr size_t diagnosis_words_size = 320;
constexpr size_t diagnosis_command_size = 80;

struct Diagnosis {
    Trouble trouble;
    bool may_change;                      // the service, or a driver, may be at it still
    char type[volume_word_size];          // the filesystem; "" where it is not known
    char words[diagnosis_words_size];     // "sda1 holds exfat, which otherfs does not name"
    char command[diagnosis_command_size]; // what checks it: "fsck.exfat /dev/sda1"; "" for nothing
};

enum class Answer : uint8_t {
    had,        // blkid has told what there is
    nothing,    // it found nothing
    undecided,  // it found several
    silent,     // it did not end
    unreadable, // it could not read the device, or could not be run
};

// All borrowed.
struct Findings {
    const BlockName* name = nullptr;
    Answer answer = Answer::had;
    const Volume* volume = nullptr;
    const char* failure = "";            // with Answer::unreadable: why
    const ConfHotplug* config = nullptr; // the service's; null where it is not known
    uint32_t available = 0;              // bit n: the kernel, or a driver, can do filesystems[n]
    const char* kernel = "";             // the kernel's own words on it; "" for none
};

void diagnosis_make(const Findings& findings, Diagnosis* diagnosis);

// What the kernel begins its lines about this filesystem with ("XFS ("); null where it names no
// device in them.
const char* diagnosis_kernel_prefix(const char* type);

// Of a device that is mounted as `type` and not for writing, though it is not write-protected.
// `hibernated`: the Windows that it is of sleeps. TROUBLE_NONE where that is how it should be.
void diagnosis_make_readonly(const BlockName& name, const char* type, bool hibernated,
                             const char* kernel, Diagnosis* diagnosis);

// Of an empty drive.
void diagnosis_make_empty(const BlockName& name, Diagnosis* diagnosis);

// Of a device with these numbers that the service does not take; TROUBLE_NONE where it does.
// `range` is the number of minors of its disk, as text.
void diagnosis_make_range(const BlockName& name, int32_t major, int32_t minor, const char* range,
                          Diagnosis* diagnosis);
