// Has a running Samba reload its configuration and close shares, by smbcontrol(1), and waits for
// nothing: a share must be closed in less time than smbcontrol may take for what was begun before.
// That no Samba runs is no failure. Touches the world through lib/sys.h.
//
// A reload and the closings that belong to it run side by side. A client whose share is closed
// before Samba has reloaded may come back, and finds the share: such shares are closed once more
// when the reload has ended.
#pragma once

#include "lib/guard.h"
#include "lib/vylist.h"

#include <stdint.h>

// Limit of each program, in milliseconds. On a 400 MHz MIPS processor smbcontrol takes 1 second, 8
// to 20 when it is read from a slow disk, and eight of them beside four busy programs take 16
// (docs/target.md).
constexpr int64_t samba_limit_ms = 30000;

// A program to be run, and those behind it.
struct SambaTask;

struct SambaControl {
    const char* program; // borrowed; searched on PATH unless it holds a slash
    int64_t limit_ms;
    SambaTask* tasks; // those that have not ended, in the order of their coming; owned
};

// Makes the tasks of a new configuration: the reload, and the closings of these names. Returns 0
// and owned tasks; -ENOMEM, `tasks` untouched.
[[nodiscard]] int samba_tasks_make(const vylist* closed, SambaTask** tasks);

void samba_tasks_free(SambaTask* tasks);
using SambaTasksGuard = Guard<SambaTask, samba_tasks_free>;

// Takes the tasks, and starts them as far as there is room: eight programs run at a time.
void samba_control_add(SambaControl* control, SambaTask* tasks);

// To be called when a child has ended, and when the time has passed that was returned before.
// Takes note of what has ended, kills what takes longer than the limit, which is logged, and starts
// what there is room for. Returns the milliseconds until a program will have run too long; -1 when
// none runs.
int64_t samba_control_advance(SambaControl* control);

// Returns when all tasks have ended. SIGCHLD must be blocked in the calling thread.
void samba_control_finish(SambaControl* control);

// Forgets the tasks; what runs goes on.
void samba_control_clear(SambaControl* control);
