#include "samba/samba_server.h"

#include "lib/process.h"
#include "samba/include_text.h"
#include "samba/macs.h"
#include "share/include_file.h"

static constexpr char help[] =
    "Usage: vynas-samba [option]...\n"
    "Makes the shares of the hotplug service Samba's, now and whenever they change.\n"
    "\n"
    "  -f, --file FILE     configuration of the hotplug service\n"
    "                      (/etc/vyhotplugd/vyhotplugd.conf)\n"
    "  -c, --config FILE   own configuration (/etc/vynas-samba/vynas-samba.conf)\n"
    "      --once          bring the include file up to date, tell Samba, and end\n"
    "      --print         print what the include file should be, and end\n"
    "      --help          print this, and end\n"
    "      --version       print the version, and end\n";

static constexpr char head[] = "# Made by vynas-samba from the share file of the hotplug service, "
                               "and made anew whenever that\n"
                               "# changes: what is written here by hand is lost.\n";

static constexpr const char* harmless_lines[] = {
    "\tcomment =", "\tstrict sync =", "\tsync always =", "\taccess based share enum =", nullptr,
};

static int read_list(const BridgeConfig* config, char** text)
{
    return include_file_read(config->includepath, text);
}

static int write_list(const BridgeConfig* config, const char* text)
{
    return include_file_write(config->includepath, text);
}

// execvp takes strings of a writable type, but never writes to them.
static char* text(const char* constant)
{
    return const_cast<char*>(constant);
}

static pid_t reload(const BridgeConfig* config)
{
    char* const arguments[] = {text(config->control), text("smbd"), text("reload-config"), nullptr};
    return vy_fork_exec(config->control, arguments, nullptr, nullptr, nullptr);
}

static pid_t close_share(const BridgeConfig* config, const char* share)
{
    // A name may begin with a hyphen.
    char* const arguments[] = {text(config->control), text("smbd"), text("close-share"), text("--"),
                               text(share),           nullptr};
    return vy_fork_exec(config->control, arguments, nullptr, nullptr, nullptr);
}

const ShareServer samba_server = {
    .program = "vynas-samba",
    .help = help,
    .keys = {.includepath = {"includepath", "/run/vynas-samba/shares.conf", bridge_config_is_path},
             .control = {"smbcontrol", "smbcontrol", bridge_config_is_given},
             .user_fits = include_user_fits,
             .own = {{"macs", "disable", macs_is_switch},
                     {"timemachine", "", macs_is_list},
                     {"timemachinesize", "", macs_is_size}}},
    .names = {.forbidden = "%<>*?|/\\+=;:\",[]", .size = share_name_size, .accepts = nullptr},
    .harmless_lines = harmless_lines,
    .path_fault = include_path_fault,
    .head = head,
    .write_share = include_text_share,
    .read = read_list,
    .write = write_list,
    .reload = reload,
    .close = close_share,
    .control_name = "smbcontrol",
    .settle_ms = 0,
    .closes_all = false};
