#include "agent/by_share.h"

#include "agent/block_device.h"
#include "agent/service_config.h"
#include "common/array.h"
#include "common/directory.h"
#include "common/text.h"
#include "config/ini.h"
#include "lib/log.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char log_tag[] = "by_share";
static constexpr char folder[] = "by-share";
static constexpr char making[] = ".making"; // no share's link begins with a dot
static constexpr size_t path_size = agent_folder_size + by_share_name_size + 16;

// ---- names ----

bool by_share_name(const char* share, char (&name)[by_share_name_size])
{
    char copy[sizeof name + 8]; // a character that is cut here lies behind what is kept
    str_ncpy(copy, share, sizeof copy);
    (void)text_clean(copy, "/");
    text_trim(copy);
    text_shorten(copy, sizeof name - 1);
    str_cpy(name, copy);
    if (name[0] == '.')
        name[0] = '_';
    return name[0] != '\0';
}

const char* by_share_place(const char* path, const char* directory)
{
    const char* rest = mountinfo_rest(path, directory);
    const bool fits = rest != nullptr && rest[0] != '\0' && rest[0] != '.' &&
                      strlen(rest) < block_name_size && strchr(rest, '/') == nullptr;
    return fits ? rest : nullptr;
}

// ---- one link ----

namespace {

struct Link {
    char name[by_share_name_size];
    char target[block_name_size + 4]; // "../sda1"
};

struct Links {
    MemGuard<Link> of;
    size_t count = 0;
};

} // namespace

static void path_of(const ByShare* links, const char* name, char (&path)[path_size])
{
    (void)snprintf(path, sizeof path, "%s/%s/%s", links->settings->mounts, folder, name);
}

static const Link* find(const Links& wanted, const char* name)
{
    for (size_t i = 0; i < wanted.count; i++) {
        if (strcmp(wanted.of.get()[i].name, name) == 0)
            return &wanted.of.get()[i];
    }
    return nullptr;
}

static bool leads_to(const char* path, const char* target)
{
    char found[sizeof(Link::target)];
    const ssize_t length = readlink(path, found, sizeof found);
    return length == static_cast<ssize_t>(strlen(target)) &&
           memcmp(found, target, static_cast<size_t>(length)) == 0;
}

// Puts the link in the place of another one, never of anything else.
static int make_link(const ByShare* links, const Link& link)
{
    char path[path_size];
    char fresh[path_size];
    struct stat status;
    path_of(links, link.name, path);
    path_of(links, making, fresh);
    if (leads_to(path, link.target))
        return 0;
    if (lstat(path, &status) == 0 && !S_ISLNK(status.st_mode))
        return -EEXIST;
    (void)sys_unlink(fresh); // of an agent that was killed
    if (symlink(link.target, fresh) != 0)
        return -errno;
    const int result = sys_rename(fresh, path);
    if (result != 0)
        (void)sys_unlink(fresh);
    return result;
}

// ---- the shares ----

static bool is_mounted(const Mountinfo* mounts, const char* directory, const char* place)
{
    char path[agent_path_size];
    (void)snprintf(path, sizeof path, "%s/%s", directory, place);
    for (size_t i = 0; i < mounts->count; i++) {
        const char* rest = mountinfo_rest(mounts->entries[i].directory, path);
        if (rest != nullptr && rest[0] == '\0')
            return true;
    }
    return false;
}

// Takes a section of the share file. Returns 0, for one that gets no link too; -ENOMEM.
static int take_share(const ByShare* links, const IniDoc* doc, const char* share,
                      const Mountinfo* mounts, Links* wanted)
{
    IniValueGuard path;
    Link link = {};
    if (ini_doc_get_string(doc, share, "Path", path.out(), INI_LAST) == -ENOMEM)
        return -ENOMEM;
    const char* directory = links->settings->mounts;
    const char* place = path ? by_share_place(path.get(), directory) : nullptr;
    if (place == nullptr || !is_mounted(mounts, directory, place) ||
        !by_share_name(share, link.name) || find(*wanted, link.name) != nullptr)
        return 0;
    (void)snprintf(link.target, sizeof link.target, "../%s", place);
    Link* held = wanted->of.take();
    auto* grown = static_cast<Link*>(array_room(held, wanted->count, sizeof *held));
    if (grown == nullptr) {
        wanted->of.reset(held);
        return -ENOMEM;
    }
    wanted->of.reset(grown);
    grown[wanted->count++] = link;
    return 0;
}

