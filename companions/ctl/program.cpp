#include "ctl/program.h"

#include "ctl/call_check.h"
#include "ctl/call_edit.h"
#include "ctl/call_mount.h"
#include "ctl/call_set.h"
#include "ctl/call_status.h"
#include "ctl/call_users.h"
#include "ctl/call_watch.h"
#include "lib/platform.h"
#include "lib/str.h"
#include "lib/version.h"

#include <errno.h>
#include <getopt.h>
#include <string.h>
#include <unistd.h>

static constexpr uint8_t no_most = UINT8_MAX;

static int call_help(const CallArgs& args);

static constexpr CallRow call_rows[] = {
    {"status", "[--all]", "what is plugged, mounted and shared; --all: and what is known",
     TAKES_JSON | TAKES_ALL, 0, 0, false, call_status},
    {"show", "TARGET", "everything about one", TAKES_JSON, 1, 1, false, call_show},
    {"who", "TARGET", "who holds files there", TAKES_JSON, 1, 1, false, call_who},
    {"set", "TARGET KEY=VALUE... [--wait SECONDS]", "change settings of a share", TAKES_WAIT, 2,
     no_most, true, call_set},
    {"unset", "TARGET KEY... [--wait SECONDS]", "back to what is when nothing is set", TAKES_WAIT,
     2, no_most, true, call_unset},
    {"edit", "[TARGET]", "settings in an editor, checked and set when it ends", 0, 0, 1, true,
     call_edit},
    {"forget", "TARGET [--wait SECONDS]", "no settings any more", TAKES_WAIT, 1, 1, true,
     call_forget},
    {"mount", "TARGET", "mount it again", 0, 1, 1, true, call_mount},
    {"unmount", "TARGET [--force] [--wait SECONDS]", "write everything down and unmount it",
     TAKES_FORCE | TAKES_WAIT, 1, 1, true, call_unmount},
    {"eject", "TARGET [--wait SECONDS]", "unmount the whole disk and switch it off, to be pulled",
     TAKES_WAIT, 1, 1, true, call_eject},
    {"watch", "", "a line for each thing that happens", TAKES_JSON, 0, 0, false, call_watch},
    {"users", "", "whom shares can be for", TAKES_JSON, 0, 0, false, call_users},
    {"check", "[--configuration]", "what is wrong here, and what to type",
     TAKES_JSON | TAKES_CONFIG, 0, 0, false, call_check},
    {"help", "", "this", 0, 0, no_most, false, call_help},
};

// ---- help ----

static int call_help(const CallArgs& args)
{
    FILE* out = args.out.out;
    text_print(out, "usage: vyhotplugctl [CALL] [OPTION]... [TARGET]...\n\n");
    for (const CallRow& row : call_rows)
        text_print(out, "  %s %s%s\n        %s\n", row.name, row.synopsis,
                   (row.options & TAKES_JSON) != 0 ? " [--json]" : "", row.help);
    text_print(out, "\n"
                    "TARGET: sda, sda1, an identity, a share's name, a label or a directory\n"
                    "\n"
                    "  -f, --file FILE  the service's configuration\n"
                    "      --json       for programs, see docs/json.md\n"
                    "      --sysfs DIR  where sysfs is mounted (/sys)\n"
                    "      --run DIR    what the agent tells (/run/vyhotplugd)\n"
                    "      --version    print the version\n"
                    "\n"
                    "Ends with 0 done, 1 refused or failed, 2 wrong call, 3 the service is not\n"
                    "running, 4 busy, 5 nothing fits the target.\n");
    return EXIT_DONE;
}

// ---- options ----

namespace {

// What is not for some calls only. The codes of the others are theirs: CallOption.
enum OptionCode : int {
    CODE_SYSFS = 256,
    CODE_RUN,
    CODE_HELP,
    CODE_VERSION,
};

constexpr option long_options[] = {
    {"json", no_argument, nullptr, TAKES_JSON},
    {"all", no_argument, nullptr, TAKES_ALL},
    {"force", no_argument, nullptr, TAKES_FORCE},
    {"wait", required_argument, nullptr, TAKES_WAIT},
    {"configuration", no_argument, nullptr, TAKES_CONFIG},
    {"file", required_argument, nullptr, 'f'},
    {"sysfs", required_argument, nullptr, CODE_SYSFS},
    {"run", required_argument, nullptr, CODE_RUN},
    {"help", no_argument, nullptr, CODE_HELP},
    {"version", no_argument, nullptr, CODE_VERSION},
    {nullptr, 0, nullptr, 0},
};

struct CommandLine {
    CallArgs args;
    SetupPaths paths;
    unsigned options; // CallOption that were given
    bool help;
    bool version;
};

} // namespace

