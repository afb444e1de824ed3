// Control messages as they come from the socket, carried out on the fake world, each followed by
// the refresh it asks for. What is read from their bytes is the target message's.
//
// Input: messages, separated by lines "%%". Like the receive thread, this cuts them to 512 bytes
// and leaves one zero byte behind them.
#include "core/command.h"

#include "core/message.h"
#include "core/refresh.h"
#include "device/crtsec.h"
#include "fake/fake_world.h"
#include "lib/guard.h"
#include "support/busy_world.h"
#include "support/check.h"
#include "support/input.h"

#include <string.h>

#include <algorithm>

static constexpr size_t most_messages = 8;

using CmdGuard = Guard<HotplugCmd, hotplug_cmd_free>;

// Something of each kind to be plugged.
static void set_media()
{
    FakeWorld& world = fake_world();
    for (const char* name : {"sda0", "sda1", "sdb1", "sdz15", "mmcblka0"})
        world.media[BusyWorld::node_of(name)] = {"vfat"};
    world.media[BusyWorld::node_of("sda2")] = {"ext4", EROFS};
    world.media[BusyWorld::node_of("sda3")] = {"ext3", EACCES};
    world.media[BusyWorld::node_of("mmcblka1")] = {"ext2"};
    world.programs["ntfs-3g"] = {{.wait_status = 1 << 8}, {}, {.polls = -1}, {.wait_status = 9}};
    world.programs["mlabel"] = {{.output = "STICK\n"}, {.wait_status = 1 << 8}};
    world.busy[BusyWorld::directory_of("sda1")] = EBUSY;
}

static void check_result(HotplugAction action, int result)
{
    if (action == HOTPLUG_ACTION_ADD)
        check(result == DIRTY_ADDED || result == -1, "an add's result");
    else if (action == HOTPLUG_ACTION_REMOVE)
        check(result == DIRTY_REMOVED || result == -1, "a remove's result");
    else
        check_equal(result, action == HOTPLUG_ACTION_UNKNOWN ? 0 : -1, "the result");
}

// Whatever came, the set holds mountable partitions only, and the world and the set agree.
static void check_set(const BusyWorld& world)
{
    for (const MountEntry* entry : world.entries()) {
        const HotplugDev* dev = entry->dev;
        check(dev->major == 8 || dev->major == 179, "a major that is mounted");
        check(dev->minor >= 0 && dev->minor / dev->range < 26, "a device with a letter");
        const std::string name = std::string(dev->major == 8 ? "sd" : "mmcblk") +
                                 static_cast<char>('a' + dev->minor / dev->range) +
                                 std::to_string(dev->minor % dev->range);
        check_same(entry->devnode, BusyWorld::node_of(name), "the node's name");
        check_same(entry->mountpoint, BusyWorld::directory_of(name), "the directory's name");
    }
}

static void carry_out(BusyWorld* world, const HotplugCmd* cmd)
{
    const int result = command_handle(&world->ctx, cmd);
    check_result(message_action(cmd->text), result);
    check_set(*world);
    if (result > 0)
        refresh_tables(&world->ctx, result);
    if (result == DIRTY_REMOVED) {
        for (const MountEntry* entry : world->entries())
            check_equal(entry->gone, 0, "what was removed has left the set");
    }
}

void fuzz(Input& input)
{
    static const BusyPlaces places; // of every input
    BusyWorld world(&places);
    set_media();
    for (const std::string& bytes : input.fields(most_messages)) {
        const CmdGuard cmd(hotplug_cmd_create());
        cmd->len = static_cast<int32_t>(std::min<size_t>(bytes.size(), HOTPLUG_CMD_TEXT));
        memcpy(cmd->text, bytes.data(), static_cast<size_t>(cmd->len));
        carry_out(&world, cmd.get());
    }
}
