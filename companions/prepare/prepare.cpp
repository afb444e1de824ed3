#include "prepare/prepare.h"

#include "common/mountinfo.h"
#include "config/config_file.h"
#include "lib/guard.h"
#include "lib/platform.h"
#include "lib/str.h"
#include "lib/version.h"
#include "prepare/adoption.h"
#include "prepare/leftovers.h"
#include "prepare/lock.h"
#include "prepare/mistakes.h"
#include "prepare/places.h"
#include "prepare/settings.h"
#include "prepare/tell.h"

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char program_name[] = "vyhotplug-prepare";
static constexpr char default_config[] = "/etc/vyhotplugd/vyhotplugd.conf";
static constexpr size_t service_path_size = 128; // bytes that the service has for this path

// The service makes its files in /tmp and renames them, so they must be on that filesystem.
static constexpr char temporary_folder[] = "/tmp";
static constexpr char files_folder[] = "/tmp/vyhotplugd";
static constexpr char files_link_folder[] = "/run/vyhotplugd";
static constexpr char files_link[] = "/run/vyhotplugd/files";

static constexpr char info_folder[] = "/tmp/vynasmira";
static constexpr char info_link[] = "/tmp/vynasmira/vyhotplugd.conf";
static constexpr char hook_link[] = "/tmp/vyhotplugd-evhook.sh";
static constexpr char hook[] = "/etc/vyhotplugd/evhook";

// The default of the keys for directories: they are not set.
static constexpr char no_directory[] = "/tmp/hotplug.dev.conf";

// ---- the configuration ----

static int check_directory_key(const char* key, const char* path)
{
    if (strcmp(path, no_directory) != 0)
        return 0;
    tell(LOG_ERR, "the configuration names no %s", key);
    return -1;
}

static bool is_complete(const ConfHotplug* config)
{
    return config->smbconfigpath != nullptr && config->deviceconfigpath != nullptr &&
           config->mountpath != nullptr && config->devicepath != nullptr;
}

// Returns owned; null, told, when it cannot be read.
static ConfHotplug* load_config(const char* path)
{
    if (access(path, R_OK) != 0) {
        tell(LOG_ERR, "%s cannot be read: %s", path, strerror(errno));
        return nullptr;
    }
    // What the loader says of the file is told with its line, see mistakes.h.
    const int mask = setlogmask(LOG_UPTO(LOG_EMERG));
    ConfHotplugGuard config(load_config_hotplug(path));
    (void)setlogmask(mask);
    if (!config || !is_complete(config.get())) {
        tell(LOG_ERR, "no memory for the configuration");
        return nullptr;
    }
    return config.take();
}

// ---- directories, links, files ----

namespace {

enum class PlaceKind {
    directory,
    own_directory,
    link,
    clear,
};

struct Place {
    PlaceKind kind;
    bool wanted;
    bool needed; // without it the service must not start
    const char* path;
    const char* target;
};

// The directories above the two files.
struct Parents {
    char shares[place_path_size];
    char devices[place_path_size];
};

} // namespace

static int make_place(const Place& place)
{
    switch (place.kind) {
    case PlaceKind::directory:
        return place_directory(place.path);
    case PlaceKind::own_directory:
        return place_own_directory(place.path);
    case PlaceKind::link:
        return place_link(place.path, place.target);
    case PlaceKind::clear:
        return place_clear(place.path);
    }
    return -EINVAL;
}

// Returns -1 when the service must not start without it.
static int try_place(const Place& place)
{
    if (!place.wanted)
        return 0;
    const int result = make_place(place);
    if (result == 0)
        return 0;
    tell(place.needed ? LOG_ERR : LOG_WARNING, "%s cannot be made ready: %s", place.path,
         strerror(-result));
    return place.needed ? -1 : 0;
}

