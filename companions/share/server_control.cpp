#include "share/server_control.h"

#include "common/clock.h"
#include "lib/log.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

// Kept from the time when Samba was the only server: whoever searches the log knows this name.
static constexpr char log_tag[] = "samba_control";
static constexpr size_t at_once = 8; // programs that run at the same time

namespace {

enum class TaskState : uint8_t {
    waiting,
    running,
    settling, // a reload that has ended, while the server may still go by what it knew
    early,    // a closing that has ended before the reload has
};

} // namespace

struct ServerTask {
    ServerTask* next;
    pid_t pid;
    int64_t deadline;
    TaskState state;
    bool again;      // a closing for the second time
    bool reload;     // else the share is closed
    unsigned others; // that go with it, where a server closes all
    char share[];
};

// ---- tasks ----

// Returns owned; null when memory runs out.
static ServerTask* make_task(bool reload, const char* share)
{
    auto* task = static_cast<ServerTask*>(calloc(1, sizeof(ServerTask) + strlen(share) + 1));
    if (task == nullptr)
        return nullptr;
    task->reload = reload;
    str_cpy(task->share, share);
    return task;
}

int server_tasks_make(const ShareServer* server, const vylist* closed, ServerTask** tasks)
{
    // The reload comes first: as a rule it has ended first, then.
    ServerTasksGuard made(make_task(true, ""));
    if (!made)
        return -ENOMEM;
    ServerTask* last = made.get();
    for (const vylist_node* node = closed->next; node != vylist_end(closed); node = node->next) {
        if (server->closes_all && !last->reload) {
            last->others++;
            continue;
        }
        last->next = make_task(false, static_cast<const char*>(node->data));
        if (last->next == nullptr)
            return -ENOMEM;
        last = last->next;
    }
    *tasks = made.take();
    return 0;
}

void server_tasks_free(ServerTask* tasks)
{
    while (tasks != nullptr) {
        ServerTask* next = tasks->next;
        free(tasks);
        tasks = next;
    }
}

void server_control_clear(ServerControl* control)
{
    server_tasks_free(control->tasks);
    control->tasks = nullptr;
}

// Whether its end, or that of its time, is waited for.
static bool is_under_way(const ServerTask* task)
{
    return task->state == TaskState::running || task->state == TaskState::settling;
}

static size_t count_under_way(const ServerControl* control)
{
    size_t count = 0;
    for (const ServerTask* task = control->tasks; task != nullptr; task = task->next)
        count += is_under_way(task) ? 1 : 0;
    return count;
}

static bool is_reloading(const ServerControl* control)
{
    for (const ServerTask* task = control->tasks; task != nullptr; task = task->next) {
        if (task->reload)
            return true;
    }
    return false;
}

// Takes the task at `place` out, and frees it.
static void drop(ServerTask** place)
{
    ServerTask* task = *place;
    *place = task->next;
    free(task);
}

// ---- their beginning ----

static void tell_closing(const ServerTask* task)
{
    if (task->reload || task->again)
        return;
    if (task->others > 0)
        VY_LOG(LOG_INFO, "close share %s and %u more", task->share, task->others);
    else
        VY_LOG(LOG_INFO, "close share %s", task->share);
}

// Returns false when it cannot be started. Without a process it is done already.
static bool start(const ServerControl* control, ServerTask* task)
{
    tell_closing(task);
    const ShareServer* server = control->server;
    task->pid = task->reload ? server->reload(control->config)
                             : server->close(control->config, task->share);
    if (task->pid < 0) {
        VY_LOG(LOG_ERR, "cannot start %s (%d)", server->control_name, static_cast<int>(-task->pid));
        return false;
    }
    task->state = TaskState::running;
    task->deadline = static_cast<int64_t>(clock_now()) + control->limit_ms;
    return true;
}

// ---- their end ----

static void tell_end(const ShareServer* server, pid_t ended, int status)
{
    if (ended < 0)
        VY_LOG(LOG_ERR, "cannot wait for %s (%d)", server->control_name, static_cast<int>(-ended));
    else if (status != 0) // probably no server runs
        VY_LOG(LOG_INFO, "%s failed (%d)", server->control_name,
               WIFEXITED(status) ? WEXITSTATUS(status) : -1);
}

