#include "core/startup.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "fake_start.h"
#include "lib/guard.h"
#include "lib/process.h"
#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

const char help_text[] = "\n"
                         "VY NAS Mira - Hotplug Daemon.\n"
                         "Usage: vyhotplugd {option}\n"
                         "\n"
                         "option:\n"
                         " -f --file  [path] : config file path(def=/tmp/vynasmira/"
                         "vyhotplugd.conf)\n"
                         " -d --debug        : debug mode. runs as a non-daemon.\n"
                         " -h --help         : display this help message and exit.\n"
                         " -v --version      : display this program version and exit.\n"
                         " -l --level [level]    : log level.(def:3)\n"
                         "            Emergency=0,  Alert=1,  Critical=2,   Error=3\n"
                         "            Warning=4,    Notice=5, Infomation=6, Debug=7\n"
                         "\n"
                         "\n";
const char version_text[] = "vyhotplugd --- version 1.0.5.beta2-bk\n\n";
const char parse_error[] = "Error - parse command line\n";
const char pid_file[] = "/var/run/vyhotplugd.pid";
const char report_file[] = "/run/report";
const char config_file[] = "/tmp/daemon.conf";

std::string undefined_level(const std::string& level)
{
    return "Error : Undefined Log Level(" + level +
           ")\n LOG_EMERG  = 0\n LOG_ALERT  = 1\n LOG_CRIT   = 2\n LOG_ERR    = 3\n"
           " LOG_WARNING= 4\n LOG_NOTICE = 5\n LOG_INFO   = 6\n LOG_DEBUG  = 7\n";
}

// The library's own word on a wrong option, which begins with the program's name, left out.
std::string without_library_line(const std::string& text, const std::string& program)
{
    const bool found = text.compare(0, program.size() + 2, program + ": ") == 0;
    return found ? text.substr(text.find('\n') + 1) : text;
}

// ---- how a process ends: told by an exit handler, when all its descriptors are closed ----

int count_open_descriptors()
{
    int count = 0;
    for (int fd = 0; fd <= 254; fd++)
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    return count;
}

bool is_lock_free()
{
    const FdGuard fd(open(pid_file, O_RDONLY));
    return fd.get() < 0 || flock(fd.get(), LOCK_EX | LOCK_NB) == 0;
}

void write_report()
{
    std::string report = "open " + std::to_string(count_open_descriptors()) + "\n";
    report += is_lock_free() ? "lock free\n" : "lock held\n";
    report += "mask " + std::to_string(setlogmask(0)) + "\n";
    report += fake_start().log + "\n";
    report += fake_start().sigactions;
    for (std::string text : fake_log_texts()) {
        if (text.back() == '\n')
            text.replace(text.size() - 1, 1, "\\n");
        report += "log " + text + "\n";
    }
    write_file(report_file, report);
}

struct Start {
    ChildResult result;
    Names report; // the exit handler's lines
};

