#include "ctl/call_users.h"

#include "ctl/file_server.h"
#include "ctl/item_json.h"
#include "lib/str.h"

#include <pwd.h>
#include <string.h>

// How distributions number people; who is below serves a program, who is above is nobody.
static constexpr uid_t least_uid = 1000;
static constexpr uid_t most_uid = 59999;

namespace {

enum Password : uint8_t { PASSWORD_UNKNOWN, PASSWORD_MISSING, PASSWORD_SET };

// What each file server tells of its users.
struct Told {
    FileBytes lines[file_server_count];
    bool known[file_server_count] = {};
};

} // namespace

static Password password_of(const Told& told, size_t server, const passwd& user)
{
    if (!told.known[server])
        return PASSWORD_UNKNOWN;
    return file_server_has_user(told.lines[server].bytes.get(), user.pw_name) ? PASSWORD_SET
                                                                              : PASSWORD_MISSING;
}

static bool has_any(const Told& told, const passwd& user)
{
    bool any = false;
    for (size_t i = 0; i < file_server_count; i++)
        any |= password_of(told, i, user) == PASSWORD_SET;
    return any;
}

static void tell_json(Json* json, const passwd& user, const Told& told)
{
    char full_name[256];
    str_ncpy(full_name, user.pw_gecos != nullptr ? user.pw_gecos : "", sizeof full_name);
    full_name[strcspn(full_name, ",")] = '\0'; // a room and telephones stand behind it
    json_open(json, nullptr, '{');
    json_number(json, "uid", user.pw_uid);
    json_text(json, "name", user.pw_name);
    json_text(json, "full_name", full_name[0] != '\0' ? full_name : nullptr);
    for (size_t i = 0; i < file_server_count; i++) {
        const Password password = password_of(told, i, user);
        if (password == PASSWORD_UNKNOWN)
            json_null(json, file_servers[i].password_key);
        else
            json_flag(json, file_servers[i].password_key, password == PASSWORD_SET);
    }
    json_close(json, '}');
}

static void tell_line(FILE* out, const passwd& user, const Told& told)
{
    text_print(out, "%.64s  %u", user.pw_name, static_cast<unsigned>(user.pw_uid));
    for (size_t i = 0; i < file_server_count; i++) {
        const Password password = password_of(told, i, user);
        if (password != PASSWORD_UNKNOWN)
            text_print(out, "  %s%s password", password == PASSWORD_SET ? "" : "no ",
                       file_servers[i].name);
    }
    text_print(out, "\n");
}

// Calls tell_json or tell_line for people, and for whoever has a password.
static void tell_all(const CallArgs& args, Json* json, const Told& told)
{
    while (const passwd* user = getpwent()) {
        const bool person = user->pw_uid >= least_uid && user->pw_uid <= most_uid;
        if (!person && !has_any(told, *user))
            continue;
        if (args.json)
            tell_json(json, *user, told);
        else
            tell_line(args.out.out, *user, told);
    }
    endpwent();
}

int call_users(const CallArgs& args)
{
    Told told;
    Json json = {.out = args.out.out, .more = false};
    for (size_t i = 0; i < file_server_count; i++)
        told.known[i] = file_server_read_users(file_servers[i], &told.lines[i]);
    if (!args.json) {
        tell_all(args, &json, told);
        return EXIT_DONE;
    }
    json_begin(&json, "users");
    json_open(&json, "users", '[');
    tell_all(args, &json, told);
    json_close(&json, ']');
    json_end(&json);
    return EXIT_DONE;
}
