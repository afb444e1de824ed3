#include "samba/samba_control.h"

#include "common/clock.h"
#include "lib/log.h"
#include "lib/process.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

static constexpr char log_tag[] = "samba_control";
static constexpr size_t at_once = 8; // programs that run at the same time

namespace {

enum class TaskState : uint8_t {
    waiting,
    running,
    early, // a closing that has ended before the reload has
};

} // namespace

struct SambaTask {
    SambaTask* next;
    pid_t pid;
    int64_t deadline;
    TaskState state;
    bool again;  // a closing for the second time
    bool reload; // else the share is closed
    char share[];
};

// ---- tasks ----

// Returns owned; null when memory runs out.
static SambaTask* make_task(bool reload, const char* share)
{
    auto* task = static_cast<SambaTask*>(calloc(1, sizeof(SambaTask) + strlen(share) + 1));
    if (task == nullptr)
        return nullptr;
    task->reload = reload;
    str_cpy(task->share, share);
    return task;
}

int samba_tasks_make(const vylist* closed, SambaTask** tasks)
{
    // The reload comes first: as a rule it has ended first, then.
    SambaTasksGuard made(make_task(true, ""));
    if (!made)
        return -ENOMEM;
    SambaTask* last = made.get();
    for (const vylist_node* node = closed->next; node != vylist_end(closed); node = node->next) {
        last->next = make_task(false, static_cast<const char*>(node->data));
        if (last->next == nullptr)
            return -ENOMEM;
        last = last->next;
    }
    *tasks = made.take();
    return 0;
}

void samba_tasks_free(SambaTask* tasks)
{
    while (tasks != nullptr) {
        SambaTask* next = tasks->next;
        free(tasks);
        tasks = next;
    }
}

void samba_control_clear(SambaControl* control)
{
    samba_tasks_free(control->tasks);
    control->tasks = nullptr;
}

static size_t count_running(const SambaControl* control)
{
    size_t count = 0;
    for (const SambaTask* task = control->tasks; task != nullptr; task = task->next)
        count += task->state == TaskState::running ? 1 : 0;
    return count;
}

static bool is_reloading(const SambaControl* control)
{
    for (const SambaTask* task = control->tasks; task != nullptr; task = task->next) {
        if (task->reload)
            return true;
    }
    return false;
}

// ---- their beginning ----

// execvp takes strings of a writable type, but never writes to them.
static char* text(const char* constant)
{
    return const_cast<char*>(constant);
}

static pid_t run(const char* program, SambaTask* task)
{
    char* const reload[] = {text(program), text("smbd"), text("reload-config"), nullptr};
    // A name may begin with a hyphen.
    char* const close[] = {text(program), text("smbd"), text("close-share"),
                           text("--"),    task->share,  nullptr};
    return vy_fork_exec(program, task->reload ? reload : close, nullptr, nullptr, nullptr);
}

// Returns false when it cannot be started.
static bool start(const SambaControl* control, SambaTask* task)
{
    if (!task->reload && !task->again)
        VY_LOG(LOG_INFO, "close share %s", task->share);
    task->pid = run(control->program, task);
    if (task->pid < 0) {
        VY_LOG(LOG_ERR, "cannot start %s (%d)", control->program, static_cast<int>(-task->pid));
        return false;
    }
    task->state = TaskState::running;
    task->deadline = static_cast<int64_t>(clock_now()) + control->limit_ms;
    return true;
}

// ---- their end ----

static void tell_end(pid_t ended, int status)
{
    if (ended < 0)
        VY_LOG(LOG_ERR, "cannot wait for smbcontrol (%d)", static_cast<int>(-ended));
    else if (status != 0) // probably no Samba runs
        VY_LOG(LOG_INFO, "smbcontrol failed (%d)", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
}

// Whether the program has ended; it is killed where its time is over.
static bool has_ended(const SambaTask* task, int64_t now)
{
    int status = 0;
    const pid_t ended = sys_waitpid(task->pid, &status, WNOHANG);
    if (ended != 0) {
        tell_end(ended, status);
        return true;
    }
    if (now < task->deadline)
        return false;
    VY_LOG(LOG_WARNING, "smbcontrol does not end, it is killed");
    (void)sys_kill(task->pid, SIGKILL);
    (void)sys_waitpid(task->pid, &status, 0);
    return true;
}

// Takes the task at `place` out, and frees it.
static void drop(SambaTask** place)
{
    SambaTask* task = *place;
    *place = task->next;
    free(task);
}

static void reap(SambaControl* control)
{
    const auto now = static_cast<int64_t>(clock_now());
    SambaTask** place = &control->tasks;
    while (*place != nullptr) {
        SambaTask* task = *place;
        if (task->state != TaskState::running || !has_ended(task, now)) {
            place = &task->next;
        } else if (!task->reload && !task->again && is_reloading(control)) {
            task->state = TaskState::early;
            place = &task->next;
        } else {
            drop(place);
        }
    }
}

// Once nothing is reloaded any more, what was closed before is closed again.
static void settle_early(SambaControl* control)
{
    if (is_reloading(control))
        return;
    for (SambaTask* task = control->tasks; task != nullptr; task = task->next) {
        if (task->state != TaskState::early)
            continue;
        task->state = TaskState::waiting;
        task->again = true;
    }
}

// ---- all of them ----

static void start_waiting(SambaControl* control)
{
    size_t running = count_running(control);
    SambaTask** place = &control->tasks;
    while (*place != nullptr && running < at_once) {
        SambaTask* task = *place;
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

static int64_t time_left(const SambaControl* control)
{
    int64_t nearest = -1;
    const auto now = static_cast<int64_t>(clock_now());
    for (const SambaTask* task = control->tasks; task != nullptr; task = task->next) {
        if (task->state != TaskState::running)
            continue;
        const int64_t left = task->deadline > now ? task->deadline - now : 0;
        nearest = nearest < 0 || left < nearest ? left : nearest;
    }
    return nearest;
}

int64_t samba_control_advance(SambaControl* control)
{
    do {
        reap(control);
        settle_early(control);
        start_waiting(control);
        // What could not be started may have been the reload that others waited for.
    } while (count_running(control) == 0 && control->tasks != nullptr);
    return time_left(control);
}

void samba_control_add(SambaControl* control, SambaTask* tasks)
{
    SambaTask** end = &control->tasks;
    while (*end != nullptr)
        end = &(*end)->next;
    *end = tasks;
    (void)samba_control_advance(control);
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

void samba_control_finish(SambaControl* control)
{
    int64_t left = 0;
    while ((left = samba_control_advance(control)) >= 0)
        wait_for_child(left);
}
