#include "samba/bridge.h"

#include "common/mountinfo.h"
#include "config/ini.h"
#include "lib/log.h"
#include "lib/str.h"
#include "samba/include_file.h"
#include "samba/include_text.h"
#include "samba/samba_control.h"
#include "samba/share.h"
#include "samba/share_mount.h"
#include "samba/share_name.h"
#include "samba/shares_to_close.h"

#include <errno.h>
#include <limits.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

static constexpr char log_tag[] = "bridge";
static constexpr size_t account_size = 16384; // bytes of one passwd entry's strings

static void log_note(int priority, const char* message)
{
    VY_LOG(priority, "%s", message);
}

static int out_of_memory()
{
    VY_LOG(LOG_ERR, "out of memory, nothing is changed");
    return -ENOMEM;
}

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

// Whether the share can be exported; then `readonly` is set for a read-only mount.
static bool is_present(const Share* share, const MountRoot* root, const Mountinfo* mounts,
                       Notes* notes, bool* readonly)
{
    const char* fault = include_path_fault(share->path);
    if (fault != nullptr) {
        notes_add(notes, LOG_WARNING, "share %s is left out: its path holds %s: %s", share->name,
                  fault, share->path);
        return false;
    }
    const bool wants_mount = share_mount_is_wanted(root, share->path);
    if (wants_mount ? look_up_mount(root, share->path, mounts, readonly)
                    : look_at_directory(share->path, readonly))
        return true;
    notes_add(notes, LOG_INFO, "share %s (%s) is withdrawn: %s is %s", share->name,
              share->identifier != nullptr ? share->identifier : "", share->path,
              wants_mount ? "not mounted" : "no directory");
    return false;
}

// Fills `present` with the shares that can be exported. Returns their number.
static size_t select_present(const ShareTable* table, const MountRoot* root,
                             const Mountinfo* mounts, Notes* notes, ExportedShare* present)
{
    size_t count = 0;
    for (size_t i = 0; i < table->count; i++) {
        const Share* share = &table->shares[i];
        bool readonly = false;
        if (!is_present(share, root, mounts, notes, &readonly))
            continue;
        if (readonly && !share->readonly)
            notes_add(notes, LOG_INFO, "share %s is read-only: %s is mounted so", share->name,
                      share->path);
        present[count++] = {.share = share, .name = nullptr, .readonly_mount = readonly};
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
    share_names_map(names.get(), count, notes);
    for (size_t i = 0; i < count; i++)
        shares[i].name = names.get()[i].exported;
    const IncludeSettings settings = {.administrator = bridge->config->administrator,
                                      .guest = bridge->config->guest,
                                      .forceuser = bridge->config->forceuser,
                                      .user_name = user_name};
    return include_text_make(shares, count, &settings, notes, text);
}

static int make_from_table(const Bridge* bridge, const ShareTable* table, Notes* notes, char** text)
{
    MountinfoGuard mounts;
    const int result = mountinfo_load(mountinfo_path, mounts.out());
    if (result != 0)
        return result;
    char resolved[PATH_MAX];
    // A mount root that does not exist has no mounts below it.
    const bool found = realpath(bridge->mountpath, resolved) != nullptr;
    const MountRoot root = {.configured = bridge->mountpath,
                            .resolved = found ? resolved : bridge->mountpath};
    MemGuard<ExportedShare> shares(
        static_cast<ExportedShare*>(calloc(table->count + 1, sizeof(ExportedShare))));
    if (!shares)
        return -ENOMEM;
    const size_t count = select_present(table, &root, mounts.get(), notes, shares.get());
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

static int make_text(const Bridge* bridge, Notes* notes, char** text)
{
    IniDocGuard doc;
    int result = load_share_file(bridge->sharefile, notes, doc.out());
    if (result != 0)
        return result;
    ShareTableGuard table;
    result = shares_read(doc.get(), notes, table.out());
    if (result != 0)
        return result;
    return make_from_table(bridge, table.get(), notes, text);
}

int bridge_make_text(Bridge* bridge, char** text)
{
    Notes notes = {};
    const NotesGuard held(&notes);
    const int result = make_text(bridge, &notes, text);
    if (result == -ENOMEM)
        return out_of_memory();
    if (result != 0) {
        VY_LOG(LOG_ERR, "%s cannot be read (%d), nothing is changed", mountinfo_path, -result);
        return result;
    }
    notes_new(&notes, &bridge->told, log_note);
    notes_move(&bridge->told, &notes);
    return 0;
}

// ---- the file ----

// Replaces the include file and tells Samba. Returns 0; -1, logged.
static int replace(const Bridge* bridge, const char* old_text, const char* new_text)
{
    SectionListGuard closed; // found first, so that nothing changes when memory runs out
    if (shares_to_close(old_text, new_text, closed.out()) != 0) {
        (void)out_of_memory();
        return -1;
    }
    const int result = include_file_write(bridge->config->includepath, new_text);
    if (result != 0) {
        VY_LOG(LOG_ERR, "cannot write %s (%d)", bridge->config->includepath, -result);
        return -1;
    }
    VY_LOG(LOG_INFO, "%s is written", bridge->config->includepath);
    samba_tell(bridge->config->smbcontrol, closed.get(), samba_limit_ms);
    return 0;
}

int bridge_refresh(Bridge* bridge)
{
    MemGuard<char> new_text;
    if (bridge_make_text(bridge, new_text.out()) != 0)
        return -1;
    MemGuard<char> old_text;
    const int result = include_file_read(bridge->config->includepath, old_text.out());
    if (result == -ENOMEM) {
        (void)out_of_memory();
        return -1;
    }
    if (old_text && strcmp(old_text.get(), new_text.get()) == 0)
        return 0;
    return replace(bridge, old_text ? old_text.get() : "", new_text.get());
}

void bridge_clear(Bridge* bridge)
{
    notes_clear(&bridge->told);
}
