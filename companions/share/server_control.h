// Has a running server reload its configuration and close shares, by the server's table, and waits
// for nothing: a share must be closed in less time than a program may take for what was begun
// before. That no server runs is no failure. Touches the world through lib/sys.h.
//
// A reload and the closings that belong to it run side by side. A client whose share is closed
// before the server has reloaded may come back, and finds the share: such shares are closed once
// more when the reload has ended, and the server has had its time to settle.
#pragma once

#include "lib/guard.h"
#include "lib/vylist.h"
#include "share/share_server.h"

#include <stdint.h>

// Limit of each program, in milliseconds. On a 400 MHz MIPS processor smbcontrol takes 1 second, 8
// to 20 when it is read from a slow disk, and eight of them beside four busy programs take 16
// (docs/target.md).
constexpr int64_t server_limit_ms = 30000;

// A program to be run, and those behind it.
struct ServerTask;

struct ServerControl {
    const ShareServer* server;  // borrowed
    const BridgeConfig* config; // borrowed
    int64_t limit_ms;
    ServerTask* tasks; // those that have not ended, in the order of their coming; owned
};

// Makes the tasks of a new configuration: the reload, and the closings of these names; of a server
// that closes all at once, the closing of the first. Returns 0 and owned tasks; -ENOMEM, `tasks`
// untouched.
[[nodiscard]] int server_tasks_make(const ShareServer* server, const vylist* closed,
                                    ServerTask** tasks);

void server_tasks_free(ServerTask* tasks);
using ServerTasksGuard = Guard<ServerTask, server_tasks_free>;

// Takes the tasks, and starts them as far as there is room: eight programs run at a time.
void server_control_add(ServerControl* control, ServerTask* tasks);

// To be called when a child has ended, and when the time has passed that was returned before.
// Takes note of what has ended, kills what takes longer than the limit, which is logged, and starts
// what there is room for. Returns the milliseconds until a program will have run too long, or the
// server has settled; -1 when nothing is under way.
int64_t server_control_advance(ServerControl* control);

// Returns when all tasks have ended. SIGCHLD must be blocked in the calling thread.
void server_control_finish(ServerControl* control);

// Forgets the tasks; what runs goes on.
void server_control_clear(ServerControl* control);