// Finds which links there are to be: none where there is no share file. Returns 0; a negated errno.
static int find_wanted(const ByShare* links, Links* wanted)
{
    IniDocGuard doc;
    SectionListGuard shares;
    MountinfoGuard mounts;
    char path[agent_path_size];
    (void)snprintf(path, sizeof path, "%s/self/mountinfo", links->settings->proc);
    int result = mountinfo_load(path, mounts.out());
    if (result != 0)
        return result;
    result = ini_doc_load(links->file.get(), doc.out());
    if (result != 0)
        return result == -EIO ? 0 : result;
    result = ini_doc_get_section_list(doc.get(), shares.out());
    if (result != 0)
        return result;
    const vylist_node* end = vylist_end(shares.get());
    for (const vylist_node* node = shares->next; node != end && result == 0; node = node->next)
        result = take_share(links, doc.get(), static_cast<const char*>(node->data), mounts.get(),
                            wanted);
    return result;
}

// ---- the directory ----

// Takes an entry of the directory away if it is a link that is not wanted. Returns whether it
// stays.
static bool remove_other(const ByShare* links, const Links& wanted, const char* name)
{
    char path[path_size];
    struct stat status;
    path_of(links, name, path);
    const bool is_link = lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
    return !is_link || find(wanted, name) != nullptr || sys_unlink(path) != 0;
}

// Takes away the links that are not wanted. Returns 0, with how many entries there are left; a
// negated errno when the directory cannot be read.
static int remove_others(const ByShare* links, const Links& wanted, size_t* left)
{
    char path[path_size];
    path_of(links, "", path);
    const DirGuard directory(opendir(path));
    if (!directory)
        return -errno;
    while (const dirent* entry = directory_next(directory.get())) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0)
            *left += remove_other(links, wanted, name) ? 1 : 0;
    }
    return -errno;
}

// Whether the directory is there, is one, and is root's or the own user's.
static bool has_directory(const char* path)
{
    struct stat status;
    return lstat(path, &status) == 0 && S_ISDIR(status.st_mode) &&
           (status.st_uid == 0 || status.st_uid == geteuid());
}

// Returns 0; the first negated errno.
static int bring_up_to_date(const ByShare* links, const Links& wanted)
{
    char path[agent_path_size];
    (void)snprintf(path, sizeof path, "%s/%s", links->settings->mounts, folder);
    if (!has_directory(path)) {
        if (wanted.count == 0)
            return 0;
        const int made = sys_mkdir(path, 0755);
        if (made != 0)
            return made != -EEXIST ? made : -ENOTDIR;
    }
    size_t left = 0;
    int result = remove_others(links, wanted, &left);
    for (size_t i = 0; i < wanted.count; i++) {
        const int made = make_link(links, wanted.of.get()[i]);
        result = result == 0 ? made : result;
    }
    if (wanted.count == 0 && left == 0)
        (void)sys_rmdir(path); // is not empty where it could not be read
    return result;
}

// ---- all of it ----

void by_share_watch(ByShare* links, const AgentSettings* settings)
{
    links->settings = settings;
    links->changes.reset(-1);
    links->file.reset(nullptr);
    if (!settings->by_share)
        return;
    const ServiceConfig config(service_config_load(settings->config));
    by_share_mounts_changed(links);
    if (!config || config->smbconfigpath == nullptr)
        return;
    links->file.reset(strdup(config->smbconfigpath));
    char* slash = strrchr(config->smbconfigpath, '/');
    if (slash == nullptr || slash == config->smbconfigpath)
        return;
    *slash = '\0';
    links->changes.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (links->changes.get() >= 0)
        (void)inotify_add_watch(links->changes.get(), config->smbconfigpath,
                                IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE);
}

void by_share_take_changes(ByShare* links)
{
    alignas(inotify_event) char events[4096];
    while (read(links->changes.get(), events, sizeof events) > 0)
        links->due = 0;
}

void by_share_mounts_changed(ByShare* links)
{
    links->due = 0;
}

void by_share_advance(ByShare* links, uint64_t now)
{
    if (now < by_share_due(links))
        return;
    Links wanted;
    int result = find_wanted(links, &wanted);
    if (result == 0)
        result = bring_up_to_date(links, wanted);
    if (result != 0 && !links->failed)
        VY_LOG(LOG_WARNING, "%s/%s is not up to date: %s", links->settings->mounts, folder,
               strerror(-result));
    links->failed = result != 0;
    links->due = links->failed ? now + agent_file_pause : agent_never;
}

uint64_t by_share_due(const ByShare* links)
{
    return links->file ? links->due : agent_never;
}

void by_share_close(ByShare* links)
{
    if (links->settings != nullptr && links->settings->by_share)
        (void)bring_up_to_date(links, Links()); // what does not go stays
    links->file.reset(nullptr);
    links->changes.reset(-1);
}
