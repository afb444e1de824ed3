#include "common/tool.h"

#include "common/confine.h"
#include "lib/process.h"
#include "lib/sys.h"
#include "lib/vytime.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>

static constexpr uint32_t look_ms = 5; // between two looks whether one that printed all has ended

uint64_t tool_now()
{
    vytime now = {};
    if (vytime_get(&now, CLOCK_MONOTONIC) != 0)
        return UINT64_MAX;
    return vydiv64_32(vytime_count(now), 1000, nullptr);
}

static void finish(Tool* tool, ToolState state)
{
    tool->state = state;
    tool->out.reset(-1);
}

void tool_stop(Tool* tool)
{
    if (tool->state != ToolState::running)
        return;
    (void)sys_kill(tool->pid, SIGKILL); // not waited for: the kernel may hold it
    finish(tool, ToolState::none);
}

static void give_up(Tool* tool, ToolState state)
{
    tool_stop(tool);
    tool->state = state;
}

using Work = void(char* const argv[]);

// Starts the work; where that is null, the program.
static void start(Tool* tool, Work* work, char* const argv[], char* text, size_t size)
{
    tool_stop(tool);
    tool->text = text;
    tool->size = size;
    tool->used = 0;
    tool->status = 0;
    tool->state = ToolState::not_started;
    text[0] = '\0';
    int ends[2];
    if (sys_pipe(ends) != 0)
        return;
    const FdGuard write_end(ends[1]);
    tool->out.reset(ends[0]);
    const int flags = fcntl(ends[0], F_GETFL);
    const int stdio[3] = {-1, write_end.get(), -1};
    const bool ready = flags >= 0 && fcntl(ends[0], F_SETFL, flags | O_NONBLOCK) == 0;
    if (!ready)
        tool->pid = -1;
    else if (work != nullptr)
        tool->pid = sys_spawn_work(work, argv, stdio);
    else
        tool->pid = sys_spawn_prepared(argv[0], argv, stdio, confine_reader);
    if (tool->pid > 0)
        tool->state = ToolState::running;
    else
        tool->out.reset(-1);
}

void tool_start(Tool* tool, char* const argv[], char* text, size_t size, uint64_t now,
                uint32_t limit_ms)
{
    start(tool, nullptr, argv, text, size);
    tool->deadline = now < UINT64_MAX - limit_ms ? now + limit_ms : now;
}

void tool_start_work(Tool* tool, Work* work, char* const argv[], char* text, size_t size)
{
    start(tool, work, argv, text, size);
    tool->deadline = UINT64_MAX;
}

// Reads what is there. The pipe is let go at its end.
static void take_output(Tool* tool)
{
    for (;;) {
        char part[512];
        const ssize_t count = read(tool->out.get(), part, sizeof part);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (count < 0)
            return give_up(tool, ToolState::crashed);
        if (count == 0)
            return tool->out.reset(-1);
        if (static_cast<size_t>(count) >= tool->size - tool->used)
            return give_up(tool, ToolState::too_long);
        memcpy(tool->text + tool->used, part, static_cast<size_t>(count));
        tool->used += static_cast<size_t>(count);
        tool->text[tool->used] = '\0';
    }
}

static void look_for_end(Tool* tool)
{
    int status = 0;
    const pid_t ended = sys_waitpid(tool->pid, &status, WNOHANG);
    if (ended == 0)
        return;
    tool->status = WEXITSTATUS(status);
    if (ended < 0 || !WIFEXITED(status))
        finish(tool, ToolState::crashed);
    else if (tool->status == 1) // of a child that could not be run; these tools never end so
        finish(tool, ToolState::not_started);
    else
        finish(tool, ToolState::ended);
}

void tool_advance(Tool* tool, uint64_t now)
{
    if (tool->state == ToolState::running && tool->out.get() >= 0)
        take_output(tool);
    if (tool->state == ToolState::running && tool->out.get() < 0)
        look_for_end(tool);
    if (tool->state == ToolState::running && now >= tool->deadline)
        give_up(tool, ToolState::timed_out);
}

uint64_t tool_due(const Tool* tool, uint64_t now)
{
    if (tool->state != ToolState::running)
        return UINT64_MAX;
    const uint64_t look = tool->out.get() >= 0 ? tool->deadline : now + look_ms;
    return look < tool->deadline ? look : tool->deadline;
}

// Waits until there is something to read. Returns as sys_select_one; 0 at the deadline.
static int wait_readable(int fd, uint64_t deadline)
{
    for (;;) {
        const uint64_t now = tool_now();
        if (now >= deadline)
            return 0;
        const uint64_t left = deadline - now;
        timeval limit = {.tv_sec = static_cast<time_t>(left / 1000),
                         .tv_usec = static_cast<suseconds_t>(left % 1000 * 1000)};
        const int ready = sys_select_one(fd, SYS_READABLE, &limit);
        if (ready != -EINTR)
            return ready;
    }
}

void tool_wait(Tool* tool)
{
    while (tool->state == ToolState::running) {
        const int fd = tool->out.get();
        const int ready = fd >= 0 ? wait_readable(fd, tool->deadline) : 0;
        if (ready < 0)
            give_up(tool, ToolState::crashed);
        else if (fd >= 0 && ready == 0)
            give_up(tool, ToolState::timed_out);
        else
            tool_advance(tool, tool_now());
        if (tool->state == ToolState::running && tool->out.get() < 0)
            (void)vytime_msleep(look_ms);
    }
}

void tool_reap()
{
    int ignored = 0;
    while (sys_waitpid(-1, &ignored, WNOHANG) > 0) {
    } // until there is none
}
