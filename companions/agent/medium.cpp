#include "agent/medium.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

static constexpr char reread[] = "reread";
static constexpr char touch[] = "touch";
static constexpr char busy[] = "busy";
static constexpr char done[] = "done";

static constexpr size_t path_size = block_name_size + 8;

static void path_of(const BlockName& disk, char (&path)[path_size])
{
    (void)snprintf(path, sizeof path, "/dev/%.*s", disk.disk_length, disk.text);
}

// Returns owned: a descriptor for the disk; -1.
static int open_disk(const char* path, int flags)
{
    return open(path, O_RDONLY | O_CLOEXEC | flags);
}

// In the child: what is asked, and the disk's path.
static void answer(char* const argv[])
{
    const bool anew = strcmp(argv[0], reread) == 0;
    const int fd = open_disk(argv[1], anew ? O_NONBLOCK : 0); // read anew without a medium too
    const bool in_use = anew && fd >= 0 && ioctl(fd, BLKRRPART) != 0 && errno == EBUSY;
    (void)close(fd); // before the answer, for that may hang as well
    if (write(STDOUT_FILENO, in_use ? busy : done, sizeof done - 1) < 0)
        _exit(1); // nobody listens any more
}

void medium_ask(MediumLook* look, const BlockName& disk, MediumQuestion question)
{
    char kind[sizeof reread];
    char path[path_size];
    (void)snprintf(kind, sizeof kind, "%s", question == MEDIUM_IN_USE ? reread : touch);
    path_of(disk, path);
    char* const argv[] = {kind, path, nullptr};
    tool_start_work(&look->tool, answer, argv, look->printed, sizeof look->printed);
}

MediumAnswer medium_answer(MediumLook* look)
{
    tool_advance(&look->tool, 0); // it has all the time
    if (look->tool.state == ToolState::running)
        return MEDIUM_SILENT;
    if (look->printed[0] == '\0') // however it ended: what it has printed counts
        return MEDIUM_UNASKED;
    return strcmp(look->printed, busy) == 0 ? MEDIUM_BUSY : MEDIUM_READ;
}

void medium_drop(MediumLook* look)
{
    (void)medium_answer(look); // of one that has ended the number may be another's by now
    tool_stop(&look->tool);
}

void medium_touch(const BlockName& disk)
{
    char path[path_size];
    path_of(disk, path);
    const FdGuard fd(open_disk(path, 0));
}
