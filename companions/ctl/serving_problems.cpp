#include "ctl/serving_problems.h"

#include "ctl/machine.h"
#include "lib/version.h"

#include <stdio.h>
#include <string.h>

static constexpr char avahi_folder[] = "/etc/avahi/services";

// ---- the bridge ----

void look_at_bridge(ProblemLook* look)
{
    const FileServer* server = look->server;
    if (!file_server_is_told()) {
        problem_add(look, "bridge_not_running", false,
                    server != nullptr ? typed(server->start_bridge)
                                      : prose("install vynas-samba or vynas-ksmbd"),
                    "no file-sharing service reads the shares");
    } else if (server != nullptr && processes_any_replaced(look->processes, server->bridge)) {
        problem_add(look, "bridge_replaced", false, typed(server->restart_bridge),
                    "the bridge that runs is older than the one that is installed");
    }
}

// The text of its --version stands in its file.
static void compare_version(ProblemLook* look, const char* program)
{
    if (!machine_program_has(program, vy_build)) {
        problem_add(look, "other_version", false, prose("install all packages of one version"),
                    "this is vyhotplugctl %s, and %s is another", vy_build, program);
    }
}

void look_at_versions(ProblemLook* look)
{
    compare_version(look, "vyhotplug-agent");
    for (const FileServer& server : file_servers)
        compare_version(look, server.bridge);
}

// ---- the file server ----

// What keeps it from sharing anything; SERVER_FAULTS: nothing.
static ServerFault find_fault(const ProblemLook& look)
{
    const FileServer& server = *look.server;
    if (!machine_has_program(server.program))
        return SERVER_MISSING;
    if (!file_server_in_kernel(server, *look.setup))
        return SERVER_NOT_IN_KERNEL;
    if (!file_server_runs(server, *look.setup, look.processes))
        return SERVER_NOT_RUNNING;
    return server.reads_list(server, look.processes) ? SERVER_FAULTS : SERVER_NOT_SET_UP;
}

// One of them alone can have the port: which one clients meet is chance.
static void look_at_other_servers(ProblemLook* look)
{
    if (!file_server_runs(*look->server, *look->setup, look->processes))
        return;
    for (const FileServer& other : file_servers) {
        if (&other != look->server && file_server_runs(other, *look->setup, look->processes))
            problem_add(look, "other_server", false, typed(other.stop), "%s runs beside %s",
                        other.name, look->server->name);
    }
}

void look_at_file_server(ProblemLook* look)
{
    if (look->server == nullptr)
        return;
    const ServerFault fault = find_fault(*look);
    if (fault != SERVER_FAULTS)
        problem_add_texts(look, false, look->server->faults[fault]);
    look_at_other_servers(look);
}

void look_at_server_users(ProblemLook* look)
{
    FileBytes users;
    const FileServer* server = look->server;
    if (server == nullptr)
        return;
    const bool told = look->asks && file_server_read_users(*server, &users);
    if (told ? users.size == 0 : server->has_no_users())
        problem_add_texts(look, false, server->faults[SERVER_NO_USERS]);
}

// ---- the network ----

namespace {

// Programs by which others find the machine: one of them is to run.
struct Discovery {
    const char* programs[2];
    FaultTexts missing;
    FaultTexts stopped;
};

constexpr char no_avahi[] = "no avahi-daemon runs: Macs and Linux do not show this machine";
constexpr char no_wsdd[] = "no wsdd runs: Windows does not show this machine";

constexpr Discovery discoveries[] = {
    {.programs = {"avahi-daemon", "umdns"},
     .missing = {"avahi_missing", no_avahi, "apt-get install avahi-daemon"},
     .stopped = {"avahi_not_running", no_avahi, "systemctl enable --now avahi-daemon"}},
    {.programs = {"wsdd", "wsdd2"},
     .missing = {"wsdd_missing", no_wsdd, "apt-get install wsdd"},
     .stopped = {"wsdd_not_running", no_wsdd, "systemctl enable --now wsdd"}},
};

} // namespace

static void look_for_one(ProblemLook* look, const Discovery& row)
{
    bool installed = false;
    for (const char* program : row.programs) {
        if (processes_find(look->processes, program) != 0 ||
            processes_any_script(look->processes, program))
            return;
        installed |= machine_has_program(program);
    }
    problem_add_texts(look, !installed, installed ? row.stopped : row.missing);
}

// A server that does not read the shares has been told of, and what to type is the same. Whoever
// wrote it, a file that names the protocol has Avahi tell of the machine.
static void look_at_avahi(ProblemLook* look)
{
    const FileServer* server = look->server;
    if (server == nullptr || processes_find(look->processes, "avahi-daemon") == 0 ||
        find_fault(*look) != SERVER_FAULTS || server->tells_avahi() ||
        machine_any_file_has(avahi_folder, "_smb._tcp"))
        return;
    problem_add(look, "avahi_not_told", false, typed(server->tell_avahi),
                "no file tells Avahi of the file server");
}

void look_at_discovery(ProblemLook* look)
{
    bool served = false;
    for (const FileServer& server : file_servers)
        served |= file_server_runs(server, *look->setup, look->processes);
    if (!served)
        return;
    for (const Discovery& row : discoveries)
        look_for_one(look, row);
    look_at_avahi(look);
}
