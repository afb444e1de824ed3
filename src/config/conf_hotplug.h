// The daemon's configuration: the configuration file's values with all defaults applied. Loaded
// once when the run loop starts and read-only from then on.
#pragma once

#include <stdint.h>

enum : uint8_t {
    SMB_TYPE_OWN = 1, // the product's own file-sharing server
    SMB_TYPE_SAMBA = 2,
};

constexpr int OTHERFS_SIZE = 16; // more than there are codes

struct ConfHotplug {
    uint8_t smbtype;        // which file-sharing server is fed, SMB_TYPE_*
    uint8_t naswork;        // 1: device-information lines in the share file
    uint8_t fatvolumelabel; // 1: FAT volume labels give share names
    char* smbconfigpath;    // share file; owned
    char* deviceconfigpath; // device file; owned
    char* mountpath;        // directory of the mount directories; owned
    char* devicepath;       // directory of the device nodes; owned

    // What the mount layer works with.
    uint32_t defaultuid;
    uint32_t defaultgid;
    uint32_t fileumask; // complements of the configured permissions within 0777
    uint32_t dirumask;
    uint32_t mountvfat; // 1: partitions of this kind are mounted
    uint32_t mountntfs;
    uint32_t mountext;
    char* vfatoptions; // extra mount options, may be null; live until the process ends
    char* ntfsoptions;
    char* extfsoptions;
    uint32_t mountflags; // flags of mount(2) for every mount, see config/mount_flags.h

    // Filesystems besides the five, each at most once (config/filesystems.h).
    uint8_t otherfs[OTHERFS_SIZE];    // their codes in the order in which they are tried, then 0
    char* otheroptions[OTHERFS_SIZE]; // extra mount options by code, may be null; owned

    uint8_t labels; // 1: volume labels of all filesystems give share names
    uint8_t strict; // 1: only root commands, only root's files count
    uint8_t adopt;  // 1: what an earlier daemon left mounted is taken over
};
