#include "label/label_tool.h"

#include "lib/guard.h"
#include "lib/platform.h"
#include "lib/process.h"
#include "lib/sys.h"
#include "lib/version.h"
#include "lib/vytime.h"

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>

// blkid takes 0.06 s on a 400 MHz processor (docs/target.md), but a sleeping disk has to spin up.
// Less than the 20 s after which the service gives up.
static constexpr int64_t limit_ms = 15000;
static constexpr uint32_t look_ms = 5; // between two looks whether blkid has ended
static constexpr int blkid_found_nothing = 2;

static constexpr LabelTool tools[] = {
    {.name = "mlabel",
     .filesystem = "vfat",
     .usage =
         "usage: mlabel -i NODE -n | --version\n"
         "Prints the volume label of a FAT filesystem. It never writes, and knows nothing else.\n",
     .node = 2,
     .words = {"-i", nullptr, "-n", nullptr},
     .argc = 4,
     .code_page = true},
    {.name = "ntfsvlabel",
     .filesystem = "ntfs",
     .usage = "usage: ntfsvlabel NODE -n | --version\n"
              "Prints the volume label of an NTFS filesystem. It never writes, and knows nothing "
              "else.\n",
     .node = 1,
     .words = {nullptr, "-n", nullptr, nullptr},
     .argc = 3,
     .code_page = false},
};

// ---- the command line ----

const LabelTool* label_tool_find(const char* program)
{
    const char* slash = strrchr(program, '/');
    const char* name = slash != nullptr ? slash + 1 : program;
    for (const LabelTool& tool : tools) {
        if (strcmp(name, tool.name) == 0)
            return &tool;
    }
    return nullptr;
}

const char* label_tool_node(const LabelTool* tool, int argc, char* const argv[])
{
    if (argc != tool->argc)
        return nullptr;
    for (int i = 1; i < argc; i++) {
        const char* word = tool->words[i - 1];
        if (word != nullptr && strcmp(argv[i], word) != 0)
            return nullptr;
    }
    // No drive letter, and nothing that blkid would read as an option.
    return argv[tool->node][0] == '/' ? argv[tool->node] : nullptr;
}

// ---- blkid ----

// Milliseconds of the monotonic clock.
static int64_t now_ms()
{
    vytime now = {};
    if (vytime_get(&now, CLOCK_MONOTONIC) != 0)
        return INT64_MAX; // counts as run out: nothing may hang without a clock
    return static_cast<int64_t>(vydiv64_32(vytime_count(now), 1000, nullptr));
}

// Waits until there is something to read. Returns as sys_select_one; 0 at the deadline.
static int wait_readable(int fd, int64_t deadline)
{
    for (;;) {
        const int64_t left = deadline - now_ms();
        if (left <= 0)
            return 0;
        timeval limit = {.tv_sec = static_cast<time_t>(left / 1000),
                         .tv_usec = static_cast<suseconds_t>(left % 1000 * 1000)};
        const int ready = sys_select_one(fd, SYS_READABLE, &limit);
        if (ready != -EINTR)
            return ready;
    }
}

static LabelOutcome take_output(int fd, int64_t deadline, char (&printed)[label_printed_size])
{
    size_t used = 0;
    for (;;) {
        const int ready = wait_readable(fd, deadline);
        if (ready < 0)
            return LabelOutcome::failed;
        if (ready == 0)
            return LabelOutcome::timed_out;
        // As large as all the room: one byte too many is noticed.
        char part[label_printed_size];
        const ssize_t count = read(fd, part, sizeof part);
        if (count < 0)
            return LabelOutcome::failed;
        if (count == 0)
            break;
        if (used + static_cast<size_t>(count) >= sizeof printed)
            return LabelOutcome::too_long;
        memcpy(printed + used, part, static_cast<size_t>(count));
        used += static_cast<size_t>(count);
    }
    printed[used] = '\0';
    return LabelOutcome::read;
}

