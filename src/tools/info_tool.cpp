#include "tools/info_tool.h"

#include "config/ini.h"

#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

static constexpr char default_config[] = "/tmp/vynasmira/vyhotplugd.conf";

// ---- listing ----

static void print_names(vylist* sections)
{
    for (vylist_node* node = sections->next; node != vylist_end(sections); node = node->next)
        printf("%s\n", static_cast<const char*>(node->data));
}

int hotplug_info_list(const char* device_file)
{
    SectionListGuard sections;
    if (config_get_section_list(device_file, sections.out()) != 0)
        return -1;
    print_names(sections.get());
    return 0;
}

// ---- describing ----

namespace {

// A setting of the device file and how it is told.
struct Setting {
    const char* key;
    const char* label;
    const char* otherwise; // told where there is no value; null for no line at all
};

constexpr Setting device_settings[] = {
    {"sharename", "Share Name=", ""},
    {"comment", "Comment=", ""},
    {"filesystem", "File System=", nullptr},
    {"sync", "Sync=", "Disable"},
    {"readonly", "ReadOnly=", "Disable"},
    {"guestaccess", "Guest Access=", "Disable"},
    {"guesthide", "Guest Hide=", "Disable"},
    {"administrator", "Administrator=", "FullAccess"},
    {"fullaccessusers", "Full Access Users=", ""},
    {"readonlyusers", "Read Only Users=", ""},
    {"blockusers", "Block Users=", ""},
    {"hideusers", "Hide Users=", ""},
};

} // namespace

// Returns owned: the key's last value; null when absent or empty.
static char* read_value(const IniSection* section, const char* key)
{
    IniValueGuard value;
    if (ini_section_get_string(section, key, value.out(), INI_LAST) != 0)
        return nullptr;
    return value.get()[0] == '\0' ? nullptr : value.take();
}

static bool has_value(const IniSection* section, const char* key)
{
    const IniValueGuard value(read_value(section, key));
    return static_cast<bool>(value);
}

static void print_setting(const IniSection* section, const Setting& setting)
{
    const IniValueGuard value(read_value(section, setting.key));
    if (value)
        printf("%s%s\n", setting.label, value.get());
    else if (setting.otherwise != nullptr)
        printf("%s%s\n", setting.label, setting.otherwise);
}

// Prints the first of two keys that has a value.
static void print_either(const IniSection* section, const char* label, const char* key,
                         const char* second_key)
{
    const bool first = has_value(section, key);
    print_setting(section, {first ? key : second_key, label, ""});
}

static void print_device(const IniSection* device)
{
    if (has_value(device, "path"))
        printf("DevType=InternalDisk\n");
    for (const Setting& setting : device_settings)
        print_setting(device, setting);
}

static void print_sizes(const char* path)
{
    struct statvfs status;
    if (statvfs(path, &status) != 0)
        return;
    const auto block = static_cast<unsigned long long>(status.f_frsize);
    printf("Max Size=%lld\n", static_cast<long long>(block * status.f_blocks));
    printf("Free Size=%lld\n", static_cast<long long>(block * status.f_bfree));
}

static void print_share(const char* name, const IniSection* share, bool filesystem_told)
{
    print_setting(share, {"status", "Status=", "Mount"});
    printf("Auto Mount Share Name=%s\n", name);
    print_setting(share, {"comment", "Auto Mount Comment=", ""});
    if (!filesystem_told)
        print_setting(share, {"filesystem", "File System=", "DefFS"});
    print_either(share, "Manufactuare=", "manufactuare", "vid");
    print_either(share, "Product=", "product", "pid");
    print_setting(share, {"volumelabel", "Volume Label=", ""});
    const IniValueGuard path(read_value(share, "path"));
    if (!path)
        return;
    printf("Path=%s\n", path.get());
    print_sizes(path.get());
}

// Whether the list holds exactly this name.
static bool holds_name(vylist* sections, const char* name)
{
    for (vylist_node* node = sections->next; node != vylist_end(sections); node = node->next) {
        if (strcmp(static_cast<const char*>(node->data), name) == 0)
            return true;
    }
    return false;
}

// Opens a section that a list of names holds. One that a lookup knows by another name has no
// entries. Returns 0 or -ENOMEM.
static int open_section(const IniDoc* doc, const char* name, IniSectionGuard* section)
{
    section->reset(nullptr);
    const int result = ini_section_open(doc, name, section->out());
    return result == -ENOMEM ? result : 0;
}

static bool belongs_to(const IniSection* share, const char* identifier)
{
    const IniValueGuard value(read_value(share, "identifier"));
    return value && strcmp(value.get(), identifier) == 0;
}

// Opens the first section of the share file that belongs to the device. Returns 0 with its name,
// null without one; -ENOMEM.
static int find_share(const IniDoc* shares, vylist* names, const char* identifier,
                      IniSectionGuard* share, const char** name)
{
    *name = nullptr;
    for (vylist_node* node = names->next; node != vylist_end(names); node = node->next) {
        const auto* candidate = static_cast<const char*>(node->data);
        if (open_section(shares, candidate, share) != 0)
            return -ENOMEM;
        if (!belongs_to(share->get(), identifier))
            continue;
        *name = candidate;
        return 0;
    }
    return 0;
}

