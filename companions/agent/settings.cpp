#include "agent/settings.h"

#include "lib/str.h"

#include <getopt.h>
#include <stdio.h>
#include <string.h>

static constexpr char program[] = "vyhotplug-agent";

// Each is told by its last field: a mode by its own number, the others by a letter.
static constexpr option long_options[] = {
    {"monitor", no_argument, nullptr, AGENT_MONITOR},
    {"once", no_argument, nullptr, AGENT_ONCE},
    {"scan", no_argument, nullptr, AGENT_SCAN},
    {"list", no_argument, nullptr, AGENT_LIST},
    {"help", no_argument, nullptr, AGENT_HELP},
    {"version", no_argument, nullptr, AGENT_VERSION},
    {"all", no_argument, nullptr, 'a'},
    {"by-share", no_argument, nullptr, 'b'},
    {"config", required_argument, nullptr, 'c'},
    {"mounts", required_argument, nullptr, 'm'},
    {"not-mounted", required_argument, nullptr, 'n'},
    {"proc", required_argument, nullptr, 'p'},
    {"state", required_argument, nullptr, 't'},
    {"sysfs", required_argument, nullptr, 's'},
    {"wait", required_argument, nullptr, 'w'},
    {nullptr, 0, nullptr, 0},
};

void settings_print_help()
{
    printf(
        "usage: %s MODE [OPTION]...\n"
        "\n"
        "Tells vyhotplugd of USB disks and MMC/SD cards that come and go.\n"
        "\n"
        "modes:\n"
        "  --monitor        tell of what is plugged, then of every change; stays in the\n"
        "                   foreground\n"
        "  --once           tell of the event in the environment (ACTION, DEVPATH, ...)\n"
        "  --scan           tell of everything that is plugged\n"
        "  --list           print what would be told\n"
        "  --help           print this\n"
        "  --version        print the version\n"
        "\n"
        "options:\n"
        "  --all            tell of disks that the machine itself uses, too\n"
        "  --by-share       keep links by-share/NAME in the mount directory, one for each share\n"
        "  --config FILE    the service's configuration\n"
        "                   (default /etc/vyhotplugd/vyhotplugd.conf)\n"
        "  --mounts DIR     where the service mounts (default /media/vyhotplug)\n"
        "  --not-mounted FILE\n"
        "                   where it is kept what is not mounted and why, \"\" for nowhere\n"
        "                   (default /run/vyhotplugd/not-mounted)\n"
        "  --proc DIR       where procfs is mounted (default /proc)\n"
        "  --state FILE     where it is kept what the service was told, \"\" for nowhere\n"
        "                   (default /run/vyhotplug-agent.state)\n"
        "  --sysfs DIR      where sysfs is mounted (default /sys)\n"
        "  --wait SECONDS   how long --once and --scan wait for the service (default %d)\n",
        program, agent_wait_default);
}

static int complain(const char* what, const char* about)
{
    fprintf(stderr, "%s: %s%s\nTry '%s --help'.\n", program, what, about, program);
    return -1;
}

static int set_directory(const char** field)
{
    if (optarg[0] != '/')
        return complain("not an absolute path: ", optarg);
    if (strlen(optarg) >= agent_folder_size)
        return complain("path too long: ", optarg);
    *field = optarg;
    return 0;
}

static int take_option(AgentSettings* settings, int code)
{
    switch (code) {
    case 'a':
        settings->all = true;
        return 0;
    case 'b':
        settings->by_share = true;
        return 0;
    case 'c':
        return set_directory(&settings->config);
    case 'm':
        if (optarg[strspn(optarg, "/")] == '\0') // everything lies below "/"
            return complain("no directory of the service's: ", optarg);
        return set_directory(&settings->mounts);
    case 'n':
        settings->not_mounted = "";
        return optarg[0] != '\0' ? set_directory(&settings->not_mounted) : 0;
    case 'p':
        return set_directory(&settings->proc);
    case 's':
        return set_directory(&settings->sysfs);
    case 't':
        settings->state = "";
        return optarg[0] != '\0' ? set_directory(&settings->state) : 0;
    case 'w':
        if (optarg[0] >= '0' && optarg[0] <= '9' && str_to_long(optarg, &settings->wait, 10) == 0 &&
            settings->wait <= agent_wait_most)
            return 0;
        return complain("not a number of seconds up to a day: ", optarg);
    case '?': // getopt_long has told
        return complain("wrong command line", "");
    default:
        if (settings->mode != AGENT_NO_MODE)
            return complain("more than one mode", "");
        settings->mode = static_cast<AgentMode>(code);
        return 0;
    }
}

int settings_parse(int argc, char* argv[], AgentSettings* settings)
{
    *settings = {};
    int code = 0;
    while ((code = getopt_long(argc, argv, "", long_options, nullptr)) != -1) {
        if (take_option(settings, code) != 0)
            return -1;
    }
    if (optind < argc)
        return complain("unexpected argument: ", argv[optind]);
    return settings->mode != AGENT_NO_MODE ? 0 : complain("no mode given", "");
}
