#include "core/evhook.h"

#include "lib/guard.h"
#include "lib/log.h"
#include "lib/process.h"
#include "lib/trust.h"

#include <errno.h>
#include <stdio.h>
#include <unistd.h>

static constexpr char log_tag[] = "daemon";
static constexpr char hook_script[] = "/tmp/vyhotplugd-evhook.sh";
static constexpr int hook_timeout_ms = 60000;
static constexpr int missing_hook_status = 1; // as of a child that cannot be executed

// The hook's first argument; null for an unknown event.
static const char* word_of(int code)
{
    switch (code) {
    case HOTPLUG_EVENT_ADD:
    case HOTPLUG_EVENT_MOUNT:
        return "mount";
    case HOTPLUG_EVENT_REMOVE:
    case HOTPLUG_EVENT_UNMOUNT:
        return "unmount";
    default:
        return nullptr;
    }
}

// Runs the program at `file` as the hook and waits for it.
static int run_hook(const char* file, const char* word, const char* path)
{
    char* const argv[] = {const_cast<char*>(hook_script), const_cast<char*>(word),
                          const_cast<char*>(path), nullptr};
    const pid_t pid = vy_fork_exec(file, argv, nullptr, nullptr, nullptr);
    if (pid < 0)
        return pid;
    int status = 0;
    if (vy_wait(pid, 0, &status, hook_timeout_ms) != 0)
        return 0; // it goes on by itself; the run loop reaps it later
    return status;
}

// Opens the hook, looks whether it is root's, and runs what was opened.
static int run_trusted_hook(DaemonCtx* ctx, const char* word, const char* path)
{
    const FdGuard hook(trust_open(hook_script));
    if (hook.get() == -ENOENT)
        return missing_hook_status;
    if (hook.get() < 0) {
        if ((ctx->told & TOLD_HOOK) == 0)
            VY_LOG(LOG_ERR, "Error - %s is not run (err=%d)", hook_script, -hook.get());
        ctx->told |= TOLD_HOOK;
        return -1;
    }
    ctx->told &= static_cast<uint8_t>(~TOLD_HOOK);
    // By this process's descriptor: the child's own ones are closed, and a script's interpreter
    // opens the path once more.
    char file[64];
    (void)snprintf(file, sizeof file, "/proc/%d/fd/%d", static_cast<int>(getpid()), hook.get());
    return run_hook(file, word, path);
}

int daemon_call_evhook(int code, const char* path, DaemonCtx* ctx)
{
    VY_LOG(LOG_ERR, "action %d mntpath (%p) %s", code, static_cast<const void*>(path),
           path != nullptr ? path : "(null)");
    if (path == nullptr || path[0] == '\0')
        return -1;
    const char* word = word_of(code);
    if (word == nullptr)
        return -1;
    const bool strict = ctx != nullptr && is_strict(ctx);
    return strict ? run_trusted_hook(ctx, word, path) : run_hook(hook_script, word, path);
}
