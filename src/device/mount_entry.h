// What the daemon knows of one partition: the device's description from its hotplug message, and
// the entry that carries it through mount, share and unmount.
#pragma once

#include <stdint.h>

enum : uint8_t {
    HOTPLUG_DEVTYPE_PARTITION = 1,
    HOTPLUG_DEVTYPE_DISK = 2,
};

enum : uint8_t {
    HOTPLUG_FLAG_REMOVABLE = 1,
    HOTPLUG_FLAG_READONLY = 2,
};

// A device as its hotplug message describes it.
struct HotplugDev {
    uint8_t devtype;    // recorded only
    uint8_t range;      // minors per device
    uint8_t flags;      // HOTPLUG_FLAG_*
    uint8_t usbport[8]; // port path, zero-terminated; always empty, see the message's USBPORT
    uint16_t vid;       // USB vendor id
    uint16_t pid;       // USB product id
    int32_t major;
    int32_t minor;
    int32_t speed;     // Mbit/s, 480 or 12; 0 unknown
    int32_t helperpid; // an NTFS driver that was still running when its wait ran out
    char* vname;       // vendor name, owned, may be null
    char* pname;       // product name, owned, may be null
    char* serial;      // owned, may be null
};

// One partition that is mounted or being mounted.
struct MountEntry {
    uint8_t mounted;
    uint8_t fstype;   // its code; before mounting the one wanted, afterwards the one found
    uint8_t gone;     // leaves the busy-device set at the next refresh
    char* sharename;  // section name in the share file; owned, may be null
    char* devnode;    // path of the block-device node; owned, may be null
    char* mountpoint; // path of the mount directory; owned, may be null
    HotplugDev* dev;  // owned; never null in the busy-device set
};

// Which disk of its kind a device belongs to, counted from 0. A description without minors per
// device (range 0) has the index 0.
inline int32_t hotplug_dev_index(const HotplugDev* dev)
{
    return dev->range == 0 ? 0 : dev->minor / dev->range;
}

// Partition number, 0 for the whole disk.
inline int32_t hotplug_dev_partition(const HotplugDev* dev)
{
    return dev->range == 0 ? 0 : dev->minor % dev->range;
}

// Frees the description's strings and makes them null.
void hotplug_dev_clear(HotplugDev* dev);

// Takes the entry: frees its description, its strings and itself; members may be null.
void mount_entry_free(MountEntry* entry);
