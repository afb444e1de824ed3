#include "ctl/file_server.h"

#include "common/include_sections.h"
#include "ctl/machine.h"
#include "ctl/terminal.h"

#include <limits.h>
#include <string.h>
#include <unistd.h>

static constexpr char bridge_pid_file[] = "/var/run/vynas-fssd.pid";
static constexpr char samba_config[] = "/etc/samba/smb.conf";
static constexpr char samba_users[] = "/var/lib/samba/private/passdb.tdb";
static constexpr char ksmbd_users[] = "/etc/ksmbd/ksmbdpwd.db";

// ---- the servers ----

// A configuration that cannot be read is believed to be right.
static bool samba_reads_list(const FileServer& server, const ProcessTable* processes)
{
    (void)processes;
    FileBytes config;
    return file_read_all(samba_config, 0, 1 << 20, &config) != 0 ||
           strstr(config.bytes.get(), server.list) != nullptr;
}

// Its configuration is a word of its command line.
static bool ksmbd_reads_list(const FileServer& server, const ProcessTable* processes)
{
    return processes_any_started_with(processes, server.program, server.list);
}

// As Debian builds it, and unless the administrator or vynas-samba-setup has switched that off.
static bool samba_tells_avahi()
{
    FileBytes config;
    return file_read_all(samba_config, 0, 1 << 20, &config) == 0 &&
           strcasestr(config.bytes.get(), "multicast dns register = no") == nullptr;
}

static bool ksmbd_tells_avahi()
{
    return false;
}

static bool samba_read_users(FileBytes* lines)
{
    return machine_ask("pdbedit", "-L", lines);
}

static bool ksmbd_read_users(FileBytes* lines)
{
    return file_read_all(ksmbd_users, 0, 1 << 20, lines) == 0;
}

// The key of each user's record begins so in Samba's own database (tdbsam), which counts unless
// another is named. A record that was removed may lie there still.
static bool samba_has_no_users()
{
    static constexpr char record[] = "USER_";
    FileBytes config;
    FileBytes users;
    return file_read_all(samba_config, 0, 1 << 20, &config) == 0 &&
           strcasestr(config.bytes.get(), "passdb backend") == nullptr &&
           file_read_all(samba_users, 0, 1 << 24, &users) == 0 &&
           memmem(users.bytes.get(), users.size, record, sizeof record - 1) == nullptr;
}

static bool ksmbd_has_no_users()
{
    FileBytes lines;
    return ksmbd_read_users(&lines) && lines.size == 0;
}

const FileServer file_servers[file_server_count] = {
    {.name = "Samba",
     .word = "samba",
     .password_key = "samba_password",
     .add_user = "smbpasswd -a",
     .bridge = "vynas-samba",
     .start_bridge = "systemctl start vynas-samba",
     .restart_bridge = "systemctl restart vynas-samba",
     .stop = "systemctl disable --now smbd",
     .program = "smbd",
     .module = nullptr,
     .list = "/run/vynas-samba/shares.conf",
     .reads_list = samba_reads_list,
     .tells_avahi = samba_tells_avahi,
     .tell_avahi = "vynas-samba-setup enable",
     .read_users = samba_read_users,
     .has_no_users = samba_has_no_users,
     .faults = {{"samba_missing", "Samba is not installed", "apt-get install samba"},
                {},
                {"samba_not_running", "Samba is not running", "systemctl start smbd"},
                {"samba_not_set_up", "/etc/samba/smb.conf does not include the shares",
                 "vynas-samba-setup enable"},
                {"samba_no_users", "nobody has a Samba password", "smbpasswd -a USER"}}},
    {.name = "ksmbd",
     .word = "ksmbd",
     .password_key = "ksmbd_password",
     .add_user = "ksmbd.adduser -a",
     .bridge = "vynas-ksmbd",
     .start_bridge = "systemctl start vynas-ksmbd",
     .restart_bridge = "systemctl restart vynas-ksmbd",
     .stop = "systemctl disable --now ksmbd",
     .program = "ksmbd.mountd",
     .module = "ksmbd",
     .list = "/run/vynas-ksmbd/ksmbd.conf",
     .reads_list = ksmbd_reads_list,
     .tells_avahi = ksmbd_tells_avahi,
     .tell_avahi = "cp /usr/share/doc/vyhotplugd/examples/avahi/smb.service /etc/avahi/services/",
     .read_users = ksmbd_read_users,
     .has_no_users = ksmbd_has_no_users,
     .faults = {{"ksmbd_missing", "there is no ksmbd.mountd", "apt-get install ksmbd-tools"},
                {"ksmbd_not_in_kernel", "this kernel has no ksmbd",
                 "install a kernel that has it, or vynas-samba", true},
                {"ksmbd_not_running", "ksmbd is not running", "systemctl start ksmbd"},
                {"ksmbd_not_set_up", "ksmbd.mountd does not read the shares",
                 "systemctl restart ksmbd"},
                {"ksmbd_no_users", "nobody has a ksmbd password", "ksmbd.adduser -a USER"}}},
};

