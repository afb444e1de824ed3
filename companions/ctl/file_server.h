// The file servers that a bridge makes shares of, as far as a person has to know them. One is a row
// of the table.
#pragma once

#include "ctl/json.h"
#include "ctl/processes.h"
#include "ctl/setup.h"
#include "lib/file.h"

// What can be wrong with one, in the order in which it is looked for.
enum ServerFault : uint8_t {
    SERVER_MISSING,
    SERVER_NOT_IN_KERNEL,
    SERVER_NOT_RUNNING,
    SERVER_NOT_SET_UP, // it does not read what the bridge writes
    SERVER_NO_USERS,
    SERVER_FAULTS,
};

// What is told of something that is wrong.
struct FaultTexts {
    const char* id;
    const char* text;
    const char* remedy;
    bool prose = false; // the remedy is a sentence, and nothing to be typed
};

struct FileServer {
    const char* name;         // as people write it
    const char* word;         // of programs: the key of its share in JSON
    const char* password_key; // in JSON, of a user
    const char* add_user;     // what to type, before the user's name
    const char* bridge;       // the program
    const char* start_bridge; // what to type, like the next
    const char* restart_bridge;
    const char* stop;    // what to type, to have the server itself run no more
    const char* program; // that serves; a process is called so
    const char* module;  // of the kernel, that does the work; null: none
    const char* list;    // the shares, as the bridge writes them
    bool (*reads_list)(const FileServer& server, const ProcessTable* processes);
    bool (*tells_avahi)();  // whether it does that itself
    const char* tell_avahi; // what to type, where it does not
    bool (*read_users)(FileBytes* lines);
    bool (*has_no_users)(); // as far as its files tell without it; false where they do not
    FaultTexts faults[SERVER_FAULTS];
};

constexpr size_t file_server_count = 2;
extern const FileServer file_servers[file_server_count];

// Whether there is a file-sharing service, as its pid file tells.
[[nodiscard]] bool file_server_is_told();

// Lends the file server that the shares are made for: its bridge is the file-sharing service, or is
// installed and there is no other. Null without one.
[[nodiscard]] const FileServer* file_server_find();

// Whether it runs, its part in the kernel included.
[[nodiscard]] bool file_server_runs(const FileServer& server, const Setup& setup,
                                    const ProcessTable* processes);

// Whether its part in the kernel is there or can be; true for one without.
[[nodiscard]] bool file_server_in_kernel(const FileServer& server, const Setup& setup);

// Reads who has a password there, which root alone is told. Returns whether it told; then `lines`
// has one for each user.
[[nodiscard]] bool file_server_read_users(const FileServer& server, FileBytes* lines);

// Whether a user is among them: "anna:1001:Anna" is anna's line. Touches no world.
[[nodiscard]] bool file_server_has_user(const char* lines, const char* name);

// ---- what a server is told of a directory ----

// Prints the share with that directory: a line for each parameter; nothing where there is none.
void file_server_print_share(FILE* out, const FileServer& server, const char* directory);

// The same, as an object of its name and its parameters; null where there is none.
void file_server_share_json(Json* json, const FileServer& server, const char* directory);
