#include "mount/mtab.h"

#include "lib/guard.h"
#include "lib/platform.h"
#include "lib/sys.h"
#include "lib/trust.h"

#include <linux/magic.h>
#include <mntent.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>

static constexpr char table_file[] = "/etc/mtab";
static constexpr char temporary_file[] = "/tmp/mntent.tmp";
static constexpr int line_size = 512; // bytes of a line's texts; the C library cuts longer ones

static void table_release(FILE* table)
{
    (void)endmntent(table);
}

using TableGuard = Guard<FILE, table_release>;

// Whether the table is a link that leads into proc(5). Any other file, and what any other link
// leads to, is the daemon's to keep.
static bool belongs_to_kernel()
{
    struct stat status;
    struct statfs filesystem;
    return lstat(table_file, &status) == 0 && S_ISLNK(status.st_mode) &&
           statfs(table_file, &filesystem) == 0 &&
           static_cast<unsigned long>(filesystem.f_type) == PROC_SUPER_MAGIC;
}

// mntent's texts are writable by type, but addmntent only reads them.
static char* text(const char* constant)
{
    return const_cast<char*>(constant);
}

void mtab_append(const char* devnode, const char* mountpoint, const char* type, const char* options)
{
    if (belongs_to_kernel())
        return;
    const TableGuard table(setmntent(table_file, "a"));
    if (!table)
        return;
    mntent line = {};
    line.mnt_fsname = text(devnode);
    line.mnt_dir = text(mountpoint);
    line.mnt_type = text(type);
    line.mnt_opts = text(options);
    (void)addmntent(table.get(), &line); // the mount itself stands, noted or not
}

// Copies all lines but those of that node at that directory. Returns -1 when one cannot be written.
static int copy_without(FILE* from, FILE* to, const char* devnode, const char* mountpoint)
{
    mntent line = {};
    char texts[line_size];
    while (getmntent_r(from, &line, texts, sizeof texts) != nullptr) {
        if (strcmp(line.mnt_fsname, devnode) == 0 && strcmp(line.mnt_dir, mountpoint) == 0)
            continue;
        if (addmntent(to, &line) != 0)
            return -1;
    }
    // Some C libraries stop at a line that they cannot take, as they do at the end. Neither that
    // nor a full disk may cost the other lines.
    const bool complete = feof(from) != 0 && ferror(from) == 0;
    return complete && stream_flush(to) == 0 ? 0 : -1;
}

void mtab_remove(const char* devnode, const char* mountpoint, bool strict)
{
    if (belongs_to_kernel())
        return;
    // A stream of one's own is as good: setmntent(3) does nothing but open the file.
    TableGuard copy(strict ? trust_create(temporary_file) : setmntent(temporary_file, "w"));
    if (!copy)
        return;
    TableGuard table(setmntent(table_file, "r+"));
    if (!table)
        return;
    if (copy_without(table.get(), copy.get(), devnode, mountpoint) != 0)
        return;
    table.reset(nullptr);
    copy.reset(nullptr);
    (void)sys_rename(temporary_file, table_file); // a stale line is all that a failure leaves
}