// ---- which of them ----

static const FileServer* bridged_by(bool (*fits)(const char* bridge, const char* name),
                                    const char* name)
{
    for (const FileServer& server : file_servers) {
        if (fits(server.bridge, name))
            return &server;
    }
    return nullptr;
}

static bool is_same(const char* bridge, const char* name)
{
    return strcmp(bridge, name) == 0;
}

static bool is_installed(const char* bridge, const char* name)
{
    (void)name;
    return machine_has_program(bridge);
}

bool file_server_is_told()
{
    char name[machine_name_size];
    return machine_pid_file_is_alive(bridge_pid_file, name);
}

const FileServer* file_server_find()
{
    char name[machine_name_size];
    if (machine_pid_file_is_alive(bridge_pid_file, name) && name[0] != '\0')
        return bridged_by(is_same, name);
    return bridged_by(is_installed, nullptr);
}

// ---- what of it is there ----

// The kernel's part of a server has a class while it is loaded.
static bool is_loaded(const FileServer& server, const Setup& setup)
{
    char path[PATH_MAX];
    (void)snprintf(path, sizeof path, "%s/class/%s-control", setup.paths.sysfs, server.module);
    return access(path, F_OK) == 0;
}

bool file_server_in_kernel(const FileServer& server, const Setup& setup)
{
    return server.module == nullptr || is_loaded(server, setup) ||
           machine_has_module(server.module);
}

bool file_server_runs(const FileServer& server, const Setup& setup, const ProcessTable* processes)
{
    return processes_find(processes, server.program) != 0 &&
           (server.module == nullptr || is_loaded(server, setup));
}

bool file_server_read_users(const FileServer& server, FileBytes* lines)
{
    return geteuid() == 0 && server.read_users(lines);
}

bool file_server_has_user(const char* lines, const char* name)
{
    const size_t length = strlen(name);
    for (const char* line = lines; *line != '\0';) {
        if (strncmp(line, name, length) == 0 && line[length] == ':')
            return true;
        line += strcspn(line, "\n");
        line += *line == '\n' ? 1 : 0;
    }
    return false;
}

// ---- shares ----

// Finds the share with that directory. Lends it from the text, without its header.
static bool find_share(const FileServer& server, const char* directory, FileBytes* text,
                       IncludeSection* share)
{
    if (directory == nullptr || file_read_all(server.list, 0, FILE_ANY_SIZE, text) != 0)
        return false;
    const Span wanted = {.begin = directory, .size = strlen(directory)};
    const char* at = text->bytes.get();
    while (include_section_next(&at, share)) {
        Span path;
        if (include_section_value(share, "path", &path) && span_is(path, wanted)) {
            Span header;
            (void)span_next_line(&share->text, &header); // each section has one
            return true;
        }
    }
    return false;
}

// Takes the next line "<tab>key = value" apart; what is longer than there is room for is cut.
static bool next_parameter(IncludeSection* share, char (&key)[64], char (&value)[2048])
{
    static constexpr char between[] = " = ";
    Span line;
    while (span_next_line(&share->text, &line)) {
        const auto* equals =
            static_cast<const char*>(memmem(line.begin, line.size, between, sizeof between - 1));
        if (!span_begins(line, "\t") || equals == nullptr)
            continue;
        const char* begin = equals + sizeof between - 1;
        (void)snprintf(key, sizeof key, "%.*s", static_cast<int>(equals - line.begin - 1),
                       line.begin + 1);
        (void)snprintf(value, sizeof value, "%.*s",
                       static_cast<int>(line.begin + line.size - begin), begin);
        return true;
    }
    return false;
}

void file_server_print_share(FILE* out, const FileServer& server, const char* directory)
{
    FileBytes text;
    IncludeSection share;
    char key[64];
    char value[2048];
    if (!find_share(server, directory, &text, &share))
        return;
    (void)snprintf(value, sizeof value, "%.*s", static_cast<int>(share.name.size),
                   share.name.begin);
    (void)snprintf(key, sizeof key, "in %s", server.name);
    text_print(out, "%18s  %.2048s\n", key, value);
    while (next_parameter(&share, key, value))
        text_print(out, "%20s%.64s = %.2048s\n", "", key, value);
}

void file_server_share_json(Json* json, const FileServer& server, const char* directory)
{
    FileBytes text;
    IncludeSection share;
    char name[64];
    char value[2048];
    if (!find_share(server, directory, &text, &share))
        return json_null(json, server.word);
    (void)snprintf(value, sizeof value, "%.*s", static_cast<int>(share.name.size),
                   share.name.begin);
    json_open(json, server.word, '{');
    json_text(json, "name", value);
    json_open(json, "parameters", '{');
    while (next_parameter(&share, name, value))
        json_text(json, name, value);
    json_close(json, '}');
    json_close(json, '}');
}
