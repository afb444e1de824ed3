#include "ksmbd/ksmbd_server.h"

#include "ksmbd/connections.h"
#include "ksmbd/ksmbd_file.h"
#include "ksmbd/ksmbd_text.h"
#include "lib/log.h"
#include "lib/process.h"
#include "lib/str.h"

#include <errno.h>
#include <unistd.h>

static constexpr char log_tag[] = "ksmbd_server";

// Is there while the kernel's server is.
static constexpr char module_path[] = "/sys/class/ksmbd-control";

// ksmbd.control returns when it has told ksmbd.mountd, which tells the process that answers the
// kernel. Whoever comes back takes longer than that, but not on a busy machine.
static constexpr int64_t settle_ms = 100;

static constexpr char help[] =
    "Usage: vynas-ksmbd [option]...\n"
    "Makes the shares of the hotplug service ksmbd's, now and whenever they change.\n"
    "\n"
    "  -f, --file FILE     configuration of the hotplug service\n"
    "                      (/etc/vyhotplugd/vyhotplugd.conf)\n"
    "  -c, --config FILE   own configuration (/etc/vynas-ksmbd/vynas-ksmbd.conf)\n"
    "      --once          bring ksmbd's configuration up to date, tell ksmbd, and end\n"
    "      --print         print what its list of shares should be, and end\n"
    "      --help          print this, and end\n"
    "      --version       print the version, and end\n";

static constexpr const char* harmless_lines[] = {"\tcomment =", nullptr};

namespace {

enum OwnKey : uint8_t {
    OWN_BASE,
    OWN_PORT,
};

} // namespace

static bool is_port(const char* value)
{
    int32_t number = 0;
    return str_to_long(value, &number, 10) == 0 && number > 0 && number <= UINT16_MAX;
}

static int read_list(const BridgeConfig* config, char** text)
{
    return ksmbd_file_read(config->includepath, config->own[OWN_BASE], text);
}

static int write_list(const BridgeConfig* config, const char* text)
{
    return ksmbd_file_write(config->includepath, config->own[OWN_BASE], text);
}

static pid_t reload(const BridgeConfig* config)
{
    // execvp takes strings of a writable type, but never writes to them.
    char* const arguments[] = {config->control, const_cast<char*>("--reload"), nullptr};
    return vy_fork_exec(config->control, arguments, nullptr, nullptr, nullptr);
}

static void tell_ended(int ended)
{
    if (ended == -EOPNOTSUPP) {
        VY_LOG(LOG_ERR, "this kernel cannot end connections (CONFIG_INET_DIAG_DESTROY): shares stay"
                        " in use while clients are connected");
    } else if (ended < 0) {
        VY_LOG(LOG_ERR, "cannot end the clients' connections (%d)", -ended);
    } else if (ended > 0) {
        VY_LOG(LOG_INFO, "%d connections are ended", ended);
    }
}

// Without the kernel's server the port is somebody else's.
static pid_t close_all(const BridgeConfig* config, const char* share)
{
    (void)share;
    int32_t port = 0;
    (void)str_to_long(config->own[OWN_PORT], &port, 10); // is_port holds
    if (access(module_path, F_OK) == 0)
        tell_ended(connections_end(static_cast<uint16_t>(port)));
    return 0;
}

const ShareServer ksmbd_server = {
    .program = "vynas-ksmbd",
    .help = help,
    .keys = {.includepath = {"configpath", "/run/vynas-ksmbd/ksmbd.conf", bridge_config_is_path},
             .control = {"ksmbdcontrol", "ksmbd.control", bridge_config_is_given},
             .user_fits = ksmbd_user_fits,
             .own = {{"globalpath", "/etc/ksmbd/ksmbd.conf", bridge_config_is_path},
                     {"port", "445", is_port}}},
    .names = {.forbidden = "%<>*?|/\\+=;:\",[]#$", .size = 64, .accepts = ksmbd_character_fits},
    .harmless_lines = harmless_lines,
    .path_fault = ksmbd_path_fault,
    .head = ksmbd_file_head,
    .write_share = ksmbd_text_share,
    .read = read_list,
    .write = write_list,
    .reload = reload,
    .close = close_all,
    .control_name = "ksmbd.control",
    .settle_ms = settle_ms,
    .closes_all = true};
