#include "records/volume_label.h"

#include "config/filesystems.h"
#include "lib/guard.h"
#include "lib/process.h"
#include "lib/str.h"

#include <fcntl.h>

static constexpr int tool_timeout_ms = 20000;

static int fat_labels_on = 1;
static int all_labels_on = 0;

int conf_dir_set_fat_vlabel(int enable)
{
    fat_labels_on = enable != 0 ? 1 : 0;
    return 0;
}

void conf_dir_set_all_vlabels(int enable)
{
    all_labels_on = enable != 0 ? 1 : 0;
}

// Runs a label tool and takes what it prints. Returns the bytes read, 0 with an empty text when the
// tool fails, a negated errno when it cannot be started or read.
static int read_tool(char* const argv[], char* buffer, int size)
{
    int out_fd = -1;
    const pid_t pid = vy_fork_exec(argv[0], argv, nullptr, &out_fd, nullptr);
    if (pid < 0)
        return pid;
    const FdGuard out(out_fd);
    int status = -1;
    (void)vy_wait(pid, VY_WAIT_INTERRUPT, &status, tool_timeout_ms); // the status tells it all
    if (status != 0) {
        buffer[0] = '\0';
        return 0;
    }
    // What it printed is in the pipe by now; a child of its own that holds the pipe is not waited
    // for.
    (void)fcntl(out.get(), F_SETFL, O_NONBLOCK);
    const ssize_t count = str_read(out.get(), buffer, static_cast<size_t>(size) - 1, 0);
    buffer[count < 0 ? 0 : count] = '\0';
    return static_cast<int>(count);
}

// execvp wants its texts writable by type, but never writes to them.
static char* text(const char* constant)
{
    return const_cast<char*>(constant);
}

int conf_dir_get_vlabel_vfat(const MountEntry* entry, char* buffer, int size)
{
    if (fat_labels_on == 0)
        return -1;
    char* const argv[] = {text("mlabel"), text("-i"), entry->devnode, text("-n"), nullptr};
    return read_tool(argv, buffer, size);
}

int conf_dir_get_vlabel_ntfs(const MountEntry* entry, char* buffer, int size)
{
    char* const argv[] = {text("ntfsvlabel"), entry->devnode, text("-n"), nullptr};
    return read_tool(argv, buffer, size);
}

// By the tool that reads the label of any filesystem.
static int read_any_label(const MountEntry* entry, char* buffer, int size)
{
    if (entry->fstype == CONF_DEV_FS_FAT && fat_labels_on == 0)
        return -1;
    char* const argv[] = {text("vylabel"), entry->devnode, nullptr};
    return read_tool(argv, buffer, size);
}

static FilesystemLabel label_kind(const MountEntry* entry)
{
    const Filesystem* filesystem = filesystem_of(entry->fstype);
    return filesystem != nullptr ? filesystem->label : FilesystemLabel::none;
}

static int read_label(const MountEntry* entry, char* buffer, int size)
{
    if (all_labels_on != 0)
        return read_any_label(entry, buffer, size);
    switch (label_kind(entry)) {
    case FilesystemLabel::ntfs:
        return conf_dir_get_vlabel_ntfs(entry, buffer, size);
    case FilesystemLabel::fat:
        return conf_dir_get_vlabel_vfat(entry, buffer, size);
    case FilesystemLabel::none:
        break;
    }
    return -1;
}

int conf_dir_get_vlabel(const MountEntry* entry, char* buffer, int size)
{
    const int count = read_label(entry, buffer, size);
    if (count < 1)
        return count;
    if (buffer[count - 1] == '\n')
        buffer[count - 1] = '\0';
    return 0;
}