Names lines_of(const std::string& text)
{
    Names lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

// Starts the daemon's main function in a child, with `prepare` before it.
Start start_daemon(const Names& arguments, const std::function<void()>& prepare = {})
{
    Names all = {"/usr/sbin/vyhotplugd"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    unlink(report_file);
    const ChildResult result = run_child([&] {
        atexit(write_report);
        if (prepare)
            prepare();
        fake_start().keep_signals = true;
        return call_main(vyhotplug_main, all);
    });
    return {result, lines_of(read_file(report_file))};
}

// As start_daemon in the foreground; in the loop's first pause `step` is taken.
Start run_in_foreground(const std::function<void()>& step, Names arguments = {})
{
    arguments.insert(arguments.begin(), {"-d", "-f", config_file});
    if (!exists(config_file))
        write_file(config_file, "mountpath=/tmp\ndevicepath=/tmp\n");
    return start_daemon(arguments, [&] { fake_world().on_sleep = [step](uint64_t) { step(); }; });
}

void terminate()
{
    raise(SIGTERM);
}

Names log_of(const Start& start)
{
    Names texts;
    for (const std::string& line : start.report) {
        if (line.compare(0, 4, "log ") == 0)
            texts.push_back(line.substr(4));
    }
    return texts;
}

bool reports(const Start& start, const std::string& line)
{
    for (const std::string& found : start.report) {
        if (found == line)
            return true;
    }
    return false;
}

// ---- texts ----

TEST(Startup, PrintsItsVersion)
{
    for (const char* option : {"-v", "--version"}) {
        const Start start = start_daemon({option});
        EXPECT_EQ(start.result.err, version_text);
        EXPECT_EQ(start.result.out, "");
        EXPECT_EQ(start.result.status, 0);
        EXPECT_EQ(log_of(start), Names{});
    }
}

TEST(Startup, PrintsItsHelp)
{
    for (const char* option : {"-h", "--help"}) {
        const Start start = start_daemon({option});
        EXPECT_EQ(start.result.err, help_text);
        EXPECT_EQ(start.result.out, "");
        EXPECT_EQ(start.result.status, 0);
    }
}

TEST(Startup, VersionAndHelpNeedNotBeRoot)
{
    for (const char* option : {"-v", "-h"}) {
        const Start start = start_daemon({option}, [] { (void)!setuid(65534); });
        EXPECT_EQ(start.result.status, 0);
        EXPECT_EQ(start.result.err, option[1] == 'v' ? version_text : help_text);
    }
}

TEST(Startup, TheFirstOfVersionAndHelpWins)
{
    EXPECT_EQ(start_daemon({"-v", "-h"}).result.err, version_text);
    EXPECT_EQ(start_daemon({"-hv"}).result.err, help_text);
    EXPECT_EQ(start_daemon({"-l", "5", "-v", "-k"}).result.err, version_text);
}

// ---- wrong command lines ----

void expect_parse_error(const Names& arguments, const std::string& text)
{
    SCOPED_TRACE(arguments.back());
    const Start start = start_daemon(arguments);
    EXPECT_EQ(without_library_line(start.result.err, "/usr/sbin/vyhotplugd"), text + parse_error);
    EXPECT_EQ(start.result.out, "");
    EXPECT_EQ(start.result.status, 255);
    EXPECT_EQ(log_of(start), (Names{"main(#)Error - exit vyhotplugd (-1)"}));
    EXPECT_FALSE(exists(pid_file));
}

TEST(Startup, RefusesALevelAbove7)
{
    expect_parse_error({"-l", "8"}, undefined_level("8"));
    expect_parse_error({"-l", "2147483647"}, undefined_level("2147483647"));
    expect_parse_error({"--level=100"}, undefined_level("100"));
}

TEST(Startup, RefusesANegativeLevel)
{
    expect_parse_error({"-l", "-1"}, undefined_level("-1"));
}

TEST(Startup, RefusesALevelThatIsNoNumber)
{
    const std::string text = "Error : read log level (" + std::to_string(EINVAL) + ")\n";
    expect_parse_error({"-l", "abc"}, text);
    expect_parse_error({"-l", "7x"}, text);
    expect_parse_error({"-l", ""}, text);
}

TEST(Startup, RefusesALevelBeyondAllNumbers)
{
    const std::string text = "Error : read log level (" + std::to_string(ERANGE) + ")\n";
    expect_parse_error({"-l", "99999999999"}, text);
    expect_parse_error({"-l", "2147483648"}, text);
    expect_parse_error({"-l", "-2147483649"}, text);
}

std::string code_text(const char* code)
{
    return std::string("getopt returned character code ") + code + "\n\n" + help_text;
}

TEST(Startup, RefusesAnUnknownOption)
{
    expect_parse_error({"-x"}, code_text("0x3f"));
    expect_parse_error({"--unknown"}, code_text("0x3f"));
    expect_parse_error({"-l"}, code_text("0x3f"));
    expect_parse_error({"--debug=1"}, code_text("0x3f"));
}

// Kept: the option string knows it, nothing else does.
TEST(Startup, RefusesTheOptionK)
{
    expect_parse_error({"-k"}, code_text("0x6b"));
}

TEST(Startup, RefusesAWordThatIsNoOption)
{
    expect_parse_error({"word"}, code_text("0x1"));
    expect_parse_error({"-d", "word"}, code_text("0x1"));
}

TEST(Startup, RefusesAMissingConfigurationFile)
{
    const std::string text = std::string("Error : no such file (/tmp/missing)\n") + help_text;
    expect_parse_error({"-f", "/tmp/missing"}, text);
    expect_parse_error({"--file", "/tmp/missing"}, text);
}

// What is not there is told before what is too long.
TEST(Startup, ALongPathToNothingIsAMissingFile)
{
    const std::string path = "/tmp/" + std::string(123, 'm');
    ASSERT_EQ(path.size(), 128U);
    expect_parse_error({"-f", path}, "Error : no such file (" + path + ")\n" + help_text);
    const std::string longer = "/tmp/" + std::string(200, 'm');
    expect_parse_error({"-f", longer}, "Error : no such file (" + longer + ")\n" + help_text);
}

TEST(Startup, RefusesTheFileOptionWithoutAPath)
{
    const std::string text = std::string("Error : no such file ((null))\n") + help_text;
    expect_parse_error({"-f"}, text);
    expect_parse_error({"--file"}, text);
}

// A path to an existing file that has this length.
std::string path_of_length(size_t length)
{
    write_file("/tmp/daemon.conf", "mountpath=/tmp\n");
    std::string path = "/tmp";
    while (path.size() + strlen("/daemon.conf") < length)
        path += '/';
    return path + "/daemon.conf";
}

TEST(Startup, RefusesAPathOf128Characters)
{
    const std::string path = path_of_length(128);
    ASSERT_EQ(path.size(), 128U);
    expect_parse_error({"-f", path}, "Error : too long (config file path)\n");
}

TEST(Startup, AcceptsAPathOf127Characters)
{
    const std::string path = path_of_length(127);
    ASSERT_EQ(path.size(), 127U);
    const Start start = run_in_foreground(terminate, {"-f", path});
    EXPECT_EQ(start.result.status, 0);
    EXPECT_TRUE(reports(start, "log daemon(#)Load Config File(" + path + ")"));
}

// ---- root ----

TEST(Startup, IsForRootOnly)
{
    for (const Names& arguments : {Names{}, Names{"-d"}, Names{"-D"}}) {
        const Start start = start_daemon(arguments, [] {
            chmod("/run", 0777); // the handler's report is to be written all the same
            (void)!setuid(65534);
        });
        EXPECT_EQ(start.result.err, "root only.\n");
        EXPECT_EQ(start.result.status, 255);
        EXPECT_EQ(log_of(start),
                  (Names{"main(#)Error - initialize", "main(#)Error - exit vyhotplugd (-1)"}));
    }
}

TEST(Startup, AWrongCommandLineIsToldBeforeRootIsAskedFor)
{
    const Start start = start_daemon({"-k"}, [] { (void)!setuid(65534); });
    EXPECT_EQ(without_library_line(start.result.err, "/usr/sbin/vyhotplugd"),
              code_text("0x6b") + parse_error);
}

// ---- the foreground ----

TEST(Startup, RunsInTheForegroundUntilItIsTerminated)
{
    for (const int number : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(number);
        const Start start = run_in_foreground([number] { raise(number); });
        EXPECT_EQ(start.result.status, 0);
        EXPECT_EQ(start.result.err, "");
        const Names log = log_of(start);
        ASSERT_FALSE(log.empty());
        EXPECT_EQ(log.front(), "main(#)Application intialize is success.");
        EXPECT_EQ(log[1], "daemon(#)Load Config File(/tmp/daemon.conf)");
        EXPECT_EQ(log.back(), "main(#)exit vyhotplugd");
    }
}

TEST(Startup, ClosesEverythingAndLetsTheLockGoAtItsEnd)
{
    const Start start = run_in_foreground(terminate);
    EXPECT_TRUE(reports(start, "open 0"));
    EXPECT_TRUE(reports(start, "lock free"));
    EXPECT_TRUE(exists(pid_file)); // the file itself stays
}

TEST(Startup, ClosesEverythingWhenItFailsToo)
{
    const Start start = start_daemon({"-k"});
    EXPECT_TRUE(reports(start, "open 0"));
}

TEST(Startup, HoldsTheLockWithItsPidWhileItRuns)
{
    const Start start = run_in_foreground([] {
        write_file("/run/seen", (is_lock_free() ? "free " : "held ") + read_file(pid_file) +
                                    std::to_string(getpid()) + "\n");
        terminate();
    });
    EXPECT_EQ(start.result.status, 0);
    const std::string seen = read_file("/run/seen");
    EXPECT_EQ(seen.substr(0, 5), "held ");
    const Names pids = lines_of(seen.substr(5));
    ASSERT_EQ(pids.size(), 2U);
    EXPECT_EQ(pids[0], pids[1]);
}

TEST(Startup, RunsOnlyOnce)
{
    const FdGuard lock(vy_create_pid_file("vyhotplugd"));
    ASSERT_GE(lock.get(), 0);
    const std::string content = read_file(pid_file);
    const Start start = run_in_foreground(terminate);
    EXPECT_EQ(start.result.status, 255);
    EXPECT_EQ(log_of(start),
              (Names{"main(#)cannot run more than one process\\n", "main(#)Error - initialize",
                     "main(#)Error - exit vyhotplugd (-1)"}));
    EXPECT_EQ(read_file(pid_file), content);
}

TEST(Startup, RunsAgainBehindAStalePidFile)
{
    write_file(pid_file, "99999999\nand more\n");
    const Start start = run_in_foreground(terminate);
    EXPECT_EQ(start.result.status, 0);
    EXPECT_EQ(lines_of(read_file(pid_file)).size(), 1U);
}

// LOG_DAEMON is 0x18; LOG_PID is 1, LOG_PERROR is 0x20.
TEST(Startup, TheForegroundLogsToItsTerminalToo)
{
    EXPECT_TRUE(reports(run_in_foreground(terminate), "openlog vyhotplugd 0x21 0x18"));
}

TEST(Startup, TheDaemonLogsToTheSystemLogAlone)
{
    write_file(config_file, "mountpath=/tmp\n");
    const Start start = start_daemon({"-D", "-f", config_file},
                                     [] { fake_world().on_sleep = [](uint64_t) { terminate(); }; });
    EXPECT_EQ(start.result.status, 0);
    EXPECT_TRUE(reports(start, "openlog vyhotplugd 0x1 0x18"));
}

TEST(Startup, TheLongOptionForTheForegroundIsDebug)
{
    write_file(config_file, "mountpath=/tmp\n");
    const Start start = start_daemon({"--debug", "-f", config_file}, [] {
        fake_start().daemon_error = EAGAIN;
        fake_world().on_sleep = [](uint64_t) { terminate(); };
    });
    EXPECT_EQ(start.result.status, 0);
    EXPECT_TRUE(reports(start, "openlog vyhotplugd 0x21 0x18"));
}

TEST(Startup, TheLongOptionForTheRestartedDaemonIsDaemon)
{
    write_file(config_file, "mountpath=/tmp\n");
    const Start start = start_daemon({"--Daemon", "-f", config_file}, [] {
        fake_start().daemon_error = EAGAIN; // it is detached already
        fake_world().on_sleep = [](uint64_t) { terminate(); };
    });
    EXPECT_EQ(start.result.status, 0);
    EXPECT_TRUE(reports(start, "openlog vyhotplugd 0x1 0x18"));
}

TEST(Startup, TheLogMaskHoldsEveryPriorityUpToTheLevel)
{
    EXPECT_TRUE(reports(run_in_foreground(terminate), "mask 31")); // warnings: not as the help says
    EXPECT_TRUE(reports(run_in_foreground(terminate, {"-l", "0"}), "mask 1"));
    EXPECT_TRUE(reports(run_in_foreground(terminate, {"-l", "3"}), "mask 15"));
    EXPECT_TRUE(reports(run_in_foreground(terminate, {"--level", "7"}), "mask 255"));
}

TEST(Startup, InstallsItsSignalHandlers)
{
    struct Row {
        const char* signal;
        unsigned flags;
        const char* handling;
    };
    const auto once = static_cast<unsigned>(SA_RESETHAND);
    const Start start = run_in_foreground(terminate);
    for (const Row& row :
         {Row{"SIGINT", once | SA_SIGINFO, "handled"}, Row{"SIGTERM", once | SA_SIGINFO, "handled"},
          Row{"SIGHUP", SA_RESTART | SA_SIGINFO, "handled"},
          Row{"SIGPIPE", SA_RESTART | SA_NOCLDSTOP, "ignored"}}) {
        char line[64];
        (void)snprintf(line, sizeof line, "%s 0x%x %s", row.signal, row.flags, row.handling);
        EXPECT_TRUE(reports(start, line)) << line;
    }
}

TEST(Startup, ASecondTerminationKills)
{
    for (const int number : {SIGTERM, SIGINT}) {
        const Start start = run_in_foreground([number] {
            raise(number);
            raise(number);
        });
        EXPECT_EQ(start.result.status, 128 + number);
    }
}

TEST(Startup, AHangupAsksForARefreshAndRunsOn)
{
    static int pauses = 0;
    const Start start = run_in_foreground([] {
        pauses++;
        if (pauses == 2) // behind the first refresh
            raise(SIGHUP);
        if (pauses == 4)
            terminate();
        write_file("/run/renames",
                   std::to_string(fake_world().calls("rename /tmp/vyhotplug.dir").size()));
    });
    EXPECT_EQ(start.result.status, 0);
    EXPECT_EQ(read_file("/run/renames"), "2");
}

TEST(Startup, AHangupMayComeAgain)
{
    const Start start = run_in_foreground([] {
        raise(SIGHUP);
        raise(SIGHUP);
        terminate();
    });
    EXPECT_EQ(start.result.status, 0);
}

TEST(Startup, ABrokenPipeIsIgnored)
{
    const Start start = run_in_foreground([] {
        raise(SIGPIPE);
        terminate();
    });
    EXPECT_EQ(start.result.status, 0);
}

TEST(Startup, FailsWhenASignalHandlerCannotBeInstalled)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        SCOPED_TRACE(number);
        const Start start = start_daemon({"-d"}, [number] {
            fake_start().sigaction_number = number;
            fake_start().sigaction_error = EPERM;
        });
        EXPECT_EQ(start.result.status, 256 - EPERM);
        const std::string error = std::to_string(EPERM);
        EXPECT_EQ(log_of(start), (Names{"main(#)Error - Signal Handler(" + error + ")",
                                        "main(#)Error - initialize",
                                        "main(#)Error - exit vyhotplugd (-" + error + ")"}));
        EXPECT_TRUE(reports(start, "lock free"));
    }
}