static int refuse(const char* what, const char* about)
{
    complain("%s%s\nTry: vyhotplugctl help", what, about);
    return EXIT_WRONG_CALL;
}

static int take_wait(CommandLine* line)
{
    if (optarg[0] >= '0' && optarg[0] <= '9' && str_to_long(optarg, &line->args.wait_s, 10) == 0 &&
        line->args.wait_s <= 86400)
        return EXIT_DONE;
    return refuse("not a number of seconds up to a day: ", optarg);
}

static int take_option(CommandLine* line, int code)
{
    switch (code) {
    case TAKES_JSON:
    case TAKES_ALL:
    case TAKES_FORCE:
    case TAKES_CONFIG:
    case TAKES_WAIT:
        line->options |= static_cast<unsigned>(code);
        return code == TAKES_WAIT ? take_wait(line) : EXIT_DONE;
    case 'f':
        line->paths.config = optarg;
        return EXIT_DONE;
    case CODE_SYSFS:
        line->paths.sysfs = optarg;
        return EXIT_DONE;
    case CODE_RUN:
        line->paths.run = optarg;
        return EXIT_DONE;
    case CODE_HELP:
        line->help = true;
        return EXIT_DONE;
    case CODE_VERSION:
        line->version = true;
        return EXIT_DONE;
    default:
        return refuse("wrong option", ""); // getopt_long has told which
    }
}

static int parse(int argc, char* argv[], CommandLine* line)
{
    line->args = {};
    line->args.wait_s = -1;
    line->args.out = terminal_open(stdout);
    line->paths = setup_defaults;
    line->options = 0;
    line->help = line->version = false;
    optind = 0; // 0 starts over with glibc, musl and uClibc alike
    int status = EXIT_DONE;
    int code = 0;
    while (status == EXIT_DONE &&
           (code = getopt_long(argc, argv, "f:", long_options, nullptr)) != -1)
        status = take_option(line, code);
    line->args.json = (line->options & TAKES_JSON) != 0;
    line->args.all = (line->options & TAKES_ALL) != 0;
    line->args.force = (line->options & TAKES_FORCE) != 0;
    line->args.offline = (line->options & TAKES_CONFIG) != 0;
    line->args.words = argv + optind;
    line->args.count = argc - optind;
    return status;
}

// ---- the program ----

static const CallRow* find_call(const char* name)
{
    for (const CallRow& row : call_rows) {
        if (strcmp(row.name, name) == 0)
            return &row;
    }
    return nullptr;
}

// Whether the words and options fit the call.
static int check(const CallRow& row, const CommandLine& line)
{
    if (line.args.count < row.least)
        return refuse("something is missing; ", row.synopsis);
    if (line.args.count > row.most && row.most != no_most)
        return refuse("unexpected: ", line.args.words[row.most]);
    if ((line.options & ~row.options) != 0)
        return refuse("an option that is not for ", row.name);
    if (row.root && geteuid() != 0) {
        complain("only root can %s; try: sudo vyhotplugctl %s ...", row.name, row.name);
        return EXIT_FAILED;
    }
    return EXIT_DONE;
}

static int run(const CallRow& row, CommandLine* line, Setup* setup)
{
    int status = check(row, *line);
    if (status != EXIT_DONE)
        return status;
    if (row.run == call_help)
        return call_help(line->args);
    line->args.setup = setup;
    status = setup_begin(line->paths, setup) == 0 ? row.run(line->args) : EXIT_FAILED;
    setup_end(setup);
    line->args.setup = nullptr;
    return status;
}

// What could not be printed is a failure, too.
static int end_printing(int status)
{
    if (stream_flush(stdout) == 0)
        return status;
    const ExitStatus failed = complain_errno(nullptr, errno);
    return status == EXIT_DONE ? failed : status;
}

int ctl_main(int argc, char* argv[])
{
    CommandLine line;
    Setup setup;
    static char buffer[512]; // to the end of the process
    // A complaint is written as a line, and not a piece at a time between those of others.
    (void)setvbuf(stderr, buffer, _IOLBF, sizeof buffer);
    const int status = parse(argc, argv, &line);
    if (status != EXIT_DONE)
        return status;
    if (line.version) {
        text_print(line.args.out.out, "vyhotplugctl %s\n", vy_build);
        return end_printing(EXIT_DONE);
    }
    if (line.help)
        return end_printing(call_help(line.args));
    const char* name = line.args.count > 0 ? line.args.words[0] : "status";
    const CallRow* row = find_call(name);
    if (row == nullptr)
        return refuse("no such call: ", name);
    if (line.args.count > 0) {
        line.args.words++;
        line.args.count--;
    }
    return end_printing(run(*row, &line, &setup));
}
