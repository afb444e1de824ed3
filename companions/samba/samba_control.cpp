#include "samba/samba_control.h"

#include "lib/log.h"
#include "lib/process.h"
#include "lib/sys.h"

#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/wait.h>

static constexpr char log_tag[] = "samba_control";
static constexpr size_t at_once = 8; // programs that run at the same time

namespace {

// Programs that were started together.
struct Batch {
    pid_t pids[at_once];
    size_t count;
};

} // namespace

// Milliseconds of the monotonic clock; 0 when it cannot be read.
static int64_t now_ms()
{
    timespec now = {};
    if (sys_clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return 0;
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// execvp takes strings of a writable type, but never writes to them.
static char* text(const char* constant)
{
    return const_cast<char*>(constant);
}

// Waits until a child ends, but no longer than that.
static void wait_for_child(int64_t milliseconds)
{
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    const timespec time = {.tv_sec = static_cast<time_t>(milliseconds / 1000),
                           .tv_nsec = static_cast<long>(milliseconds % 1000 * 1000000)};
    (void)sigtimedwait(&child, nullptr, &time); // the caller looks at the child in any case
}

// Waits until the program ends; kills it at the deadline.
static void finish(pid_t pid, int64_t deadline)
{
    int status = 0;
    pid_t ended = 0;
    while ((ended = sys_waitpid(pid, &status, WNOHANG)) == 0) {
        const int64_t left = deadline - now_ms();
        if (left <= 0) {
            VY_LOG(LOG_WARNING, "smbcontrol does not end, it is killed");
            (void)sys_kill(pid, SIGKILL);
            (void)sys_waitpid(pid, &status, 0);
            return;
        }
        wait_for_child(left);
    }
    if (ended < 0)
        VY_LOG(LOG_ERR, "cannot wait for smbcontrol (%d)", static_cast<int>(-ended));
    else if (status != 0) // probably no Samba runs
        VY_LOG(LOG_INFO, "smbcontrol failed (%d)", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
}

static void finish_all(Batch* batch, int64_t limit_ms)
{
    const int64_t deadline = now_ms() + limit_ms;
    for (size_t i = 0; i < batch->count; i++)
        finish(batch->pids[i], deadline);
    batch->count = 0;
}

static void start(Batch* batch, const char* program, char* const argv[])
{
    const pid_t pid = vy_fork_exec(program, argv, nullptr, nullptr, nullptr);
    if (pid < 0) {
        VY_LOG(LOG_ERR, "cannot start %s (%d)", program, static_cast<int>(-pid));
        return;
    }
    batch->pids[batch->count++] = pid;
}

// Comes first: clients that reconnect must find the new configuration.
static void reload(const char* program, int64_t limit_ms)
{
    char* const argv[] = {text(program), text("smbd"), text("reload-config"), nullptr};
    Batch batch = {};
    start(&batch, program, argv);
    finish_all(&batch, limit_ms);
}

void samba_tell(const char* program, const vylist* closed, int64_t limit_ms)
{
    reload(program, limit_ms);
    Batch batch = {};
    for (const vylist_node* node = closed->next; node != vylist_end(closed); node = node->next) {
        // A name may begin with a hyphen.
        char* const argv[] = {text(program),
                              text("smbd"),
                              text("close-share"),
                              text("--"),
                              static_cast<char*>(node->data),
                              nullptr};
        VY_LOG(LOG_INFO, "close share %s", static_cast<const char*>(node->data));
        start(&batch, program, argv);
        if (batch.count == at_once)
            finish_all(&batch, limit_ms);
    }
    finish_all(&batch, limit_ms);
}
