#include "ctl/problems.h"

#include "common/config_check.h"
#include "common/settings_check.h"
#include "config/filesystems.h"
#include "ctl/array.h"
#include "ctl/machine.h"
#include "ctl/serving_problems.h"
#include "ctl/settings.h"
#include "lib/file.h"
#include "lib/str.h"

#include <errno.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

// ---- the configuration ----

static void look_at_directories(ProblemLook* look)
{
    const ConfHotplug* config = look->setup->config;
    const struct {
        const char* key;
        const char* path;
    } directories[] = {{"mountpath", config->mountpath}, {"devicepath", config->devicepath}};
    for (const auto& row : directories) {
        struct stat status;
        if (stat(row.path, &status) != 0) {
            problem_add(look, "directory_missing", false, typed("vyhotplug-prepare"), "%s %s: %s",
                        row.key, row.path, strerror(errno));
        } else if (!S_ISDIR(status.st_mode)) {
            problem_add(look, "directory_missing", false, prose("correct the configuration"),
                        "%s %s is no directory", row.key, row.path);
        }
    }
}

// The directory of a file. A path without a slash has none.
static bool stat_directory_of(const char* path, struct stat* status)
{
    char directory[PATH_MAX];
    const char* slash = strrchr(path, '/');
    if (slash == nullptr || strlen(path) >= sizeof directory)
        return false;
    str_ncpy(directory, path, static_cast<int32_t>(slash - path) + 2);
    return stat(directory, status) == 0;
}

// What is to be done about a file that stands first in the problem's text.
static Remedy remedy_unread(int error)
{
    return error == EACCES ? prose("chown root and chmod 644 it") : typed("ls -ld $0");
}

static void look_at_rights(ProblemLook* look, const char* path)
{
    struct stat status;
    const int result = stat(path, &status) == 0 ? 0 : errno;
    if (result == ENOENT)
        return;
    if (result != 0) {
        problem_add(look, "open_to_others", false, remedy_unread(result), "%s cannot be read: %s",
                    path, strerror(result));
    } else if (status.st_uid != 0 || (status.st_mode & 022) != 0) {
        problem_add(look, "open_to_others", false, typed("chown root:root $0 && chmod go-w $0"),
                    "%s may be changed by others than root", path);
    }
}

// The service makes its files in /tmp and moves them, which only works on one filesystem.
static void look_at_files(ProblemLook* look)
{
    const ConfHotplug* config = look->setup->config;
    struct stat tmp = {};
    const bool known = stat("/tmp", &tmp) == 0;
    const char* const files[] = {config->smbconfigpath, config->deviceconfigpath};
    for (const char* path : files) {
        struct stat status;
        if (!stat_directory_of(path, &status)) {
            problem_add(look, "directory_missing", false, typed("vyhotplug-prepare"),
                        "%s: its directory is not there", path);
        } else if (known && status.st_dev != tmp.st_dev) {
            problem_add(
                look, "other_filesystem", false,
                prose("put it on the filesystem of /tmp; vyhotplug-prepare makes a link there"),
                "%s is not on the filesystem of /tmp, the service cannot replace it", path);
        }
        look_at_rights(look, path);
    }
}

static void look_at_own_file(ProblemLook* look)
{
    look_at_rights(look, look->setup->paths.config);
}

static void look_at_tmp(ProblemLook* look)
{
    struct statvfs status;
    if (statvfs("/tmp", &status) != 0)
        return;
    if ((status.f_flag & ST_RDONLY) != 0) {
        problem_add(look, "tmp_read_only", false, typed("mount -o remount,rw /tmp"),
                    "/tmp is read-only");
    } else if (status.f_bavail == 0) {
        problem_add(look, "tmp_full", false, prose("make room in /tmp"), "/tmp is full");
    }
}

// ---- mistakes in the files ----

namespace {

// Whose mistakes are told.
struct About {
    ProblemLook* look;
    const char* path;
    const char* id;
    Remedy remedy;
};

} // namespace

static void tell_finding(void* context, const Finding& finding)
{
    const auto* about = static_cast<const About*>(context);
    char text[finding_text_size];
    finding_format(finding, text);
    problem_add(about->look, about->id, false, about->remedy, "%s:%zu: %s", about->path,
                finding.line, text);
}

static bool find_user(const char* name, uint32_t* id)
{
    const passwd* user = getpwnam(name);
    if (user != nullptr)
        *id = user->pw_uid;
    return user != nullptr;
}

static void tell_unread(const About* about, int error)
{
    problem_add(about->look, about->id, false, remedy_unread(-error), "%s cannot be read: %s",
                about->path, strerror(-error));
}

