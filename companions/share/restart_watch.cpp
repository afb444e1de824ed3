#include "share/restart_watch.h"

#include "lib/process.h"

#include <sys/stat.h>

static bool is_same(const RestartWatch* watch, const struct stat& status)
{
    return watch->file == status.st_ino && watch->written.tv_sec == status.st_mtim.tv_sec &&
           watch->written.tv_nsec == status.st_mtim.tv_nsec;
}

bool restart_is_recent(RestartWatch* watch, const char* pid_file, uint64_t now)
{
    struct stat status = {};
    const bool there = stat(pid_file, &status) == 0;
    if (watch->until == 0 || !is_same(watch, status))
        watch->until = now + restart_ms;
    watch->file = status.st_ino;
    watch->written = status.st_mtim;
    // The number may be another's by now: then a service that has ended is taken for a running one.
    return now < watch->until && there && vy_sigsend_pid_file(pid_file, 0) == 0;
}