static LabelOutcome outcome_of(int wait_status)
{
    if (!WIFEXITED(wait_status))
        return LabelOutcome::failed;
    switch (WEXITSTATUS(wait_status)) {
    case 0:
        return LabelOutcome::read;
    case 1: // of a child that could not be executed; blkid never ends with 1
        return LabelOutcome::not_started;
    case blkid_found_nothing:
        return LabelOutcome::no_volume;
    default:
        return LabelOutcome::failed;
    }
}

static LabelOutcome wait_for_end(pid_t pid, int64_t deadline)
{
    for (;;) {
        int status = 0;
        const pid_t ended = sys_waitpid(pid, &status, WNOHANG);
        if (ended < 0)
            return LabelOutcome::failed;
        if (ended > 0)
            return outcome_of(status);
        if (now_ms() >= deadline)
            return LabelOutcome::timed_out;
        (void)vytime_msleep(look_ms);
    }
}

// execvp takes strings of a writable type, but never writes to them.
static char* text(const char* constant)
{
    return const_cast<char*>(constant);
}

LabelOutcome label_tool_read(const LabelTool* tool, const char* node,
                             char (&printed)[label_printed_size])
{
    // Low-level probing without the cache (-p), without the disk's partition table (-D), for this
    // filesystem alone (-n), so that a medium that looks like several has a label, too; the label
    // alone (-s, -o), its bytes unchanged (-d).
    char* const argv[] = {text("blkid"),          text("-p"), text("-D"),    text("-n"),
                          text(tool->filesystem), text("-s"), text("LABEL"), text("-o"),
                          text("value"),          text("-d"), text(node),    nullptr};
    const int64_t now = now_ms();
    const int64_t deadline = now < INT64_MAX ? now + limit_ms : now;
    int out_fd = -1;
    const pid_t pid = vy_fork_exec(argv[0], argv, nullptr, &out_fd, nullptr);
    if (pid < 0)
        return LabelOutcome::not_started;
    const FdGuard out(out_fd);
    const LabelOutcome taken = take_output(out.get(), deadline, printed);
    const LabelOutcome outcome = taken == LabelOutcome::read ? wait_for_end(pid, deadline) : taken;
    // Not waited for: a blkid that is stuck in the kernel would hold up the caller.
    if (taken != LabelOutcome::read || outcome == LabelOutcome::timed_out)
        (void)sys_kill(pid, SIGKILL);
    return outcome;
}

// ---- the program ----

static const char* reason_of(LabelOutcome outcome)
{
    switch (outcome) {
    case LabelOutcome::not_started:
        return "blkid cannot be run";
    case LabelOutcome::no_volume:
        return "no such volume";
    case LabelOutcome::too_long:
        return "blkid prints more than a label";
    case LabelOutcome::timed_out:
        return "blkid does not end";
    case LabelOutcome::read:
    case LabelOutcome::failed:
        break;
    }
    return "blkid failed";
}

int label_main(int argc, char* argv[])
{
    const LabelTool* tool = argc > 0 ? label_tool_find(argv[0]) : nullptr;
    if (tool == nullptr) {
        fputs("to be started as mlabel or ntfsvlabel\n", stderr);
        return 2;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        const int printed = printf("%s %s\n", tool->name, vy_build);
        return printed >= 0 && stream_flush(stdout) == 0 ? 0 : 1;
    }
    const char* node = label_tool_node(tool, argc, argv);
    if (node == nullptr) {
        fputs(tool->usage, stderr);
        return 2;
    }
    char printed[label_printed_size];
    const LabelOutcome outcome = label_tool_read(tool, node, printed);
    if (outcome != LabelOutcome::read) {
        fprintf(stderr, "%s: %s: %s\n", tool->name, node, reason_of(outcome));
        return 1;
    }
    char label[label_size];
    label_from_printed(printed, tool->code_page, label);
    return printf("%s\n", label) >= 0 && stream_flush(stdout) == 0 ? 0 : 1;
}
