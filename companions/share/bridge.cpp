#include "share/bridge.h"

#include "common/clock.h"
#include "common/mountinfo.h"
#include "config/ini.h"
#include "lib/log.h"
#include "lib/str.h"
#include "share/share.h"
#include "share/share_list.h"
#include "share/share_mount.h"
#include "share/share_name.h"
#include "share/shares_to_close.h"
#include "share/standing_shares.h"

#include <errno.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

static constexpr char log_tag[] = "bridge";
static constexpr size_t account_size = 16384; // bytes of one passwd entry's strings
static constexpr uint64_t retry_ms = 1000;    // when shares could not be withdrawn in time

static void log_note(int priority, const char* message)
{
    VY_LOG(priority, "%s", message);
}

static int out_of_memory()
{
    VY_LOG(LOG_ERR, "out of memory, nothing is changed");
    return -ENOMEM;
}

// What a text is made from.
namespace {

struct World {
    ShareTableGuard table;
    MountinfoGuard mounts;
    MemGuard<char> resolved; // null where there is no such directory
    MountRoot root = {};
};

} // namespace

// ---- which shares can be exported ----

static bool user_name(int32_t id, char (&name)[user_name_size])
{
    passwd account;
    passwd* found = nullptr;
    char texts[account_size];
    if (getpwuid_r(static_cast<uid_t>(id), &account, texts, sizeof texts, &found) != 0 ||
        found == nullptr || strlen(found->pw_name) >= sizeof name)
        return false;
    (void)str_cpy(name, found->pw_name);
    return true;
}

// In whose name everybody works must be there; what a server makes of a name that nobody has is not
// for a guess.
static bool is_known_user(const char* name)
{
    passwd account;
    passwd* found = nullptr;
    char texts[account_size];
    return getpwnam_r(name, &account, texts, sizeof texts, &found) == 0 && found != nullptr;
}

// Looks at a directory that is no mount of the service's. Returns false if it is no directory.
static bool look_at_directory(const char* path, bool* readonly)
{
    struct stat status;
    if (stat(path, &status) != 0 || !S_ISDIR(status.st_mode))
        return false;
    struct statvfs filesystem;
    *readonly = statvfs(path, &filesystem) == 0 && (filesystem.f_flag & ST_RDONLY) != 0;
    return true;
}

// Looks a directory of the service up in the mount table. The directory itself is not touched: that
// would hang where the medium hangs. Returns false when nothing is mounted there.
static bool look_up_mount(const MountRoot* root, const char* path, const Mountinfo* mounts,
                          bool* readonly)
{
    const MountinfoEntry* mount = share_mount_find(root, path, mounts);
    if (mount == nullptr)
        return false;
    *readonly = mount->readonly;
    return true;
}

// Whether all of the share could be read. Behind the end of a list somebody may stand who must not
// enter, and the number at its end may be the beginning of another's.
static bool is_whole(const Share* share, Notes* notes)
{
    if (share->cut == nullptr)
        return true;
    notes_add(notes, LOG_ERR, "share %s (%s) is withheld: %s is longer than what is read of it",
              share->name, share->identifier != nullptr ? share->identifier : "", share->cut);
    return false;
}

// Whether the share's users are right. The service leaves out what is no user id, and an empty list
// lets everybody in: so the share waits until somebody has mended it.
static bool is_for_known_users(const Share* share, Notes* notes)
{
    char entry[share_user_size];
    const char* list = share_wrong_user(share, entry);
    if (list == nullptr)
        return true;
    notes_add(notes, LOG_ERR, "share %s (%s) is withheld: %s has %s, which is no user id",
              share->name, share->identifier != nullptr ? share->identifier : "", list, entry);
    return false;
}

// Whether the share can be exported; then `readonly` is set for a read-only mount.
static bool is_present(const ShareServer* server, const Share* share, const World* world,
                       Notes* notes, bool* readonly)
{
    const char* fault = server->path_fault(share->path);
    if (fault != nullptr) {
        notes_add(notes, LOG_WARNING, "share %s is left out: its path holds %s: %s", share->name,
                  fault, share->path);
        return false;
    }
    const bool wants_mount = share_mount_is_wanted(&world->root, share->path);
    if (wants_mount ? look_up_mount(&world->root, share->path, world->mounts.get(), readonly)
                    : look_at_directory(share->path, readonly))
        return true;
    notes_add(notes, LOG_INFO, "share %s (%s) is withdrawn: %s is %s", share->name,
              share->identifier != nullptr ? share->identifier : "", share->path,
              wants_mount ? "not mounted" : "no directory");
    return false;
}

static const char* filesystem_of(const Share* share, const World* world)
{
    const Mountinfo* mounts = world->mounts.get();
    const MountinfoEntry* mount = share_mount_is_wanted(&world->root, share->path)
                                      ? share_mount_find(&world->root, share->path, mounts)
                                      : mountinfo_find(mounts, share->path);
    return mount != nullptr ? mount->type : "";
}

