// Which of the mounts that an earlier service left stay in place for the next one to take over
// ("adopt" in the configuration).
//
// One stays that the next service will recognise, and only while the very device, and the very
// medium, that it was made from is plugged: the numbers and names of both can be another's by then.
// So it is noted what each mount is made from, soon after it was made and when the service has
// stopped. A mount that nothing was noted of does not stay: nobody could tell what it would write
// to.
#pragma once

#include "common/mountinfo.h"
#include "config/conf_hotplug.h"

#include <stdint.h>

constexpr char adoption_notes_path[] = "/run/vyhotplugd/mounts";

// What a mount is made from.
struct MountNote {
    char name[16];     // of its directory below the mount directory
    uint64_t made;     // when its node was made, in ns: the service makes one for each mount
    uint64_t major;    // of the block device
    uint64_t minor;    // likewise
    uint64_t inode;    // of the device's directory in sysfs: another when it was plugged again
    uint64_t sequence; // of the disk's medium; 0 where the kernel does not count (before 5.15)
    bool uncounted;    // though the medium can be changed; is not noted
};

// Notes each of the service's mounts in the table. What is noted of a mount already stays as it is
// as long as its device node does: the medium may have been changed since. Returns 0; a negated
// errno, the notes as they were.
[[nodiscard]] int adoption_note(const ConfHotplug* config, const Mountinfo* table);

// Notes of one boot; all zero: none.
struct AdoptionNotes {
    MemGuard<MountNote> notes;
    size_t count = 0;
};

// Reads the notes. Returns 0, without any where there is no file or it is of another boot; a
// negated errno.
[[nodiscard]] int adoption_load(AdoptionNotes* notes);

// Judges the mount that is to be seen at its directory, directly below the mount directory. Returns
// null when it stays, else the reason why it does not.
[[nodiscard]] const char* adoption_refusal(const ConfHotplug* config, const AdoptionNotes& notes,
                                           const MountinfoEntry& mount);
