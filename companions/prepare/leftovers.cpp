#include "prepare/leftovers.h"

#include "config/ini.h"
#include "device/kinds.h"
#include "lib/guard.h"
#include "lib/platform.h"
#include "lib/process.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "lib/vytime.h"
#include "prepare/places.h"
#include "prepare/tell.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char share_service_pid_file[] = "/var/run/vynas-fssd.pid";
static constexpr uint32_t let_go_ms = 400;

// ---- names ----

// The path below the mount directory.
static const char* name_of(const char* directory, const char* mountpath)
{
    const char* name = directory + strlen(mountpath);
    while (*name == '/')
        name++;
    return name;
}

bool leftovers_is_ours(const char* directory, const char* mountpath)
{
    if (!mountinfo_is_below(directory, mountpath))
        return false;
    const char* name = name_of(directory, mountpath);
    for (const DeviceKind& kind : device_kinds) {
        const size_t length = strlen(kind.prefix);
        if (!device_has_prefix(kind, name) || name[length] < 'a' || name[length] > 'z')
            continue;
        const char* number = name + length + 1;
        const size_t digits = strspn(number, device_digits);
        if (digits > 0 && (number[digits] == '\0' || number[digits] == '/'))
            return true;
    }
    return false;
}

bool leftovers_is_partition(const char* directory, const char* mountpath)
{
    return leftovers_is_ours(directory, mountpath) &&
           strchr(name_of(directory, mountpath), '/') == nullptr;
}

// ---- what goes ----

namespace {

struct Leftovers {
    const ConfHotplug* config;
    const Mountinfo* table;
    const char* mountpath; // without symbolic links, as the paths in the table
    MemGuard<bool> goes;   // by entry of the table
    bool judged;           // others may stay
    bool any_goes;
};

} // namespace

// The entry that is to be seen at the directory of the partition that the mount lies on; null when
// nothing is mounted there.
static const MountinfoEntry* find_partition(const Leftovers& leftovers, const char* directory)
{
    const char* name = name_of(directory, leftovers.mountpath);
    const size_t length = static_cast<size_t>(name - directory) + strcspn(name, "/");
    for (size_t i = leftovers.table->count; i > 0; i--) {
        const MountinfoEntry& mount = leftovers.table->entries[i - 1];
        if (strlen(mount.directory) == length && strncmp(mount.directory, directory, length) == 0)
            return &mount;
    }
    return nullptr;
}

static bool stays(const MountinfoEntry* mount, LeftoverJudge judge, void* context)
{
    if (judge == nullptr)
        return false;
    const char* refusal = judge(context, *mount);
    if (refusal != nullptr)
        tell(LOG_NOTICE, "%s does not stay mounted: %s", mount->directory, refusal);
    return refusal == nullptr;
}

// Decides on each partition, then on what lies on or under it.
static void decide(Leftovers* leftovers, LeftoverJudge judge, void* context)
{
    const Mountinfo* table = leftovers->table;
    bool* goes = leftovers->goes.get();
    for (size_t i = 0; i < table->count; i++) {
        const MountinfoEntry* mount = &table->entries[i];
        if (leftovers_is_ours(mount->directory, leftovers->mountpath) &&
            find_partition(*leftovers, mount->directory) == mount)
            goes[i] = !stays(mount, judge, context);
    }
    for (size_t i = 0; i < table->count; i++) {
        const MountinfoEntry* mount = &table->entries[i];
        if (!leftovers_is_ours(mount->directory, leftovers->mountpath))
            continue;
        const MountinfoEntry* partition = find_partition(*leftovers, mount->directory);
        goes[i] = partition == nullptr || goes[partition - table->entries];
        leftovers->any_goes |= goes[i];
    }
}

// Whether a share of the share file is that of a partition that goes. Its path is as the
// configuration has it.
static bool is_share_to_go(const Leftovers& leftovers, const char* path)
{
    const char* mountpath = leftovers.config->mountpath;
    if (!leftovers_is_partition(path, mountpath))
        return false;
    for (size_t i = 0; i < leftovers.table->count; i++) {
        const char* directory = leftovers.table->entries[i].directory;
        if (leftovers.goes.get()[i] &&
            strcmp(name_of(directory, leftovers.mountpath), name_of(path, mountpath)) == 0)
            return true;
    }
    return false;
}

// ---- the file-sharing service ----

