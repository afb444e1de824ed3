#include "core/evhook.h"

#include "lib/log.h"
#include "lib/process.h"

static constexpr char log_tag[] = "daemon";
static constexpr char hook_script[] = "/tmp/vyhotplugd-evhook.sh";
static constexpr int hook_timeout_ms = 60000;

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

int daemon_call_evhook(int code, const char* path)
{
    VY_LOG(LOG_ERR, "action %d mntpath (%p) %s", code, static_cast<const void*>(path),
           path != nullptr ? path : "(null)");
    if (path == nullptr || path[0] == '\0')
        return -1;
    const char* word = word_of(code);
    if (word == nullptr)
        return -1;
    char* const argv[] = {const_cast<char*>(hook_script), const_cast<char*>(word),
                          const_cast<char*>(path), nullptr};
    const pid_t pid = vy_fork_exec(hook_script, argv, nullptr, nullptr, nullptr);
    if (pid < 0)
        return pid;
    int status = 0;
    if (vy_wait(pid, 0, &status, hook_timeout_ms) != 0)
        return 0; // it goes on by itself; the run loop reaps it later
    return status;
}