// Whether the program has ended; it is killed where its time is over.
static bool has_ended(const ServerControl* control, const ServerTask* task, int64_t now)
{
    if (task->pid == 0)
        return true;
    int status = 0;
    const pid_t ended = sys_waitpid(task->pid, &status, WNOHANG);
    if (ended != 0) {
        tell_end(control->server, ended, status);
        return true;
    }
    if (now < task->deadline)
        return false;
    VY_LOG(LOG_WARNING, "%s does not end, it is killed", control->server->control_name);
    (void)sys_kill(task->pid, SIGKILL);
    (void)sys_waitpid(task->pid, &status, 0);
    return true;
}

// What becomes of a task. Returns false when it is done with.
static bool goes_on(const ServerControl* control, ServerTask* task, int64_t now)
{
    if (task->state == TaskState::settling)
        return now < task->deadline;
    if (task->state != TaskState::running || !has_ended(control, task, now))
        return true;
    if (task->reload && control->server->settle_ms > 0) {
        task->state = TaskState::settling;
        task->deadline = now + control->server->settle_ms;
        return true;
    }
    if (task->reload || task->again || !is_reloading(control))
        return false;
    task->state = TaskState::early;
    return true;
}

static void reap(ServerControl* control)
{
    const auto now = static_cast<int64_t>(clock_now());
    ServerTask** place = &control->tasks;
    while (*place != nullptr) {
        if (goes_on(control, *place, now))
            place = &(*place)->next;
        else
            drop(place);
    }
}

// Once nothing is reloaded any more, what was closed before is closed again.
static void settle_early(ServerControl* control)
{
    if (is_reloading(control))
        return;
    for (ServerTask* task = control->tasks; task != nullptr; task = task->next) {
        if (task->state != TaskState::early)
            continue;
        task->state = TaskState::waiting;
        task->again = true;
    }
}

// ---- all of them ----

static void start_waiting(ServerControl* control)
{
    size_t running = count_under_way(control);
    ServerTask** place = &control->tasks;
    while (*place != nullptr && running < at_once) {
        ServerTask* task = *place;
        if (task->state != TaskState::waiting) {
            place = &task->next;
        } else if (start(control, task)) {
            running++;
            place = &task->next;
        } else {
            drop(place);
        }
    }
}

static int64_t time_left(const ServerControl* control)
{
    int64_t nearest = -1;
    const auto now = static_cast<int64_t>(clock_now());
    for (const ServerTask* task = control->tasks; task != nullptr; task = task->next) {
        if (!is_under_way(task))
            continue;
        const int64_t left = task->deadline > now ? task->deadline - now : 0;
        nearest = nearest < 0 || left < nearest ? left : nearest;
    }
    return nearest;
}

// Whether nothing can be done now but to wait.
static bool has_to_wait(const ServerControl* control)
{
    bool waits = false;
    for (const ServerTask* task = control->tasks; task != nullptr; task = task->next) {
        if (task->state == TaskState::running && task->pid == 0)
            return false;
        waits |= is_under_way(task);
    }
    return waits;
}

int64_t server_control_advance(ServerControl* control)
{
    do {
        reap(control);
        settle_early(control);
        start_waiting(control);
        // What could not be started may have been the reload that others waited for, and what is
        // done without a program is done already.
    } while (control->tasks != nullptr && !has_to_wait(control));
    return time_left(control);
}

void server_control_add(ServerControl* control, ServerTask* tasks)
{
    ServerTask** end = &control->tasks;
    while (*end != nullptr)
        end = &(*end)->next;
    *end = tasks;
    (void)server_control_advance(control);
}

// Waits until a child ends, but no longer than that.
static void wait_for_child(int64_t milliseconds)
{
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    const timespec time = {.tv_sec = static_cast<time_t>(milliseconds / 1000),
                           .tv_nsec = static_cast<long>(milliseconds % 1000 * 1000000)};
    (void)sigtimedwait(&child, nullptr, &time); // the caller looks at the children in any case
}

void server_control_finish(ServerControl* control)
{
    int64_t left = 0;
    while ((left = server_control_advance(control)) >= 0)
        wait_for_child(left);
}
