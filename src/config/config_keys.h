// The keys of the configuration file, one row each, for the loader and for who looks for mistakes
// in the file. What a value means stands in docs/configuration.md.
#pragma once

#include "config/conf_hotplug.h"

#include <stdint.h>

// ---- words ----

inline constexpr char smbtype_key[] = "smbtype";
inline constexpr char samba_word[] = "samba";

// The names by which the product's own server is meant, as by every other word.
inline constexpr char own_server_names[8][12] = {
    "vy nas mira", "vynas mira", "vynasmira", "vy nasmira",
    "vynas",       "vy nas",     "nasmira",   "nas mira",
};

inline constexpr char labels_key[] = "labels";
inline constexpr char labels_word[] = "all";

// ---- switches: string_enable_disable, on for any other word ----

struct SwitchKey {
    const char* key;
    uint8_t ConfHotplug::*field;
};

inline constexpr SwitchKey naswork_key = {"ds/naswork", &ConfHotplug::naswork};
inline constexpr SwitchKey fat_label_key = {"fatvolumelabel", &ConfHotplug::fatvolumelabel};

// Those that close doors.
inline constexpr SwitchKey needed_switches[] = {
    {"strict", &ConfHotplug::strict},
    {"adopt", &ConfHotplug::adopt},
};

// ---- paths ----

struct PathKey {
    const char* key;
    char* ConfHotplug::*field;
    const char* fallback; // for what does not begin with a slash
};

inline constexpr char default_smb_config[] = "/tmp/vynas.dir.conf";
// The fallback of three keys, kept so: an installation that names no directories fails the
// directory checks at start and says so, instead of mounting somewhere.
inline constexpr char default_device_config[] = "/tmp/hotplug.dev.conf";

inline constexpr PathKey path_keys[] = {
    {"smbconfigpath", &ConfHotplug::smbconfigpath, default_smb_config},
    {"deviceconfigpath", &ConfHotplug::deviceconfigpath, default_device_config},
    {"mountpath", &ConfHotplug::mountpath, default_device_config},
    {"devicepath", &ConfHotplug::devicepath, default_device_config},
};

// ---- numbers ----

struct NumberKey {
    const char* key;
    uint32_t ConfHotplug::*field;
    int base;
    uint32_t fallback; // when the value is empty or no number
};

inline constexpr NumberKey owner_keys[] = {
    {"defaultuid", &ConfHotplug::defaultuid, 10, 0},
    {"defaultgid", &ConfHotplug::defaultgid, 10, 0},
};

constexpr uint32_t permission_bits = 0777;    // what counts of a permission
constexpr uint32_t default_file_umask = 0113; // files 0664
constexpr uint32_t default_dir_umask = 0002;  // directories 0775

// Their fields and fallbacks are masks, complements of what the file says.
inline constexpr NumberKey permission_keys[] = {
    {"defaultfilepermission", &ConfHotplug::fileumask, 8, default_file_umask},
    {"defaultdirectorypermission", &ConfHotplug::dirumask, 8, default_dir_umask},
};

// ---- mount options ----

struct OptionsKey {
    const char* key;
    char* ConfHotplug::*field;
    const char* fallback; // null for none
};

inline constexpr OptionsKey options_keys[] = {
    {"vfatoptions", &ConfHotplug::vfatoptions, "utf8"},
    {"ntfsoptions", &ConfHotplug::ntfsoptions, nullptr},
    {"extfsoptions", &ConfHotplug::extfsoptions, nullptr},
};

// The key of another filesystem's further mount options is its type with this behind it.
inline constexpr char options_ending[] = "options";
constexpr int options_key_size = 32; // bytes with the NUL

// ---- lists ----

inline constexpr char mountfs_key[] = "mountfs";
inline constexpr char otherfs_key[] = "otherfs";
inline constexpr char mountflags_key[] = "mountflags";