static void look_at_keys(ProblemLook* look)
{
    About about = {.look = look,
                   .path = look->setup->paths.config,
                   .id = "configuration",
                   .remedy = prose("correct it, then: systemctl restart vyhotplugd")};
    FileBytes text;
    const int result = file_read_all(about.path, 0, FILE_ANY_SIZE, &text);
    if (result == 0)
        (void)config_check(text.bytes.get(), text.size, tell_finding, &about);
    else
        tell_unread(&about, result);
}

static void look_at_lines(ProblemLook* look)
{
    About about = {.look = look,
                   .path = look->setup->config->deviceconfigpath,
                   .id = "settings",
                   .remedy = prose("vyhotplugctl set, or edit")};
    FileBytes text;
    int result = look->view->device_file;
    if (result == -ENOENT)
        return; // no disk was ever plugged
    if (result == 0)
        result = file_read_all(about.path, 0, FILE_ANY_SIZE, &text);
    if (result == 0)
        (void)settings_check(text.bytes.get(), text.size, find_user, tell_finding, &about);
    else
        tell_unread(&about, result);
}

namespace {

struct UserNumber {
    int32_t uid;
    bool exists;
};

// What was looked up already: the system reads its file of users for each question.
struct UserNumbers {
    UserNumber* list; // owned
    size_t count;
};

} // namespace

static bool user_exists(UserNumbers* known, int32_t uid)
{
    for (size_t i = 0; i < known->count; i++) {
        if (known->list[i].uid == uid)
            return known->list[i].exists;
    }
    const bool exists = getpwuid(static_cast<uid_t>(uid)) != nullptr;
    void* grown = array_grow(known->list, known->count, sizeof(UserNumber));
    if (grown == nullptr)
        return exists; // it is looked up again
    known->list = static_cast<UserNumber*>(grown);
    known->list[known->count++] = {.uid = uid, .exists = exists};
    return exists;
}

static void check_ids(ProblemLook* look, UserNumbers* known, const Item& item, const vylist* users)
{
    for (const vylist_node* node = users->next; node != vylist_end(users); node = node->next) {
        const int32_t uid = *static_cast<const int32_t*>(node->data);
        if (!user_exists(known, uid)) {
            problem_add(look, "no_such_user", false, typed("vyhotplugctl edit $0"),
                        "%s: nobody has the user number %d", item_name(item),
                        static_cast<int>(uid));
        }
    }
}

static void look_at_users(ProblemLook* look)
{
    UserNumbers known = {};
    for (size_t i = 0; i < look->view->count; i++) {
        const Item& item = look->view->items[i];
        for (const SettingRow& row : setting_rows) {
            if (row.kind == SETTING_USERS && item.settings != nullptr)
                check_ids(look, &known, item, item.settings->*row.users);
        }
    }
    free(known.list);
}

// Each pair is told once, at the later one.
static void look_at_names(ProblemLook* look)
{
    for (size_t i = 1; i < look->view->count; i++) {
        const Item& item = look->view->items[i];
        for (size_t j = 0; j < i && item.share != nullptr; j++) {
            const Item& other = look->view->items[j];
            if (other.share != nullptr && strcasecmp(other.share, item.share) == 0) {
                problem_add(look, "name_twice", false, typed("vyhotplugctl set $1 share=NAME"),
                            "%s and %s are both called %s: only one is shared", item_name(other),
                            item_name(item), item.share);
            }
        }
    }
}

// ---- what runs ----

static void look_at_service(ProblemLook* look)
{
    if (!look->view->service_runs) {
        problem_add(look, "service_not_running", false, typed("systemctl start vyhotplugd"),
                    "the service is not running");
    } else if (processes_any_replaced(look->processes, "vyhotplugd")) {
        problem_add(look, "service_replaced", false, typed("systemctl restart vyhotplugd"),
                    "the service that runs is older than the one that is installed");
    }
}

static void look_at_agent(ProblemLook* look)
{
    if (processes_find(look->processes, "vyhotplug-agent") == 0) {
        problem_add(look, "agent_not_running", access("/run/systemd/system", F_OK) != 0,
                    typed("systemctl start vyhotplug-agent"),
                    "no agent runs that tells the service of disks (mdev may do that, too)");
    } else if (processes_any_replaced(look->processes, "vyhotplug-agent")) {
        problem_add(look, "agent_replaced", false, typed("systemctl restart vyhotplug-agent"),
                    "the agent that runs is older than the one that is installed");
    }
}

// ---- what is needed ----