TEST(Startup, EndsWithTheErrorOfARunThatCouldNotStart)
{
    const Start start = start_daemon({"-d"}, [] { fake_start().pthread_create_error = EAGAIN; });
    EXPECT_EQ(start.result.status, 255);
    const Names log = log_of(start);
    EXPECT_EQ(log.back(), "main(#)Error - exit vyhotplugd (-1)");
    for (const std::string& line : log)
        EXPECT_NE(line, "main(#)Error - initialize");
}

// ---- which configuration ----

std::string loaded_config(const Start& start)
{
    const std::string begin = "daemon(#)Load Config File(";
    for (const std::string& line : log_of(start)) {
        if (line.compare(0, begin.size(), begin) == 0)
            return line.substr(begin.size(), line.size() - begin.size() - 1);
    }
    return "none";
}

// What a foreground daemon loads that is started in this directory.
std::string config_loaded_in(const std::string& directory, const Names& arguments = {})
{
    Names all = {"-d"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return loaded_config(start_daemon(all, [&] {
        EXPECT_EQ(chdir(directory.c_str()), 0);
        fake_world().on_sleep = [](uint64_t) { terminate(); };
    }));
}

TEST(Startup, TakesTheConfigurationOfItsDirectoryFirst)
{
    ASSERT_EQ(mkdir("/tmp/place", 0755), 0);
    ASSERT_EQ(mkdir("/tmp/vynasmira", 0755), 0);
    write_file("/tmp/place/vyhotplugd.conf", "mountpath=/tmp\n");
    write_file("/tmp/vynasmira/vyhotplugd.conf", "mountpath=/tmp\n");
    EXPECT_EQ(config_loaded_in("/tmp/place"), "/tmp/place/./vyhotplugd.conf");
    EXPECT_EQ(config_loaded_in("/tmp"), "/tmp/vynasmira/vyhotplugd.conf");
}

TEST(Startup, WithoutAConfigurationThePathIsTheDirectory)
{
    ASSERT_EQ(mkdir("/tmp/place", 0755), 0);
    EXPECT_EQ(config_loaded_in("/tmp/place"), "/tmp/place/");
}

TEST(Startup, ARelativePathBecomesAbsolute)
{
    ASSERT_EQ(mkdir("/tmp/place", 0755), 0);
    write_file("/tmp/place/my.conf", "mountpath=/tmp\n");
    EXPECT_EQ(config_loaded_in("/tmp/place", {"-f", "my.conf"}), "/tmp/place/my.conf");
    EXPECT_EQ(config_loaded_in("/tmp/place", {"-f", "../place/my.conf"}),
              "/tmp/place/../place/my.conf");
}

TEST(Startup, TheRestartedDaemonTakesItsPathAsItIs)
{
    ASSERT_EQ(mkdir("/tmp/place", 0755), 0);
    write_file("/tmp/place/my.conf", "mountpath=/tmp\n");
    EXPECT_EQ(config_loaded_in("/tmp/place", {"-D", "-f", "my.conf"}), "my.conf");
}

TEST(Startup, AnAbsolutePathThatGrowsTooLongIsCutTo127Characters)
{
    const std::string directory = "/tmp/" + std::string(100, 'd');
    const std::string name = std::string(60, 'n');
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    write_file(directory + "/" + name, "mountpath=/tmp\n");
    EXPECT_EQ(config_loaded_in(directory, {"-f", name}), (directory + "/" + name).substr(0, 127));
}

TEST(Startup, WithoutAWorkingDirectoryThePathStaysRelative)
{
    ASSERT_EQ(mkdir("/tmp/gone", 0755), 0);
    const Start start = start_daemon({"-d"}, [] {
        EXPECT_EQ(chdir("/tmp/gone"), 0);
        EXPECT_EQ(rmdir("/tmp/gone"), 0);
        fake_world().on_sleep = [](uint64_t) { terminate(); };
    });
    EXPECT_EQ(start.result.status, 0);
    EXPECT_EQ(loaded_config(start), "");
}

// Makes a directory below /tmp whose path has more than the 255 characters that are asked for.
std::string make_deep_directory()
{
    std::string path = "/tmp";
    for (int depth = 0; depth < 3; depth++) {
        path += "/" + std::string(100, 'd');
        EXPECT_EQ(mkdir(path.c_str(), 0755), 0);
    }
    return path;
}

TEST(Startup, InADirectoryThatIsTooDeepThePathStaysRelative)
{
    const std::string deep = make_deep_directory();
    write_file(deep + "/my.conf", "mountpath=/tmp\n");
    EXPECT_EQ(config_loaded_in(deep, {"-f", "my.conf"}), "my.conf");
}

// ---- where the program is ----

TEST(Startup, ARelativeProgramNeedsAWorkingDirectory)
{
    ASSERT_EQ(mkdir("/tmp/gone", 0755), 0);
    const ChildResult result = run_child([] {
        EXPECT_EQ(chdir("/tmp/gone"), 0);
        EXPECT_EQ(rmdir("/tmp/gone"), 0);
        // Not even the help is given.
        return call_main(vyhotplug_main, {"bin/vyhotplugd", "-h"}) == -1 ? 5 : 6;
    });
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "");
}