// Fills `present` with the shares that can be exported. Returns their number.
static size_t select_present(const ShareServer* server, const World* world, Notes* notes,
                             ExportedShare* present)
{
    const ShareTable* table = world->table.get();
    size_t count = 0;
    for (size_t i = 0; i < table->count; i++) {
        const Share* share = &table->shares[i];
        bool readonly = false;
        if (!is_whole(share, notes) || !is_for_known_users(share, notes) ||
            !is_present(server, share, world, notes, &readonly))
            continue;
        if (readonly && !share->readonly)
            notes_add(notes, LOG_INFO, "share %s is read-only: %s is mounted so", share->name,
                      share->path);
        present[count++] = {.share = share,
                            .name = nullptr,
                            .readonly_mount = readonly,
                            .filesystem = filesystem_of(share, world)};
    }
    return count;
}

// ---- the text ----

// Names the shares and writes the text. Returns 0 or -ENOMEM.
static int write_text(const Bridge* bridge, ExportedShare* shares, size_t count, Notes* notes,
                      char** text)
{
    MemGuard<ShareName> names(static_cast<ShareName*>(calloc(count + 1, sizeof(ShareName))));
    if (!names)
        return -ENOMEM;
    for (size_t i = 0; i < count; i++)
        names.get()[i].original = shares[i].share->name;
    share_names_map(&bridge->server->names, names.get(), count, notes);
    for (size_t i = 0; i < count; i++)
        shares[i].name = names.get()[i].exported;
    const RightsSettings settings = {.administrator = bridge->config->administrator,
                                     .guest = bridge->config->guest,
                                     .forceuser = bridge->config->forceuser,
                                     .own = bridge->config->own,
                                     .user_name = user_name,
                                     .user_fits = bridge->server->keys.user_fits};
    return share_list_make(bridge->server, shares, count, &settings, notes, text);
}

// Returns 0; -ENOMEM; another negated errno.
static int look_at_mounts(const Bridge* bridge, World* world)
{
    const int result = mountinfo_load(mountinfo_path, world->mounts.out());
    if (result != 0)
        return result;
    // A mount root that does not exist has no mounts below it.
    world->resolved.reset(realpath(bridge->mountpath, nullptr));
    if (!world->resolved && errno == ENOMEM)
        return -ENOMEM;
    world->root = {.configured = bridge->mountpath,
                   .resolved = world->resolved ? world->resolved.get() : bridge->mountpath};
    return 0;
}

static int make_from_world(const Bridge* bridge, const World* world, Notes* notes, char** text)
{
    const ShareTable* table = world->table.get();
    MemGuard<ExportedShare> shares(
        static_cast<ExportedShare*>(calloc(table->count + 1, sizeof(ExportedShare))));
    if (!shares)
        return -ENOMEM;
    const char* forced = bridge->config->forceuser;
    size_t count = 0;
    if (forced[0] != '\0' && !is_known_user(forced))
        notes_add(notes, LOG_ERR, "there is no user %s (forceuser): nothing is exported", forced);
    else
        count = select_present(bridge->server, world, notes, shares.get());
    return write_text(bridge, shares.get(), count, notes, text);
}

// Reads the share file; it counts as empty if it cannot be read. Returns 0 or -ENOMEM.
static int load_share_file(const char* path, Notes* notes, IniDoc** doc)
{
    const int result = ini_doc_load(path, doc);
    if (result != -EIO)
        return result;
    notes_add(notes, LOG_WARNING, "share file %s cannot be read: nothing is exported", path);
    return ini_doc_parse("", 0, doc);
}

static int read_shares(const Bridge* bridge, Notes* notes, ShareTable** table)
{
    IniDocGuard doc;
    const int result = load_share_file(bridge->sharefile, notes, doc.out());
    return result == 0 ? shares_read(doc.get(), notes, table) : result;
}

static int make_text(const Bridge* bridge, Notes* notes, World* world, char** text)
{
    int result = read_shares(bridge, notes, world->table.out());
    if (result == 0)
        result = look_at_mounts(bridge, world);
    return result == 0 ? make_from_world(bridge, world, notes, text) : result;
}

// Logs a failure to make a text. Returns it.
static int tell_failure(int result)
{
    if (result == -ENOMEM)
        return out_of_memory();
    VY_LOG(LOG_ERR, "%s cannot be read (%d), nothing is changed", mountinfo_path, -result);
    return result;
}

// Makes the text, and fills `world`.
static int make_told_text(Bridge* bridge, World* world, char** text)
{
    Notes notes = {};
    const NotesGuard held(&notes);
    const int result = make_text(bridge, &notes, world, text);
    if (result != 0)
        return tell_failure(result);
    notes_new(&notes, &bridge->told, log_note);
    notes_move(&bridge->told, &notes);
    return 0;
}

int bridge_make_text(Bridge* bridge, char** text)
{
    World world;
    return make_told_text(bridge, &world, text);
}

// ---- the file ----

