// Mounting, unmounting and every kind of command with every allocation and call failing once.
#include "core/command.h"
#include "device/crtsec.h"
#include "device/kinds.h"
#include "fake/fake_world.h"
#include "mount/mount.h"
#include "records/config_file_dir.h"
#include "support/files.h"
#include "sweep/sweep.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char node[] = "/tmp/dev/sda1";
constexpr char directory[] = "/tmp/mnt/sda1";
const std::string foreign_line = "/dev/root / ext4 rw 0 0\n";

char* text(const char* constant)
{
    return const_cast<char*>(constant);
}

// The places, a mount table with a line of somebody else's, and a medium on the node.
void prepare_places(const char* filesystem, int readonly = 0)
{
    mkdir("/tmp/dev", 0755);
    mkdir("/tmp/mnt", 0755);
    unlink(node);
    rmdir(directory);
    write_file("/etc/mtab", foreign_line);
    fake_world().media[node] = {filesystem, readonly};
    fake_world().programs["ntfs-3g"] = {
        FakeRun{strcmp(filesystem, "ntfs") == 0 ? 0 : 12 << 8, 1, ""}};
}

ConfHotplug make_config()
{
    ConfHotplug config = {};
    config.fileumask = 0113;
    config.dirumask = 0002;
    config.mountvfat = config.mountntfs = config.mountext = 1;
    config.vfatoptions = text("utf8");
    config.smbconfigpath = text("/tmp/vynas.dir.conf");
    config.deviceconfigpath = text("/tmp/hotplug.dev.conf");
    config.mountpath = text("/tmp/mnt");
    config.devicepath = text("/tmp/dev");
    return config;
}

HotplugDev make_device()
{
    HotplugDev dev = {};
    dev.range = 16;
    dev.major = MAJOR_SD;
    dev.minor = 1;
    return dev;
}

struct Partition {
    HotplugDev dev = make_device();
    MountEntry entry = {0, 0, 0, nullptr, text(node), text(directory), &dev};
};

// ---- one filesystem ----

class FilesystemSweep : public testing::TestWithParam<const char*> {};

TEST_P(FilesystemSweep, MountingLeavesAllOrNothing)
{
    const ConfHotplug config = make_config();
    Partition partition;
    int result = 0;
    Scenario scenario;
    scenario.prepare = [&] {
        prepare_places(GetParam());
        partition = Partition();
        partition.entry.dev = &partition.dev;
    };
    scenario.run = [&] { result = vymount(&partition.entry, &config); };
    scenario.check = [&](bool struck) {
        EXPECT_TRUE(result == 0 || (struck && result == -1));
        EXPECT_EQ(partition.entry.mounted, result == 0 ? 1 : 0);
        if (strcmp(GetParam(), "ntfs") != 0) { // the driver's mounts are not the fake world's
            EXPECT_EQ(fake_world().mounts.count(directory) != 0, result == 0);
        }
        EXPECT_EQ(read_file("/etc/mtab").substr(0, foreign_line.size()), foreign_line);
    };
    sweep_calls(scenario);
}

TEST_P(FilesystemSweep, UnmountingCleansUpOrTouchesNothing)
{
    const ConfHotplug config = make_config();
    Partition partition;
    int result = 0;
    Scenario scenario;
    scenario.prepare = [&] {
        prepare_places(GetParam());
        partition = Partition();
        partition.entry.dev = &partition.dev;
        ASSERT_EQ(vymount(&partition.entry, &config), 0);
        fake_world().mounts[directory] = {node, GetParam(), 0, ""}; // the driver's too
        fake_world().journal.clear();
    };
    scenario.run = [&] { result = vyunmount(&partition.entry, 1); };
    scenario.check = [&](bool struck) {
        EXPECT_TRUE(result == 0 || (struck && result == -1));
        const std::string table = read_file("/etc/mtab");
        EXPECT_EQ(table.substr(0, foreign_line.size()), foreign_line);
        if (result == 0) {
            EXPECT_EQ(partition.entry.mounted, 0);
        }
        if (!struck) {
            EXPECT_EQ(table, foreign_line);
            EXPECT_FALSE(exists(node));
            EXPECT_FALSE(exists(directory));
        }
    };
    sweep_calls(scenario);
}

INSTANTIATE_TEST_SUITE_P(All, FilesystemSweep,
                         testing::Values("vfat", "ext4", "ext3", "ext2", "ntfs"));

// ---- commands ----