// Opens the share file if it is a regular file of root's with one name. Returns the descriptor or a
// negated errno.
static int open_share_file(const char* path, int flags)
{
    FdGuard fd(open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;
    struct stat status;
    if (fstat(fd.get(), &status) != 0)
        return -errno;
    if (!S_ISREG(status.st_mode) || status.st_uid != 0 || status.st_nlink != 1)
        return -EPERM;
    return fd.take();
}

static int empty_share_file(const char* path)
{
    const FdGuard fd(open_share_file(path, O_WRONLY));
    if (fd.get() < 0)
        return fd.get() == -ENOENT ? 0 : fd.get();
    return ftruncate(fd.get(), 0) == 0 ? 0 : -errno;
}

// Appends an empty section for each share that goes, as the service does before it unmounts.
static int append_empty_sections(int fd, const Leftovers& leftovers)
{
    IniDocGuard shares;
    SectionListGuard names;
    int result = ini_doc_read(fd, shares.out());
    if (result == 0)
        result = ini_doc_get_section_list(shares.get(), names.out());
    if (result != 0)
        return result;
    for (vylist_node* node = names->next; node != vylist_end(names.get()); node = node->next) {
        const auto* name = static_cast<const char*>(node->data);
        IniValueGuard path;
        result = ini_doc_get_string(shares.get(), name, "path", path.out(), INI_LAST);
        if (result == -ENOMEM)
            return result;
        if (path && is_share_to_go(leftovers, path.get()) && dprintf(fd, "[%s]\n", name) < 0)
            return -errno;
    }
    return 0;
}

static int withdraw_some(const char* path, const Leftovers& leftovers)
{
    const FdGuard fd(open_share_file(path, O_RDWR | O_APPEND));
    if (fd.get() < 0)
        return fd.get() == -ENOENT ? 0 : fd.get();
    return append_empty_sections(fd.get(), leftovers);
}

// A file-sharing service that outlives a restart with its shares takes an empty file for a service
// that is still to tell of them, so shares that go are named to it.
static void withdraw_shares(const Leftovers& leftovers)
{
    const char* path = leftovers.config->smbconfigpath;
    const int result = leftovers.judged ? withdraw_some(path, leftovers) : empty_share_file(path);
    if (result != 0 && leftovers.judged)
        tell(LOG_WARNING, "shares stay in %s: %s", path, strerror(-result));
    else if (result != 0)
        tell(LOG_WARNING, "%s is not emptied: %s", path, strerror(-result));
    (void)vy_sigsend_pid_file(share_service_pid_file, SIGHUP); // that nobody is there is no failure
    (void)vytime_msleep(let_go_ms);
}

// ---- one mount ----

static bool is_gone(int result)
{
    return result == 0 || result == -EINVAL || result == -ENOENT;
}

// Unmounts or detaches. Returns 0 when nothing is mounted there any more; a negated errno, told.
static int take_off(const char* directory)
{
    const int result = sys_umount(directory);
    if (is_gone(result)) {
        tell(LOG_NOTICE, "%s is unmounted", directory);
        return 0;
    }
    const int detached = sys_umount2(directory, MNT_DETACH);
    if (is_gone(detached)) {
        tell(LOG_WARNING, "%s cannot be unmounted (%s), it is detached", directory,
             strerror(-result));
        return 0;
    }
    tell(LOG_ERR, "%s cannot be detached: %s", directory, strerror(-detached));
    return detached;
}

// Removes the directory and the node that the service made for a partition. A mount deeper down
// lies in a directory that is not the service's.
static void remove_places(const char* directory, const char* mountpath, const char* devicepath)
{
    const char* name = name_of(directory, mountpath);
    if (strchr(name, '/') != nullptr)
        return;
    char node[place_path_size];
    (void)sys_rmdir(directory); // both may be gone already, and the directory may hold files
    if (strlen(devicepath) + 1 + strlen(name) >= sizeof node)
        return;
    str_cpy(str_cpy(str_cpy(node, devicepath), "/"), name);
    (void)sys_unlink(node);
}

// ---- all of them ----

static int take_them_off(const Leftovers& leftovers)
{
    int result = 0;
    for (size_t i = leftovers.table->count; i > 0; i--) {
        const char* directory = leftovers.table->entries[i - 1].directory;
        if (!leftovers.goes.get()[i - 1])
            continue;
        if (take_off(directory) == 0)
            remove_places(directory, leftovers.mountpath, leftovers.config->devicepath);
        else
            result = -1;
    }
    return result;
}

int leftovers_take_off(const ConfHotplug* config, const Mountinfo* table, LeftoverJudge judge,
                       void* context)
{
    // The paths in the kernel's table hold no symbolic links.
    const MemGuard<char> mountpath(realpath(config->mountpath, nullptr));
    if (!mountpath && errno == ENOENT)
        return 0;
    if (!mountpath) {
        tell(LOG_ERR, "what is left mounted below %s cannot be found: %s", config->mountpath,
             strerror(errno));
        return -1;
    }
    Leftovers leftovers = {
        .config = config,
        .table = table,
        .mountpath = mountpath.get(),
        .goes = MemGuard<bool>(static_cast<bool*>(calloc(table->count + 1, sizeof(bool)))),
        .judged = judge != nullptr,
        .any_goes = false};
    if (!leftovers.goes) {
        tell(LOG_ERR, "no memory for what is left mounted");
        return -1;
    }
    decide(&leftovers, judge, context);
    if (!leftovers.any_goes)
        return 0;
    withdraw_shares(leftovers);
    sys_sync();
    return take_them_off(leftovers);
}