static void look_at_label_tools(ProblemLook* look)
{
    const ConfHotplug& config = *look->setup->config;
    const struct {
        const char* name;
        bool is_run;
    } tools[] = {{"mlabel", config.labels == 0 && config.fatvolumelabel != 0},
                 {"ntfsvlabel", config.labels == 0},
                 {"vylabel", config.labels != 0}};
    for (const auto& tool : tools) {
        if (tool.is_run && !machine_has_own_program(tool.name)) {
            problem_add(look, "label_tool_missing", !machine_has_program(tool.name),
                        typed("apt-get install --reinstall vyhotplugd"),
                        "the service's own %s is missing, and another one may write to the medium",
                        tool.name);
        }
    }
}

static void look_at_filesystems(ProblemLook* look)
{
    for (const Filesystem& row : filesystems) {
        if (!filesystem_is_wanted(row, look->setup->config))
            continue;
        const bool driver = row.code == CONF_DEV_FS_NTFS;
        const char* needed = driver ? "fuse" : row.type;
        if (!machine_has_filesystem(needed)) {
            problem_add(look, "filesystem_missing", filesystem_is_other(row),
                        prose("install a kernel that has it, or leave it out of the configuration"),
                        "this kernel has no %s", needed);
        }
        if (driver && !machine_has_program("ntfs-3g"))
            problem_add(look, "driver_missing", false, typed("apt-get install ntfs-3g"),
                        "there is no ntfs-3g");
    }
}

static void look_at_protections(ProblemLook* look)
{
    static constexpr const char* switches[] = {"protected_symlinks", "protected_hardlinks",
                                               "protected_fifos", "protected_regular"};
    for (const char* name : switches) {
        char path[64];
        FileBytes value;
        (void)snprintf(path, sizeof path, "/proc/sys/fs/%s", name);
        // A file of /proc that tells no size.
        if (file_read_all(path, 0, 64, &value) == 0 && value.bytes.get()[0] == '0') {
            problem_add(look, "protection_off", true, typed("sysctl -w fs.$0=1"),
                        "fs.%s is 0: others may lay traps in /tmp", name);
        }
    }
}

// ---- disks ----

static void look_at_disks(ProblemLook* look)
{
    for (size_t i = 0; i < look->view->count; i++) {
        const Item& item = look->view->items[i];
        if (item.state == ITEM_NOT_MOUNTED) {
            problem_add(look, "not_mounted", false,
                        typed("less /usr/share/doc/vyhotplugd/docs/troubleshooting.md"),
                        "%s is not mounted: %s", item_name(item),
                        item.reason != nullptr ? item.reason : "");
        }
        if (item.state == ITEM_GONE) {
            problem_add(look, "directory_gone", false,
                        prose("make it, or: vyhotplugctl forget TARGET"),
                        "%s is to be shared, and is not there",
                        item.directory != nullptr ? item.directory : item_name(item));
        }
    }
}

namespace {

struct Check {
    ProblemScope scope; // the least in which it is looked at
    void (*look)(ProblemLook* look);
};

constexpr Check checks[] = {
    {PROBLEMS_QUICK, look_at_service},
    {PROBLEMS_QUICK, look_at_agent},
    {PROBLEMS_QUICK, look_at_bridge},
    {PROBLEMS_QUICK, look_at_versions},
    {PROBLEMS_CONFIGURATION, look_at_own_file},
    {PROBLEMS_CONFIGURATION, look_at_keys},
    {PROBLEMS_CONFIGURATION, look_at_directories},
    {PROBLEMS_CONFIGURATION, look_at_files},
    {PROBLEMS_QUICK, look_at_tmp},
    {PROBLEMS_QUICK, look_at_lines},
    {PROBLEMS_QUICK, look_at_users},
    {PROBLEMS_QUICK, look_at_names},
    {PROBLEMS_QUICK, look_at_label_tools},
    {PROBLEMS_QUICK, look_at_filesystems},
    {PROBLEMS_QUICK, look_at_file_server},
    {PROBLEMS_QUICK, look_at_server_users},
    {PROBLEMS_QUICK, look_at_discovery},
    {PROBLEMS_QUICK, look_at_protections},
    {PROBLEMS_QUICK, look_at_disks},
};

} // namespace

int problems_find(const Setup& setup, const View& view, ProblemScope scope, ProblemTable* table)
{
    *table = {};
    ProcessTableGuard processes;
    const int result = scope > PROBLEMS_CONFIGURATION ? processes_read(processes.out()) : 0;
    if (result != 0)
        return result;
    ProblemLook look = {.setup = &setup,
                        .view = &view,
                        .table = table,
                        .server = file_server_find(),
                        .processes = processes.get(),
                        .asks = scope == PROBLEMS_ALL};
    for (const Check& check : checks) {
        if (check.scope <= scope)
            check.look(&look);
    }
    int wrong = 0;
    for (size_t i = 0; i < table->count; i++)
        wrong += table->problems[i].note ? 0 : 1;
    return table->failed ? -ENOMEM : wrong;
}