TEST(Startup, ARelativeProgramNeedsADirectoryThatIsNotTooDeep)
{
    const std::string deep = make_deep_directory();
    const ChildResult result = run_child([&] {
        EXPECT_EQ(chdir(deep.c_str()), 0);
        return call_main(vyhotplug_main, {"bin/vyhotplugd", "-h"}) == -1 ? 5 : 6;
    });
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "");
}

// ---- becoming a daemon ----

// Puts a script in the program's place that tells how it was started again.
void put_program(const std::string& path)
{
    write_file(path, "#!/bin/sh\n"
                     "exec > /run/started.tmp\n"
                     "echo \"$0\" \"$@\"\n"
                     "pwd\n"
                     "for fd in 0 2 3 4 5; do readlink /proc/$$/fd/$fd; done\n"
                     "mv /run/started.tmp /run/started\n");
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}

// Starts the daemon under this name in /tmp/place and gives what the script in its place told.
Names started_again(const Names& arguments)
{
    const ChildResult result = run_child([&] {
        for (int fd = 3; fd < 64; fd++)
            close(fd);
        if (chdir("/tmp/place") != 0)
            return 9;
        return call_main(vyhotplug_main, arguments);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(wait_for([] { return exists("/run/started"); }));
    const Names lines = lines_of(read_file("/run/started"));
    unlink("/run/started");
    return lines;
}

class RestartTest : public testing::Test {
  protected:
    RestartTest()
    {
        EXPECT_EQ(mkdir("/tmp/place", 0755), 0);
        EXPECT_EQ(mkdir("/tmp/place/bin", 0755), 0);
        put_program("/tmp/place/bin/vyhotplugd");
        write_file("/tmp/place/my.conf", "mountpath=/tmp\n");
    }

    static std::string command(const Names& arguments)
    {
        const Names lines = started_again(arguments);
        return lines.empty() ? "" : lines[0];
    }
};

TEST_F(RestartTest, StartsItselfAgainWithAllThatItWasTold)
{
    EXPECT_EQ(command({"/tmp/place/bin/vyhotplugd", "-f", "/tmp/place/my.conf", "-l", "6"}),
              "/tmp/place/bin/vyhotplugd -f /tmp/place/my.conf -l 6 -D");
}

TEST_F(RestartTest, TheDefaultLevelIsPassedOnToo)
{
    EXPECT_EQ(command({"/tmp/place/bin/vyhotplugd", "-f", "/tmp/place/my.conf"}),
              "/tmp/place/bin/vyhotplugd -f /tmp/place/my.conf -l 4 -D");
}

TEST_F(RestartTest, ARelativeConfigurationIsFoundFromTheRoot)
{
    EXPECT_EQ(command({"/tmp/place/bin/vyhotplugd", "-f", "my.conf"}),
              "/tmp/place/bin/vyhotplugd -f /tmp/place/my.conf -l 4 -D");
}

TEST_F(RestartTest, ARelativeProgramIsFoundFromTheRoot)
{
    EXPECT_EQ(command({"./bin/vyhotplugd", "-f", "my.conf"}),
              "/tmp/place/./bin/vyhotplugd -f /tmp/place/my.conf -l 4 -D");
}

// The program that is started is the one of the cut name.
TEST_F(RestartTest, AProgramsLongPathIsCutTo127Characters)
{
    const std::string name = "/tmp/place/" + std::string(150, 'p');
    const std::string cut = name.substr(0, 127);
    put_program(cut);
    EXPECT_EQ(command({name, "-f", "/tmp/place/my.conf"}), cut + " -f /tmp/place/my.conf -l 4 -D");
}

TEST_F(RestartTest, ARelativeProgramsPathIsCutBehindTheDirectory)
{
    const std::string name = "bin/" + std::string(150, 'p');
    const std::string cut = ("/tmp/place/" + name).substr(0, 127);
    put_program(cut);
    EXPECT_EQ(command({name, "-f", "/tmp/place/my.conf"}), cut + " -f /tmp/place/my.conf -l 4 -D");
}

TEST_F(RestartTest, AProgramWithoutADirectoryIsSearchedOnThePath)
{
    setenv("PATH", "/tmp/place/bin:/bin:/usr/bin", 1);
    EXPECT_EQ(command({"vyhotplugd", "-f", "my.conf"}),
              "/tmp/place/bin/vyhotplugd -f /tmp/place/my.conf -l 4 -D");
}

TEST_F(RestartTest, WorksInTheRootWithNothingButNullBelow6)
{
    const Names lines = started_again({"/tmp/place/bin/vyhotplugd", "-f", "my.conf"});
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ(lines[1], "/");
    for (size_t at = 2; at < 7; at++)
        EXPECT_EQ(lines[at], "/dev/null") << at;
}

TEST_F(RestartTest, TheFirstProcessTakesNoLock)
{
    EXPECT_NE(command({"/tmp/place/bin/vyhotplugd"}), "");
    EXPECT_FALSE(exists(pid_file));
}

TEST_F(RestartTest, TheFirstProcessStartsThoughAnotherRuns)
{
    const FdGuard lock(vy_create_pid_file("vyhotplugd"));
    EXPECT_NE(command({"/tmp/place/bin/vyhotplugd"}), "");
}

TEST_F(RestartTest, AProgramThatIsGoneEndsWithStatus1)
{
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // the daemon is to be this test's child
    const ChildResult result = run_main(vyhotplug_main, {"/tmp/gone/vyhotplugd"});
    EXPECT_EQ(result.status, 0);
    bool failed = false;
    for (int status = 0; waitpid(-1, &status, 0) > 0;) // some C libraries fork twice
        failed = failed || (WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_TRUE(failed);
}

TEST(Startup, FailsWhenItCannotDetach)
{
    const Start start = start_daemon({}, [] { fake_start().daemon_error = EAGAIN; });
    EXPECT_EQ(start.result.status, 256 - EAGAIN);
    EXPECT_EQ(start.result.err, "");
    EXPECT_EQ(log_of(start),
              (Names{"main(#)Error - initialize",
                     "main(#)Error - exit vyhotplugd (-" + std::to_string(EAGAIN) + ")"}));
    EXPECT_FALSE(exists(pid_file));
}

TEST(Startup, TheForegroundDoesNotDetach)
{
    const Start start = start_daemon({"-d"}, [] {
        fake_start().daemon_error = EAGAIN;
        fake_world().on_sleep = [](uint64_t) { terminate(); };
    });
    EXPECT_EQ(start.result.status, 0);
}

} // namespace