// Makes all of them, in this order. Root would run a hook that another user put there, and write to
// what others put in the place of a temporary file: so the service must not start without these.
static int make_places(const ConfHotplug* config, const Parents& parents, const char* config_path)
{
    const bool files = mountinfo_is_below(config->smbconfigpath, files_link) ||
                       mountinfo_is_below(config->deviceconfigpath, files_link);
    const bool info = !mountinfo_is_below(config_path, info_folder);
    const Place places[] = {
        {PlaceKind::own_directory, files, true, files_folder, nullptr},
        {PlaceKind::directory, files, true, files_link_folder, nullptr},
        {PlaceKind::link, files, true, files_link, files_folder},
        {PlaceKind::directory, true, true, parents.shares, nullptr},
        {PlaceKind::directory, true, true, parents.devices, nullptr},
        {PlaceKind::directory, true, true, config->mountpath, nullptr},
        {PlaceKind::directory, true, true, config->devicepath, nullptr},
        {PlaceKind::link, true, true, hook_link, hook},
        {PlaceKind::clear, true, true, "/tmp/vyhotplug.dev.conf.tmp", nullptr},
        {PlaceKind::clear, true, true, "/tmp/vyhotplug.dir.conf.tmp", nullptr},
        {PlaceKind::clear, true, true, "/tmp/mntent.tmp", nullptr},
        // vyhotpluginfo looks for the configuration there.
        {PlaceKind::own_directory, info, false, info_folder, nullptr},
        {PlaceKind::link, info, false, info_link, config_path},
    };
    int result = 0;
    for (const Place& place : places) {
        if (try_place(place) != 0)
            result = -1;
    }
    return result;
}

// Warns of a file that the service can never rename into place.
static void check_filesystem(const char* directory, const char* file)
{
    struct stat there;
    struct stat here;
    if (stat(directory, &there) != 0 || stat(temporary_folder, &here) != 0)
        return;
    if (there.st_dev != here.st_dev)
        tell(LOG_WARNING, "%s is not on the filesystem of %s: the service cannot replace it", file,
             temporary_folder);
}

// ---- the whole run ----

namespace {

struct Adoption {
    const ConfHotplug* config;
    AdoptionNotes notes;
};

} // namespace

static const char* judge(void* context, const MountinfoEntry& mount)
{
    const auto* adoption = static_cast<const Adoption*>(context);
    return adoption_refusal(adoption->config, adoption->notes, mount);
}

// Without its notes nothing stays.
static void load_notes(AdoptionNotes* notes)
{
    const int result = adoption_load(notes);
    if (result != 0)
        tell(LOG_WARNING, "%s cannot be read: %s", adoption_notes_path, strerror(-result));
}

static void take_leftovers_off(const ConfHotplug* config)
{
    MountinfoGuard table;
    const int result = mountinfo_load(mountinfo_path, table.out());
    Adoption adoption;
    adoption.config = config;
    if (result != 0)
        return tell(LOG_WARNING, "%s cannot be read: %s", mountinfo_path, strerror(-result));
    if (config->adopt != 0)
        load_notes(&adoption.notes);
    // A failure is told; other devices can still be mounted.
    (void)leftovers_take_off(config, table.get(), config->adopt != 0 ? judge : nullptr, &adoption);
}

// Notes what is mounted for a next start, see adoption.h.
static void note_mounts(const ConfHotplug* config)
{
    MountinfoGuard table;
    int result = mountinfo_load(mountinfo_path, table.out());
    if (result == 0)
        result = adoption_note(config, table.get());
    if (result != 0)
        tell(LOG_WARNING, "what is mounted is not noted, a restart will unmount it: %s",
             strerror(-result));
}

static void restore_settings(const char* device_file)
{
    const int result = settings_restore(device_file);
    if (result != 0)
        tell(LOG_WARNING, "the settings in %s cannot be restored: %s", settings_copy,
             strerror(-result));
}

