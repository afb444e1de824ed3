#include "agent/settings.h"

#include "support/child.h"

#include <getopt.h>
#include <gtest/gtest.h>
#include <string.h>

// Returns the settings' result in a process of its own, which prints what it understood.
static ChildResult parse(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "vyhotplug-agent");
    return run_main(
        [](int argc, char* argv[]) {
            AgentSettings settings;
            if (settings_parse(argc, argv, &settings) != 0)
                return 2;
            printf("%d %d %d %s %s %s %s", settings.mode, settings.all ? 1 : 0, settings.wait,
                   settings.sysfs, settings.proc, settings.mounts, settings.state);
            return 0;
        },
        arguments);
}

TEST(Settings, HaveTheirDefaults)
{
    const ChildResult result = parse({"--monitor"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "1 0 10 /sys /proc /media/vyhotplug /run/vyhotplug-agent.state");
}

TEST(Settings, TakeEachMode)
{
    const struct {
        const char* option;
        AgentMode mode;
    } rows[] = {{"--monitor", AGENT_MONITOR}, {"--once", AGENT_ONCE}, {"--scan", AGENT_SCAN},
                {"--list", AGENT_LIST},       {"--help", AGENT_HELP}, {"--version", AGENT_VERSION}};
    for (const auto& row : rows)
        EXPECT_EQ(parse({row.option}).out.substr(0, 1), std::to_string(row.mode)) << row.option;
}

TEST(Settings, TakeAllOptions)
{
    EXPECT_EQ(parse({"--all", "--sysfs", "/s", "--proc=/p", "--mounts", "/m", "--state", "/st",
                     "--wait", "0", "--scan"})
                  .out,
              "3 1 0 /s /p /m /st");
    EXPECT_EQ(parse({"--once", "--state", "", "--wait=86400"}).out,
              "2 0 86400 /sys /proc /media/vyhotplug ");
}

TEST(Settings, RefuseAWrongCommandLine)
{
    const struct {
        std::vector<std::string> arguments;
        const char* reason;
    } rows[] = {
        {{}, "no mode given"},
        {{"--all"}, "no mode given"},
        {{"--monitor", "--once"}, "more than one mode"},
        {{"--monitor", "--help"}, "more than one mode"},
        {{"--monitor", "sda"}, "unexpected argument: sda"},
        {{"--monitor", "--nothing"}, "wrong command line"},
        {{"-x"}, "wrong command line"},
        {{"--monitor", "--sysfs"}, "wrong command line"},
        {{"--monitor", "--sysfs", "sys"}, "not an absolute path: sys"},
        {{"--monitor", "--sysfs", ""}, "not an absolute path: "},
        {{"--monitor", "--sysfs", "/" + std::string(255, 'x')}, "path too long: /x"},
        {{"--monitor", "--proc", "proc"}, "not an absolute path: proc"},
        {{"--monitor", "--mounts", "x"}, "not an absolute path: x"},
        {{"--monitor", "--mounts", "//"}, "no directory of the service's: //"},
        {{"--monitor", "--state", "state"}, "not an absolute path: state"},
        {{"--monitor", "--config", "conf"}, "not an absolute path: conf"},
        {{"--monitor", "--config", ""}, "not an absolute path: "},
        {{"--monitor", "--not-mounted", "file"}, "not an absolute path: file"},
        {{"--once", "--wait", "-1"}, "not a number of seconds up to a day: -1"},
        {{"--once", "--wait", "x"}, "not a number of seconds up to a day: x"},
        {{"--once", "--wait", ""}, "not a number of seconds up to a day: "},
        {{"--once", "--wait", "1s"}, "not a number of seconds up to a day: 1s"},
        {{"--once", "--wait", "86401"}, "not a number of seconds up to a day: 86401"},
        {{"--once", "--wait", "99999999999"}, "not a number of seconds up to a day: 99999999999"},
    };
    for (const auto& row : rows) {
        const ChildResult result = parse(row.arguments);
        EXPECT_EQ(result.status, 2) << row.reason;
        EXPECT_NE(result.err.find(std::string("vyhotplug-agent: ") + row.reason), std::string::npos)
            << result.err;
        EXPECT_NE(result.err.find("Try 'vyhotplug-agent --help'."), std::string::npos);
        EXPECT_EQ(result.out, "");
    }
}

TEST(Settings, HelpNamesEveryOption)
{
    const ChildResult result = run_child([] {
        settings_print_help();
        return 0;
    });
    for (const char* option :
         {"--monitor", "--once", "--scan", "--list", "--help", "--version", "--all", "--by-share",
          "--config", "--mounts", "--not-mounted", "--proc", "--state", "--sysfs", "--wait"})
        EXPECT_NE(result.out.find(option), std::string::npos) << option;
}