// Reads a file and its section names; false when either fails.
static bool load_file(const char* path, IniDocGuard* doc, SectionListGuard* sections)
{
    return ini_doc_load(path, doc->out()) == 0 &&
           ini_doc_get_section_list(doc->get(), sections->out()) == 0;
}

int hotplug_info_devinfo(const char* device_file, const char* share_file, const char* identifier)
{
    IniDocGuard devices;
    SectionListGuard device_names;
    IniDocGuard shares;
    SectionListGuard share_names;
    if (!load_file(device_file, &devices, &device_names))
        return -1;
    if (!load_file(share_file, &shares, &share_names))
        return -1;
    if (!holds_name(device_names.get(), identifier))
        return -1;
    IniSectionGuard device;
    IniSectionGuard share;
    const char* share_name = nullptr;
    if (open_section(devices.get(), identifier, &device) != 0 ||
        find_share(shares.get(), share_names.get(), identifier, &share, &share_name) != 0)
        return -1;
    print_device(device.get());
    if (share_name != nullptr)
        print_share(share_name, share.get(), has_value(device.get(), "filesystem"));
    else
        printf("Status=Unplug\n");
    return 0;
}

// ---- the command ----

namespace {

struct InfoArgs {
    const char* config;
    const char* identifier; // null for none
    bool list;
    bool help;
};

} // namespace

static void print_usage()
{
    fprintf(stderr,
            "\n"
            "VY NAS Mira - Hotplug Information.\n"
            "Usage: %s {option} [device identifier]\n"
            "\n"
            "option:\n"
            " -f --file  [path] : config file path(def=%s)\n"
            " -h --help         : display this help message and exit.\n"
            " -l --list         : display device identifier list.\n"
            "\n\n",
            "vyhotpluginfo", default_config);
}

static constexpr char short_options[] = "-hf:l";
// "list" with an argument that -l does not take: kept, --list alone has never been accepted.
static constexpr option long_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"file", required_argument, nullptr, 'f'},
    {"list", required_argument, nullptr, 'l'},
    {nullptr, 0, nullptr, 0},
};
static constexpr int word_code = 1; // a word that is no option, for an option string with "-"

// Takes one option. Returns -1 for a wrong one.
static int take_option(InfoArgs* args, int code)
{
    struct stat status;
    switch (code) {
    case 'h':
        args->help = true;
        return 0;
    case 'f':
        args->config = optarg;
        if (stat(optarg, &status) == 0)
            return 0;
        fprintf(stderr, "Error : no such file (%s)\n", optarg);
        break;
    case 'l':
        args->list = true;
        return 0;
    case word_code:
        args->identifier = optarg;
        return 0;
    default:
        fprintf(stderr, "getopt returned character code 0x%x\n\n", static_cast<unsigned>(code));
        break;
    }
    print_usage();
    return -1;
}

// Returns -1 for a wrong command line, which has been told. Stops at the first -h.
static int parse_args(int argc, char* argv[], InfoArgs* args)
{
    int code = 0;
    while (!args->help &&
           (code = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1) {
        if (take_option(args, code) != 0)
            return -1;
    }
    return 0;
}

static int describe(const InfoArgs& args, const char* device_file)
{
    IniValueGuard share_file;
    if (config_get_ini_string(args.config, "", "smbconfigpath", share_file.out(), INI_LAST) != 0) {
        fprintf(stderr, "Error - Read Hotplug Config File (SMB Config Path)\n");
        return -1;
    }
    // The device file once more: kept, a missing share file shows when it is read.
    if (access(device_file, R_OK) != 0) {
        fprintf(stderr, "Error - SMB Config File (%s)\n", share_file.get());
        return -1;
    }
    if (args.identifier == nullptr) {
        fprintf(stderr, "Error - No Identifier\n");
        return -1;
    }
    return hotplug_info_devinfo(device_file, share_file.get(), args.identifier);
}

static int answer(const InfoArgs& args)
{
    if (access(args.config, R_OK) != 0) {
        fprintf(stderr, "Error - Read Hotplug Config File. (No Permission or No such file.)\n");
        return -1;
    }
    IniValueGuard device_file;
    if (config_get_ini_string(args.config, "", "deviceconfigpath", device_file.out(), INI_LAST) !=
        0) {
        fprintf(stderr, "Error - Read Hotplug Config File (Device Config Path)\n");
        return -1;
    }
    if (access(device_file.get(), R_OK) != 0) {
        fprintf(stderr, "Error - Device Config File (%s)\n", device_file.get());
        return -1;
    }
    return args.list ? hotplug_info_list(device_file.get()) : describe(args, device_file.get());
}

int hotplug_info_main(int argc, char* argv[])
{
    InfoArgs args = {.config = default_config, .identifier = nullptr, .list = false, .help = false};
    if (parse_args(argc, argv, &args) != 0)
        return -1;
    const bool asked = args.list || args.identifier != nullptr;
    if (args.help || !asked)
        print_usage();
    if (args.help)
        return 0;
    return asked ? answer(args) : -1;
}
