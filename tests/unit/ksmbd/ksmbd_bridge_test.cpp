// The bridge with ksmbd's table: what is written, and what ksmbd is told.
#include "ksmbd/ksmbd_server.h"
#include "share/bridge.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
using Runs = std::vector<std::vector<std::string>>;

const std::string share_file = "/tmp/vynas.dir.conf";
const std::string place = "/tmp/hotplug";
const std::string written = "/tmp/run/ksmbd.conf";
const std::vector<std::string> reload = {"ksmbd.control", "--reload"};

class KsmbdBridgeTest : public testing::Test {
  protected:
    void SetUp() override
    {
        server.settle_ms = 0; // the scripted world's clock stands still
        FakeRun succeeds;
        fake_world().programs["ksmbd.control"].assign(100, succeeds);
        ASSERT_EQ(mkdir(place.c_str(), 0755), 0);
        for (const char* name : {"sda1", "sdb1", "sdc1"})
            mount_at(name);
        write_file("/tmp/bridge.conf", "configpath = " + written + "\nglobalpath = /tmp/base\n");
        config.reset(bridge_config_load("/tmp/bridge.conf", &ksmbd_server.keys));
        bridge_init(&bridge, &server, config.get(), share_file.c_str(), place.c_str(), nullptr);
    }
    void TearDown() override
    {
        bridge_clear(&bridge);
        fake_world_reset();
    }

    static void mount_at(const std::string& name)
    {
        const std::string directory = place + "/" + name;
        ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
        ASSERT_EQ(mount("disk", directory.c_str(), "tmpfs", 0, nullptr), 0);
    }

    static std::string share(const std::string& name, const std::string& settings = "")
    {
        return "[" + name + "]\nPath=" + place + "/" + name + "\n" + settings;
    }

    // Refreshes after a change of the share file. Returns the programs that were run.
    Runs refresh(const std::string& shares)
    {
        write_file(share_file, shares);
        fake_world().spawned.clear();
        fake_log_clear();
        EXPECT_EQ(bridge_refresh(&bridge), 0);
        bridge_finish(&bridge);
        return fake_world().spawned;
    }

    static bool was_said(const std::string& text)
    {
        for (const FakeLogLine& line : fake_log_lines()) {
            if (line.text.find(text) != std::string::npos)
                return true;
        }
        return false;
    }

    BridgeConfigGuard config;
    ShareServer server = ksmbd_server;
    Bridge bridge = {};
};

} // namespace

TEST_F(KsmbdBridgeTest, AShareComesAndGoes)
{
    EXPECT_EQ(refresh(share("sda1")), Runs{reload});
    EXPECT_NE(read_file(written).find("[sda1]\n\tpath = " + place + "/sda1\n"), std::string::npos);
    EXPECT_EQ(refresh(share("sda1")), Runs{});
    EXPECT_EQ(refresh(""), Runs{reload});
    EXPECT_EQ(read_file(written).find("[sda1]"), std::string::npos);
    EXPECT_TRUE(was_said("close share sda1"));
}

TEST_F(KsmbdBridgeTest, AllThatGoesIsClosedAtOnce)
{
    (void)refresh(share("sda1") + share("sdb1") + share("sdc1"));
    EXPECT_EQ(refresh(share("sdb1")), Runs{reload});
    EXPECT_TRUE(was_said("close share sda1 and 1 more"));
    EXPECT_FALSE(was_said("cannot start")) << "no program is needed for it";
}

TEST_F(KsmbdBridgeTest, WhatCannotBeHiddenIsClosed)
{
    (void)refresh(share("sda1"));
    EXPECT_EQ(refresh(share("sda1", "Guest Hide=Enable\n")), Runs{reload});
    EXPECT_EQ(read_file(written).find("[sda1]"), std::string::npos);
    EXPECT_TRUE(was_said("close share sda1"));
    EXPECT_TRUE(was_said("share sda1 is withheld: ksmbd cannot hide it from some"));
}

TEST_F(KsmbdBridgeTest, NewGlobalParametersAreWrittenAndCloseNothing)
{
    (void)refresh(share("sda1"));
    write_file("/tmp/base", "[global]\nworkgroup = HOME\n");
    EXPECT_EQ(refresh(share("sda1")), Runs{reload});
    EXPECT_EQ(read_file(written).compare(0, 26, "[global]\nworkgroup = HOME\n"), 0);
    EXPECT_FALSE(was_said("close share"));
}

TEST_F(KsmbdBridgeTest, AServerThatDoesNotRunIsNoFailure)
{
    fake_world().programs["ksmbd.control"] = {FakeRun{1 << 8, 0, ""}};
    EXPECT_EQ(refresh(share("sda1")), Runs{reload});
    EXPECT_TRUE(was_said("ksmbd.control failed (1)"));
}

// What it was told is in force a moment later only.
TEST_F(KsmbdBridgeTest, AReloadHasItsTimeToSettle)
{
    server.settle_ms = 100;
    write_file(share_file, share("sda1"));
    EXPECT_EQ(bridge_refresh(&bridge), 0);
    EXPECT_EQ(server_control_advance(&bridge.control), 100) << "the program has ended";
    fake_world().pass(99000, 0);
    EXPECT_EQ(server_control_advance(&bridge.control), 1);
    fake_world().pass(1000, 0);
    EXPECT_EQ(server_control_advance(&bridge.control), -1);
}

TEST_F(KsmbdBridgeTest, AThousandShares)
{
    std::string shares;
    for (int i = 0; i < 1000; i++)
        shares += "[S" + std::to_string(i) + "]\nPath=" + place + "/sda1\n";
    EXPECT_EQ(refresh(shares), Runs{reload});
    EXPECT_NE(read_file(written).find("[S999]\n"), std::string::npos);
    EXPECT_EQ(refresh(""), Runs{reload});
    EXPECT_TRUE(was_said("close share S0 and 999 more"));
}

TEST(KsmbdConfig, EveryKeyAndWhatIsNotAccepted)
{
    write_file("/tmp/own", "configpath = x\nglobalpath = /a\nport = 65536\nksmbdcontrol = /b\n");
    const BridgeConfigGuard config(bridge_config_load("/tmp/own", &ksmbd_server.keys));
    EXPECT_STREQ(config->includepath, "/run/vynas-ksmbd/ksmbd.conf");
    EXPECT_STREQ(config->own[0], "/a");
    EXPECT_STREQ(config->own[1], "445");
    EXPECT_STREQ(config->control, "/b");
}
