#include "support/busy_world.h"

#include "config/filesystems.h"
#include "device/crtsec.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "records/volume_label.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

static void must(bool holds, const std::string& what)
{
    if (holds)
        return;
    perror(what.c_str());
    abort();
}

static void make_directory(const std::string& path)
{
    must(mkdir(path.c_str(), 0755) == 0 || errno == EEXIST, path);
}

static void make_file(const std::string& path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    must(fd >= 0 && close(fd) == 0, path);
}

BusyWorld::BusyWorld()
{
    fake_world_reset();
    fake_log_clear();
    make_directory(mountpath);
    make_directory(devicepath);
    make_file("/etc/mtab");
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
    conf_dir_set_fat_vlabel(1);
    must(crtsec_init() == 0, "there is a busy-device set");
}

BusyWorld::~BusyWorld()
{
    for (MountEntry* entry : entries()) {
        crtsec_blk_del(entry);
        mount_entry_free(entry);
    }
    crtsec_term();
    std::filesystem::remove_all(mountpath);
    std::filesystem::remove_all(devicepath);
    for (const std::string& file : {share_file, device_file})
        unlink(file.c_str()); // not every input makes them
    fake_world_reset();
    fake_log_clear();
}

MountEntry* BusyWorld::add(const HotplugDev& dev, const std::string& name, bool mounted)
{
    auto* entry = static_cast<MountEntry*>(calloc(1, sizeof(MountEntry)));
    entry->dev = static_cast<HotplugDev*>(malloc(sizeof(HotplugDev)));
    *entry->dev = dev;
    entry->devnode = strdup(node_of(name).c_str());
    entry->mountpoint = strdup(directory_of(name).c_str());
    if (mounted) {
        entry->mounted = 1;
        entry->fstype = CONF_DEV_FS_FAT;
        make_file(entry->devnode);
        make_directory(entry->mountpoint);
        fake_world().mounts[entry->mountpoint] = {entry->devnode, "vfat", 0, ""};
    }
    must(crtsec_blk_add(entry) == 0, "an entry is taken into the set");
    return entry;
}

std::vector<MountEntry*> BusyWorld::entries() const
{
    std::vector<MountEntry*> found;
    MountEntry* entry = nullptr;
    for (int32_t at = 0; crtsec_blk_search(&entry, at) == 0; at++)
        found.push_back(entry);
    return found;
}

std::string BusyWorld::node_of(const std::string& name)
{
    return "/media/dev/" + name;
}

std::string BusyWorld::directory_of(const std::string& name)
{
    return "/media/mnt/" + name;
}
