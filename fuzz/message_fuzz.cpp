// Control messages as they come from the socket: what is read from their bytes against an
// independent reading, then carried out on the fake world, each followed by the refresh it asks
// for.
//
// Input: messages, separated by lines "%%". Like the receive thread, this cuts them to 512 bytes
// and leaves one zero byte behind them.
#include "core/message.h"

#include "core/command.h"
#include "core/refresh.h"
#include "device/crtsec.h"
#include "fake/fake_world.h"
#include "lib/guard.h"
#include "support/busy_world.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <string.h>

#include <algorithm>

static constexpr size_t most_messages = 8;

using CmdGuard = Guard<HotplugCmd, hotplug_cmd_free>;

// ---- reading ----

static HotplugAction action_of(const std::string& text)
{
    if (text.rfind("ACTION=add", 0) == 0)
        return HOTPLUG_ACTION_ADD;
    if (text.rfind("ACTION=mount", 0) == 0)
        return HOTPLUG_ACTION_MOUNT;
    if (text.rfind("ACTION=unmount", 0) == 0)
        return HOTPLUG_ACTION_UNMOUNT;
    if (text.rfind("ACTION=remove", 0) == 0)
        return HOTPLUG_ACTION_REMOVE;
    return HOTPLUG_ACTION_UNKNOWN;
}

namespace {

// What a message says, by the second reading.
struct Said {
    int64_t major = 0;
    int64_t minor = 0;
    int64_t speed = 0;
    int64_t devtype = 0;
    int64_t range = 16;
    bool removable = false;
    bool readonly = false;
    uint16_t vid = 0;
    uint16_t pid = 0;
    std::string vname = "(null)";
    std::string pname = "(null)";
    std::string serial = "(null)";
    std::string target;
    bool force = false;
};

} // namespace

static void say_number(int64_t* field, const std::string& value)
{
    *field = oracle_number(value, 10).value_or(static_cast<int32_t>(*field));
}

static void say_range(int64_t* field, const std::string& value)
{
    const int32_t number = oracle_number(value, 10).value_or(0);
    if (number > 0 && number < 256)
        *field = number;
}

static void say_flag(bool* field, const std::string& value)
{
    *field = oracle_number(value, 10).value_or(*field ? 1 : 0) != 0;
}

static void say_usb_id(uint16_t* field, const std::string& value)
{
    *field = static_cast<uint16_t>(oracle_number(value, 16).value_or(*field) & 0xFFFF);
}

static void say_name(std::string* field, std::string value)
{
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
        value.pop_back();
    if (!value.empty())
        *field = value;
}

static void say_speed(int64_t* field, const std::string& value)
{
    if (value.find("480") != std::string::npos)
        *field = 480;
    if (value.find("12") != std::string::npos)
        *field = 12;
}

static void say_devtype(int64_t* field, const std::string& value)
{
    if (value == "partition")
        *field = 1;
    if (value == "disk")
        *field = 2;
}

static bool is_key(const std::string& name)
{
    static const std::string keys[] = {"ACTION", "MAJOR", "MINOR", "DEVTYPE", "USBPORT",
                                       "RANGE",  "RM",    "RO",    "VNAME",   "PNAME",
                                       "SPEED",  "VID",   "PID",   "SID"};
    return std::find(std::begin(keys), std::end(keys), name) != std::end(keys);
}

static void say_item(Said* said, const std::string& name, const std::string& value)
{
    if (name == "MAJOR")
        say_number(&said->major, value);
    else if (name == "MINOR")
        say_number(&said->minor, value);
    else if (name == "DEVTYPE")
        say_devtype(&said->devtype, value);
    else if (name == "RANGE")
        say_range(&said->range, value);
    else if (name == "RM")
        say_flag(&said->removable, value);
    else if (name == "RO")
        say_flag(&said->readonly, value);
    else if (name == "VNAME")
        say_name(&said->vname, value);
    else if (name == "PNAME")
        say_name(&said->pname, value);
    else if (name == "SPEED")
        say_speed(&said->speed, value);
    else if (name == "VID")
        say_usb_id(&said->vid, value);
    else if (name == "PID")
        say_usb_id(&said->pid, value);
    else if (name == "SID")
        said->serial = value;
}

static Said read_again(const std::string& text)
{
    Said said;
    for (const OptionItem& item : oracle_option_map(text)) {
        if (is_key(item.name) && item.value)
            say_item(&said, item.name, *item.value);
        else if (!is_key(item.name) && item.name == "force")
            said.force = true;
        else if (!is_key(item.name))
            said.target = item.name.substr(0, 15);
    }
    return said;
}

static void check_device(const HotplugDev& dev, const Said& said)
{
    check_equal(dev.major, said.major, "MAJOR");
    check_equal(dev.minor, said.minor, "MINOR");
    check_equal(dev.devtype, said.devtype, "DEVTYPE");
    check_equal(dev.range, said.range, "RANGE");
    check_equal(dev.flags, (said.removable ? 1 : 0) + (said.readonly ? 2 : 0), "RM and RO");
    check_equal(dev.speed, said.speed, "SPEED");
    check_equal(dev.vid, said.vid, "VID");
    check_equal(dev.pid, said.pid, "PID");
    check_same(text_of(dev.vname), said.vname, "VNAME");
    check_same(text_of(dev.pname), said.pname, "PNAME");
    check_same(text_of(dev.serial), said.serial, "SID");
    check_equal(dev.usbport[0], 0, "USBPORT");
    check_equal(dev.helperpid, 0, "no driver yet");
}

static void check_reading(const char* text)
{
    check_equal(message_action(text), action_of(text), "the action");
    ControlMessage message;
    check_equal(message_parse(text, &message), 0, "a message is read");
    const Said said = read_again(text);
    check_device(message.dev, said);
    check_same(message.target, said.target, "the target");
    check_equal(message.force, said.force ? 1 : 0, "force");
    message_clear(&message);
}

// ---- carrying out ----

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
    check_result(action_of(cmd->text), result);
    check_set(*world);
    if (result > 0)
        refresh_tables(&world->ctx, result);
    if (result == DIRTY_REMOVED) {
        for (const MountEntry* entry : world->entries())
            check_equal(entry->gone, 0, "what was removed has left the set");
    }
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    BusyWorld world;
    set_media();
    for (const std::string& bytes : input.fields(most_messages)) {
        const CmdGuard cmd(hotplug_cmd_create());
        cmd->len = static_cast<int32_t>(std::min<size_t>(bytes.size(), HOTPLUG_CMD_TEXT));
        memcpy(cmd->text, bytes.data(), static_cast<size_t>(cmd->len));
        check_reading(cmd->text);
        carry_out(&world, cmd.get());
    }
    return 0;
}
