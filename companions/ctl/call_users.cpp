#include "ctl/call_users.h"

#include "ctl/item_json.h"
#include "ctl/samba_users.h"
#include "lib/str.h"

#include <pwd.h>
#include <string.h>
#include <unistd.h>

// How distributions number people; who is below serves a program, who is above is nobody.
static constexpr uid_t least_uid = 1000;
static constexpr uid_t most_uid = 59999;

namespace {

// What Samba tells of a user.
enum SambaPassword : uint8_t { PASSWORD_UNKNOWN, PASSWORD_MISSING, PASSWORD_SET };

} // namespace

static void tell_json(Json* json, const passwd& user, SambaPassword password)
{
    char full_name[256];
    str_ncpy(full_name, user.pw_gecos != nullptr ? user.pw_gecos : "", sizeof full_name);
    full_name[strcspn(full_name, ",")] = '\0'; // a room and telephones stand behind it
    json_open(json, nullptr, '{');
    json_number(json, "uid", user.pw_uid);
    json_text(json, "name", user.pw_name);
    json_text(json, "full_name", full_name[0] != '\0' ? full_name : nullptr);
    if (password == PASSWORD_UNKNOWN)
        json_null(json, "samba_password");
    else
        json_flag(json, "samba_password", password == PASSWORD_SET);
    json_close(json, '}');
}

static void tell_line(FILE* out, const passwd& user, SambaPassword password)
{
    static constexpr const char* words[] = {"", "  no Samba password", "  Samba password"};
    (void)text_show(out, user.pw_name, 64);
    fprintf(out, "  %u%s\n", static_cast<unsigned>(user.pw_uid), words[password]);
}

// Calls tell_json or tell_line for people, and for whoever has a Samba password. `lines` is null
// where they are not known.
static void tell_all(const CallArgs& args, Json* json, const char* lines)
{
    setpwent();
    while (const passwd* user = getpwent()) {
        SambaPassword password = PASSWORD_UNKNOWN;
        if (lines != nullptr)
            password = samba_users_have(lines, user->pw_name) ? PASSWORD_SET : PASSWORD_MISSING;
        const bool person = user->pw_uid >= least_uid && user->pw_uid <= most_uid;
        if (!person && password != PASSWORD_SET)
            continue;
        if (args.json)
            tell_json(json, *user, password);
        else
            tell_line(args.out.out, *user, password);
    }
    endpwent();
}

int call_users(const CallArgs& args)
{
    FileBytes lines;
    Json json = {.out = args.out.out, .more = false};
    const char* known = geteuid() == 0 && samba_users_read(&lines) ? lines.bytes.get() : nullptr;
    if (!args.json) {
        tell_all(args, &json, known);
        return EXIT_DONE;
    }
    json_begin(&json, "users");
    json_open(&json, "users", '[');
    tell_all(args, &json, known);
    json_close(&json, ']');
    json_end(&json);
    return EXIT_DONE;
}
