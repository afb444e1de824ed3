#include "ctl/samba.h"

#include "ctl/json_read.h"
#include "ctl/machine.h"
#include "lib/str.h"

#include <string.h>

static constexpr char server[] = "smbd"; // the name of its processes

namespace {

// A session of smbstatus, while its lines come: who it is of is told before or behind its process.
struct Session {
    HolderTable* table;
    int32_t pid;
    char id[json_key_size];
    char user[holder_client_size];
    char machine[holder_client_size];
};

} // namespace

static bool is_samba(const Holder& holder)
{
    return strcmp(holder.command, server) == 0;
}

static void give(const Session& session)
{
    for (size_t i = 0; i < session.table->count; i++) {
        Holder* holder = &session.table->holders[i];
        if (!is_samba(*holder) || holder->pid != session.pid)
            continue;
        str_ncpy(holder->client_user, session.user, sizeof holder->client_user);
        str_ncpy(holder->client_machine, session.machine, sizeof holder->client_machine);
    }
}

// sessions.<id>.username, .remote_machine, .server_id.pid
static void take_session(void* context, const JsonPath& path, const char* value)
{
    auto* session = static_cast<Session*>(context);
    if (path.count < 3 || strcmp(path.keys[0], "sessions") != 0)
        return;
    if (strcmp(session->id, path.keys[1]) != 0) {
        session->pid = 0;
        session->user[0] = '\0';
        session->machine[0] = '\0';
        (void)str_cpy(session->id, path.keys[1]);
    }
    if (strcmp(path.keys[2], "username") == 0)
        str_ncpy(session->user, value, sizeof session->user);
    else if (strcmp(path.keys[2], "remote_machine") == 0)
        str_ncpy(session->machine, value, sizeof session->machine);
    else if (path.count == 4 && strcmp(path.keys[2], "server_id") == 0 &&
             strcmp(path.keys[3], "pid") == 0 && str_to_long(value, &session->pid, 10) != 0)
        session->pid = 0;
    if (session->pid > 0)
        give(*session);
}

void samba_read_clients(const char* answer, size_t size, HolderTable* table)
{
    Session session = {.table = table, .pid = 0, .id = "", .user = "", .machine = ""};
    // What stood before a fault is true all the same.
    (void)json_read(answer, size, take_session, &session);
}

void samba_name_clients(HolderTable* table)
{
    FileBytes answer;
    bool any = false;
    for (size_t i = 0; i < table->count; i++)
        any |= is_samba(table->holders[i]);
    if (any && machine_ask("smbstatus", "--json", &answer))
        samba_read_clients(answer.bytes.get(), answer.size, table);
}
