#include "share/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

static BridgeOptions parse(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "vynas-samba");
    static std::vector<std::string> kept;
    kept = arguments;
    std::vector<char*> argv;
    for (std::string& argument : kept)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStderr();
    const BridgeOptions options = options_parse(static_cast<int>(kept.size()), argv.data(),
                                                "/etc/vynas-samba/vynas-samba.conf");
    testing::internal::GetCapturedStderr();
    return options;
}

TEST(BridgeOptions, WithoutAny)
{
    const BridgeOptions options = parse({});
    EXPECT_EQ(options.task, TASK_SERVE);
    EXPECT_STREQ(options.service_file, "/etc/vyhotplugd/vyhotplugd.conf");
    EXPECT_STREQ(options.own_file, "/etc/vynas-samba/vynas-samba.conf");
}

TEST(BridgeOptions, Files)
{
    BridgeOptions options = parse({"-f", "a", "-c", "b"});
    EXPECT_STREQ(options.service_file, "a");
    EXPECT_STREQ(options.own_file, "b");
    options = parse({"--file", "c", "--config=d", "--once"});
    EXPECT_STREQ(options.service_file, "c");
    EXPECT_STREQ(options.own_file, "d");
    EXPECT_EQ(options.task, TASK_ONCE);
}

TEST(BridgeOptions, Tasks)
{
    EXPECT_EQ(parse({"--once"}).task, TASK_ONCE);
    EXPECT_EQ(parse({"--print"}).task, TASK_PRINT);
    EXPECT_EQ(parse({"--help"}).task, TASK_HELP);
    EXPECT_EQ(parse({"--version"}).task, TASK_VERSION);
}

TEST(BridgeOptions, WhatIsWrong)
{
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"-x"}, {"--none"}, {"-f"}, {"extra"}, {"--once", "extra"}, {"-x", "--help"}})
        EXPECT_EQ(parse(arguments).task, TASK_WRONG);
}
