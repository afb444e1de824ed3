#include "busy_devices.h"

#include "config/filesystems.h"
#include "device/crtsec.h"
#include "device/kinds.h"
#include "fake/fake_world.h"
#include "records/volume_label.h"
#include "support/files.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

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
    for (const char* directory : {"/media/mnt", "/media/dev"})
        EXPECT_EQ(mkdir(directory, 0755), 0);
    config.naswork = 1;
    config.smbconfigpath = share_file.data();
    config.deviceconfigpath = device_file.data();
    config.mountpath = mountpath.data();
    config.devicepath = devicepath.data();
    config.fileumask = 0113;
    config.dirumask = 0002;
    config.mountvfat = 1;
    config.mountntfs = 1;
    config.mountext = 1;
    ctx.running = 1;
    ctx.config = &config;
    conf_dir_set_fat_vlabel(0);
    EXPECT_EQ(crtsec_init(), 0);
}

BusyDevicesTest::~BusyDevicesTest()
{
    for (MountEntry* entry : entries()) {
        crtsec_blk_del(entry);
        mount_entry_free(entry);
    }
    crtsec_term();
}

static std::string name_of(const HotplugDev& dev)
{
    const std::string kind = dev.major == MAJOR_SD ? "sd" : "mmcblk";
    const auto letter = static_cast<char>('a' + dev.minor / dev.range);
    return kind + letter + std::to_string(dev.minor % dev.range);
}

MountEntry* BusyDevicesTest::add(int32_t major, int32_t minor, uint8_t range, bool mounted)
{
    const HotplugDev dev = make_device(major, minor, range == 0 ? 16 : range);
    const std::string node = node_of(name_of(dev));
    const std::string directory = directory_of(name_of(dev));
    auto* entry = static_cast<MountEntry*>(calloc(1, sizeof(MountEntry)));
    entry->dev = static_cast<HotplugDev*>(malloc(sizeof(HotplugDev)));
    *entry->dev = dev;
    entry->dev->range = range;
    entry->devnode = strdup(node.c_str());
    entry->mountpoint = strdup(directory.c_str());
    fake_world().media[node] = {"vfat"};
    if (mounted) {
        entry->mounted = 1;
        entry->fstype = CONF_DEV_FS_FAT;
        write_file(node, "");
        EXPECT_EQ(mkdir(directory.c_str(), 0755), 0);
        fake_world().mounts[directory] = {node, "vfat", 0, ""};
    }
    EXPECT_EQ(crtsec_blk_add(entry), 0);
    return entry;
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

std::vector<MountEntry*> BusyDevicesTest::entries()
{
    std::vector<MountEntry*> found;
    MountEntry* entry = nullptr;
    for (int32_t at = 0; crtsec_blk_search(&entry, at) == 0; at++)
        found.push_back(entry);
    return found;
}