struct Commands {
    ConfHotplug config = make_config();
    DaemonCtx ctx = {};
    int ends[2] = {-1, -1};
    int result = 0;

    Commands() { ctx.config = &config; }

    static void empty_set()
    {
        MountEntry* entry = nullptr;
        while (crtsec_blk_search(&entry, 0) == 0) {
            crtsec_blk_del(entry);
            mount_entry_free(entry);
        }
    }

    void handle(const char* message, int fd)
    {
        char buffer[HOTPLUG_CMD_TEXT + 1] = {};
        strcpy(buffer, message);
        const HotplugCmd cmd = {.fd = fd,
                                .len = static_cast<int32_t>(strlen(message) + 1),
                                .text = buffer,
                                .reserved = 0,
                                .due = 0};
        result = command_handle(&ctx, &cmd);
    }

    // A partition that is in the set already when `plugged`.
    Scenario scenario(const char* message, bool plugged, bool request)
    {
        Scenario made;
        made.prepare = [=, this] {
            prepare_places("ext4");
            write_file("/tmp/vynas.dir.conf", "");
            ASSERT_EQ(crtsec_init(), 0);
            if (plugged)
                handle("ACTION=add,MAJOR=8,MINOR=1,SID=ABC", -1);
            if (request) {
                ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
            }
            fake_world().journal.clear();
        };
        made.run = [=, this] { handle(message, request ? ends[0] : -1); };
        made.finish = [] {
            empty_set();
            crtsec_term();
        };
        return made;
    }

    std::string answer()
    {
        char buffer[16] = {};
        const ssize_t size = recv(ends[1], buffer, sizeof buffer, MSG_DONTWAIT);
        close(ends[0]);
        close(ends[1]);
        return size < 0 ? "" : std::string(buffer, static_cast<size_t>(size));
    }
};

Scenario add_scenario(Commands* commands)
{
    Scenario scenario =
        commands->scenario("ACTION=add,MAJOR=8,MINOR=1,SID=ABC,VNAME=V", false, false);
    scenario.check = [=](bool struck) {
        EXPECT_TRUE(commands->result == DIRTY_ADDED || (struck && commands->result == -1) ||
                    (struck && commands->result == 0));
    };
    return scenario;
}

TEST(Sweep, AddWithoutMemory)
{
    Commands commands;
    sweep_allocations(add_scenario(&commands));
}

TEST(Sweep, AddWithFailingCalls)
{
    Commands commands;
    sweep_calls(add_scenario(&commands));
}

Scenario remove_scenario(Commands* commands)
{
    Scenario scenario = commands->scenario("ACTION=remove,MAJOR=8,MINOR=1", true, false);
    scenario.keeps_streams = true; // the withdrawn share's file, when it cannot be written
    scenario.check = [=](bool struck) {
        EXPECT_TRUE(commands->result == DIRTY_REMOVED || (struck && commands->result == -1));
    };
    return scenario;
}

TEST(Sweep, RemoveWithoutMemory)
{
    Commands commands;
    sweep_allocations(remove_scenario(&commands));
}

TEST(Sweep, RemoveWithFailingCalls)
{
    Commands commands;
    sweep_calls(remove_scenario(&commands));
}

Scenario request_scenario(Commands* commands, const char* message)
{
    Scenario scenario = commands->scenario(message, true, true);
    scenario.keeps_streams = true;
    scenario.finish = [finish = scenario.finish, commands] {
        const std::string answer = commands->answer();
        EXPECT_TRUE(answer == std::string("success", 8) || answer == std::string("faild", 6) ||
                    answer.empty())
            << answer;
        finish();
    };
    scenario.check = [=](bool) { EXPECT_EQ(commands->result, -1); };
    return scenario;
}

TEST(Sweep, UnmountRequestWithoutMemory)
{
    Commands commands;
    sweep_allocations(request_scenario(&commands, "ACTION=unmount,all"));
}

TEST(Sweep, UnmountRequestWithFailingCalls)
{
    Commands commands;
    sweep_calls(request_scenario(&commands, "ACTION=unmount,sda1,force"));
}

TEST(Sweep, MountRequestWithoutMemory)
{
    Commands commands;
    sweep_allocations(request_scenario(&commands, "ACTION=mount,sda"));
}

TEST(Sweep, MountRequestWithFailingCalls)
{
    Commands commands;
    sweep_calls(request_scenario(&commands, "ACTION=mount,all"));
}

} // namespace