int prepare_surroundings(const char* config_path)
{
    FdGuard lock;
    if (lock_take(&lock) != 0)
        return -1;
    const ConfHotplugGuard config(load_config(config_path));
    if (!config)
        return -1;
    mistakes_tell_config(config_path);
    mistakes_tell_kernel();
    if (check_directory_key("mountpath", config->mountpath) != 0 ||
        check_directory_key("devicepath", config->devicepath) != 0)
        return -1;
    Parents parents;
    if (place_parent(config->smbconfigpath, parents.shares) != 0 ||
        place_parent(config->deviceconfigpath, parents.devices) != 0) {
        tell(LOG_ERR, "the configuration names too long a path");
        return -1;
    }
    const int result = make_places(config.get(), parents, config_path);
    check_filesystem(parents.shares, config->smbconfigpath);
    check_filesystem(parents.devices, config->deviceconfigpath);
    take_leftovers_off(config.get());
    restore_settings(config->deviceconfigpath);
    mistakes_tell_settings_file(config->deviceconfigpath);
    return result;
}

int prepare_save(const char* config_path)
{
    const ConfHotplugGuard config(load_config(config_path));
    if (!config)
        return -1;
    if (config->adopt != 0)
        note_mounts(config.get());
    const int result = settings_save(config->deviceconfigpath, mistakes_tell_settings);
    if (result != 0)
        tell(LOG_ERR, "the settings in %s cannot be saved: %s", config->deviceconfigpath,
             strerror(-result));
    return result != 0 ? -1 : 0;
}

// ---- the command line ----

static constexpr char short_options[] = "f:hv";
static constexpr option long_options[] = {
    {"file", required_argument, nullptr, 'f'},
    {"save", no_argument, nullptr, 's'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

static void print_help(FILE* stream)
{
    fprintf(stream,
            "usage: %s [-f FILE] [--save]\n"
            "Makes the surroundings of vyhotplugd ready, before it starts.\n"
            "\n"
            "  -f, --file FILE  the service's configuration (%s)\n"
            "      --save       save the devices' settings instead\n"
            "  -h, --help       print this\n"
            "  -v, --version    print the version\n",
            program_name, default_config);
}

// Returns the exit status of a run that only prints.
static int end_of_printing()
{
    if (stream_flush(stdout) == 0)
        return 0;
    fprintf(stderr, "%s: cannot write to standard output\n", program_name);
    return 1;
}

// Makes the configuration's path absolute: the service works in another directory. Returns -1,
// told.
static int make_absolute(const char* path, char (&absolute)[service_path_size])
{
    char directory[service_path_size] = "";
    if (path[0] != '/' && getcwd(directory, sizeof directory) == nullptr)
        directory[0] = '\0';
    const int length = path[0] == '/' || directory[0] == '\0'
                           ? snprintf(absolute, sizeof absolute, "%s", path)
                           : snprintf(absolute, sizeof absolute, "%s/%s", directory, path);
    if (length > 0 && static_cast<size_t>(length) < sizeof absolute && absolute[0] == '/')
        return 0;
    tell(LOG_ERR, "%s: no path that the service could read", path);
    return -1;
}

static int run(const char* file, bool save)
{
    if (geteuid() != 0) {
        fputs("root only.\n", stderr);
        return 1;
    }
    umask(022);
    openlog(program_name, LOG_PID, LOG_DAEMON);
    setlogmask(LOG_UPTO(LOG_NOTICE));
    char path[service_path_size];
    if (make_absolute(file, path) != 0)
        return 1;
    return (save ? prepare_save(path) : prepare_surroundings(path)) == 0 ? 0 : 1;
}

int prepare_main(int argc, char* argv[])
{
    const char* file = default_config;
    bool save = false;
    int code = 0;
    while ((code = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1) {
        switch (code) {
        case 'f':
            file = optarg;
            break;
        case 's':
            save = true;
            break;
        case 'h':
            print_help(stdout);
            return end_of_printing();
        case 'v':
            printf("%s %s\n", program_name, vy_build);
            return end_of_printing();
        default:
            print_help(stderr);
            return 2;
        }
    }
    if (optind < argc) {
        print_help(stderr);
        return 2;
    }
    return run(file, save);
}
