// One look at everything: what is plugged, mounted, shared and known, each partition and each
// shared directory with all that the service's files and the kernel's tables tell of it. Reads
// only.
#pragma once

#include "common/mountinfo.h"
#include "config/ini.h"
#include "ctl/disks.h"
#include "ctl/setup.h"
#include "records/conf_dev.h"

enum ItemState : uint8_t {
    ITEM_SHARED,
    ITEM_MOUNTED,     // and not in the share file
    ITEM_BUSY,        // its share was withdrawn for an unmount, and it is mounted still
    ITEM_UNMOUNTED,   // the service knows it, and has unmounted it
    ITEM_NOT_MOUNTED, // it could not be mounted
    ITEM_WAITING,     // plugged, and nothing has happened yet
    ITEM_DIRECTORY,   // a directory of the machine itself, shared
    ITEM_GONE,        // the same, and the directory is not there
    ITEM_ABSENT,      // known, and not plugged
    ITEM_STATES,
};

// What the share file tells of an item.
enum ShareText : uint8_t {
    SHARE_COMMENT,
    SHARE_VENDOR,
    SHARE_PRODUCT,
    SHARE_SERIAL,
    SHARE_LABEL,
    SHARE_SPEED,
    SHARE_FILESYSTEM,
    SHARE_STATUS,
    SHARE_READONLY,
    SHARE_TEXTS,
};

struct Item {
    ItemState state;
    char name[disk_name_size];   // the service's, "sda1"; empty where it has none
    char* identity;              // owned
    char* share;                 // the share's name; owned, null without one
    char* directory;             // where it is mounted, or would be; owned, may be null
    char* texts[SHARE_TEXTS];    // owned, may be null
    char* reason;                // why it is not mounted; owned, may be null
    const ConfDev* settings;     // the view's; null without any
    const MountinfoEntry* mount; // the view's; null: not mounted
    const DiskPart* part;        // the view's; null where sysfs shows none
    uint64_t size_bytes;         // of the filesystem, or else of the partition; 0: unknown
    uint64_t used_bytes;
    uint64_t free_bytes; // for those who are not root
};

struct View {
    Item* items; // as they were plugged, then those that are not; owned
    size_t count;
    ConfDevTable* table; // owned, like the next two
    Mountinfo* mounts;
    DiskTable* disks;
    bool service_runs;
    int device_file; // 0; a negated errno when it cannot be read, and no settings are known
};

// Looks. Returns 0; a negated errno when memory runs out, the kernel's tables cannot be read, or a
// file that is there cannot be for want of something.
// Either way the view is to be ended by view_end.
[[nodiscard]] int view_begin(const Setup& setup, View* view);
void view_end(View* view);

// The word for a state: "not mounted".
[[nodiscard]] const char* item_state_word(ItemState state);

// Lends the name that people see: the partition's, or else the identity.
[[nodiscard]] const char* item_name(const Item& item);

// Whether it is plugged, or a directory: what is told of without --all.
[[nodiscard]] bool item_is_present(const Item& item);

// Whether nobody can write to it, by its setting or as it is mounted.
[[nodiscard]] bool item_is_readonly(const Item& item);

// Lends the filesystem's word; null where it is not known.
[[nodiscard]] const char* item_filesystem(const Item& item);

// Lends the volume's label where the service has read it; null.
[[nodiscard]] const char* item_label(const Item& item);

// Writes who may enter, in words: "everybody, guests", "anna, 1002 (reads)". Where there is not
// room for all, the list ends in "...", behind a whole name.
void item_access(const Item& item, char* text, size_t size);
