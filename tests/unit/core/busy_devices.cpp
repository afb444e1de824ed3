#include "busy_devices.h"

#include "device/kinds.h"
#include "fake/fake_world.h"
#include "records/volume_label.h"

#include <string.h>

static const char hook[] = "spawn /tmp/vyhotplugd-evhook.sh /tmp/vyhotplugd-evhook.sh ";

HotplugDev make_device(int32_t major, int32_t minor, uint8_t range)
{
    HotplugDev dev = {};
    dev.major = major;
    dev.minor = minor;
    dev.range = range;
    return dev;
}

BusyDevicesTest::BusyDevicesTest()
{
    conf_dir_set_fat_vlabel(0);
}

static std::string name_of(const HotplugDev& dev)
{
    const std::string kind = dev.major == MAJOR_SD ? "sd" : "mmcblk";
    const auto letter = static_cast<char>('a' + dev.minor / dev.range);
    return kind + letter + std::to_string(dev.minor % dev.range);
}

MountEntry* BusyDevicesTest::add(int32_t major, int32_t minor, uint8_t range, bool mounted)
{
    const std::string name = name_of(make_device(major, minor, range == 0 ? 16 : range));
    fake_world().media[node_of(name)] = {"vfat"};
    return BusyWorld::add(make_device(major, minor, range), name, mounted);
}

std::vector<std::string> BusyDevicesTest::hook_calls()
{
    std::vector<std::string> calls;
    for (const std::string& call : fake_world().calls(hook)) {
        const std::string arguments = call.substr(strlen(hook));
        const size_t path = arguments.find(' ') + 1;
        calls.push_back(arguments.substr(0, path) + arguments.substr(arguments.rfind('/') + 1));
    }
    return calls;
}
