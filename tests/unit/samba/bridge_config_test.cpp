#include "share/bridge_config.h"

#include "samba/samba_server.h"

#include "fake/fake_log.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const std::string path = "/tmp/vynas-samba.conf";

BridgeConfig* load(const std::string& text)
{
    write_file(path, text);
    BridgeConfig* config = bridge_config_load(path.c_str(), &samba_server.keys);
    EXPECT_NE(config, nullptr);
    return config;
}

void expect_defaults(const BridgeConfig* config)
{
    EXPECT_STREQ(config->includepath, "/run/vynas-samba/shares.conf");
    EXPECT_STREQ(config->administrator, "root");
    EXPECT_STREQ(config->guest, "nobody");
    EXPECT_STREQ(config->forceuser, "");
    EXPECT_STREQ(config->control, "smbcontrol");
}

} // namespace

TEST(BridgeConfig, WithoutAFileTheDefaultsCount)
{
    const BridgeConfigGuard config(bridge_config_load("/tmp/none", &samba_server.keys));
    ASSERT_TRUE(config);
    expect_defaults(config.get());
    EXPECT_EQ(fake_log_texts(), std::vector<std::string>{});
}

TEST(BridgeConfig, EveryKey)
{
    const BridgeConfigGuard config(
        load("Include Path = /run/x.conf\nadministrator = anna\nguest = ftp\n"
             "force user = bert\nsmbcontrol = /opt/bin/smbcontrol\n"));
    EXPECT_STREQ(config->includepath, "/run/x.conf");
    EXPECT_STREQ(config->administrator, "anna");
    EXPECT_STREQ(config->guest, "ftp");
    EXPECT_STREQ(config->forceuser, "bert");
    EXPECT_STREQ(config->control, "/opt/bin/smbcontrol");
    EXPECT_EQ(fake_log_texts(), std::vector<std::string>{});
}

TEST(BridgeConfig, WhatIsNotAcceptedIsLoggedAndTheDefaultCounts)
{
    const BridgeConfigGuard config(
        load("includepath = shares.conf\nadministrator = @wheel\nguest =\n"
             "forceuser = a b\nsmbcontrol =\n"));
    expect_defaults(config.get());
    EXPECT_EQ(fake_log_texts(),
              (std::vector<std::string>{
                  "bridge_config(#)includepath = shares.conf is not accepted, "
                  "/run/vynas-samba/shares.conf counts",
                  "bridge_config(#)administrator = @wheel is not accepted, root counts",
                  "bridge_config(#)guest =  is not accepted, nobody counts",
                  "bridge_config(#)forceuser = a b is not accepted,  counts",
                  "bridge_config(#)smbcontrol =  is not accepted, smbcontrol counts"}));
}

TEST(BridgeConfig, WithoutMemoryThereIsNone)
{
    const long before = memory_blocks();
    memory_fail(1);
    EXPECT_EQ(bridge_config_load("/tmp/none", &samba_server.keys), nullptr);
    EXPECT_TRUE(memory_failed());
    memory_fail(4);
    EXPECT_EQ(bridge_config_load("/tmp/none", &samba_server.keys), nullptr);
    EXPECT_TRUE(memory_failed());
    EXPECT_EQ(memory_blocks(), before);
}