// Reads the list that stands; empty without one. Returns 0 or -ENOMEM.
static int read_standing(const Bridge* bridge, MemGuard<char>* text)
{
    const int result = bridge->server->read(bridge->config, text->out());
    if (result == -ENOMEM)
        return -ENOMEM;
    if (result != 0)
        text->reset(strdup(""));
    return *text ? 0 : -ENOMEM;
}

// Makes what the server is to be told when one text replaces another. Returns 0 or -ENOMEM.
static int make_tasks(const ShareServer* server, const char* old_text, const char* new_text,
                      ServerTask** tasks)
{
    SectionListGuard closed;
    const int result = shares_to_close(old_text, new_text, server->harmless_lines, closed.out());
    return result == 0 ? server_tasks_make(server, closed.get(), tasks) : result;
}

// Replaces the list of shares and tells the server. Returns 0; -1, logged.
static int replace(Bridge* bridge, const char* old_text, const char* new_text)
{
    if (strcmp(old_text, new_text) == 0)
        return 0;
    ServerTasksGuard tasks; // made first, so that nothing changes when memory runs out
    if (make_tasks(bridge->server, old_text, new_text, tasks.out()) != 0) {
        (void)out_of_memory();
        return -1;
    }
    const int result = bridge->server->write(bridge->config, new_text);
    if (result == -ENOMEM)
        (void)out_of_memory();
    else if (result != 0)
        VY_LOG(LOG_ERR, "cannot write %s (%d)", bridge->config->includepath, -result);
    if (result != 0)
        return -1;
    VY_LOG(LOG_INFO, "%s is written", bridge->config->includepath);
    server_control_add(&bridge->control, tasks.take());
    return 0;
}

// Adds to the text what stands and must stay; `kept` is how many shares. Returns 0 or -ENOMEM.
static int keep_standing(Bridge* bridge, const World* world, const char* old_text,
                         MemGuard<char>* text, size_t* kept)
{
    if (bridge->adopting == nullptr ||
        !restart_is_recent(&bridge->restart, bridge->adopting, clock_now()))
        return 0;
    MemGuard<char> longer;
    const Believed believed = {.table = world->table.get(), .rules = &bridge->server->names};
    if (standing_keep(old_text, text->get(), &believed, &world->root, world->mounts.get(),
                      longer.out(), kept) != 0)
        return -ENOMEM;
    text->reset(longer.take());
    return 0;
}

int bridge_refresh(Bridge* bridge)
{
    World world;
    MemGuard<char> new_text;
    if (make_told_text(bridge, &world, new_text.out()) != 0)
        return -1;
    MemGuard<char> old_text;
    size_t kept = 0;
    if (read_standing(bridge, &old_text) != 0 ||
        keep_standing(bridge, &world, old_text.get(), &new_text, &kept) != 0) {
        (void)out_of_memory();
        return -1;
    }
    if (replace(bridge, old_text.get(), new_text.get()) != 0)
        return -1;
    bridge->keeps = kept > 0;
    return 0;
}

int bridge_mounts_changed(Bridge* bridge)
{
    World world;
    MemGuard<char> old_text;
    MemGuard<char> new_text;
    size_t dropped = 0;
    int result = look_at_mounts(bridge, &world);
    if (result == 0)
        result = read_standing(bridge, &old_text);
    if (result == 0)
        result = standing_drop(old_text.get(), &world.root, world.mounts.get(), new_text.out(),
                               &dropped);
    if (result != 0) {
        (void)tell_failure(result);
        return -1;
    }
    return dropped > 0 ? replace(bridge, old_text.get(), new_text.get()) : 0;
}

// ---- time ----

static int64_t earlier(int64_t a, int64_t b)
{
    return a < 0 || (b >= 0 && b < a) ? b : a;
}

// Believes the share file once the service has had its time. Returns the milliseconds until then.
static int64_t end_keeping(Bridge* bridge)
{
    const uint64_t now = clock_now();
    if (bridge->keeps && now >= bridge->restart.until && bridge_refresh(bridge) != 0)
        bridge->restart.until = now + retry_ms;
    return bridge->keeps ? static_cast<int64_t>(bridge->restart.until - now) : -1;
}

int64_t bridge_advance(Bridge* bridge)
{
    const int64_t keeping = end_keeping(bridge);
    return earlier(server_control_advance(&bridge->control), keeping);
}

void bridge_finish(Bridge* bridge)
{
    server_control_finish(&bridge->control);
}

// ---- the record ----

void bridge_init(Bridge* bridge, const ShareServer* server, const BridgeConfig* config,
                 const char* sharefile, const char* mountpath, const char* adopting)
{
    *bridge = {.server = server,
               .config = config,
               .sharefile = sharefile,
               .mountpath = mountpath,
               .adopting = adopting,
               .told = {},
               .control = {.server = server,
                           .config = config,
                           .limit_ms = server_limit_ms,
                           .tasks = nullptr},
               .restart = {},
               .keeps = false};
}

void bridge_clear(Bridge* bridge)
{
    notes_clear(&bridge->told);
    server_control_clear(&bridge->control);
}
