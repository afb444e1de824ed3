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

// An empty file, in as few calls as can be: most often there is none yet.
static void make_file(const std::string& path)
{
    must(mknod(path.c_str(), S_IFREG | 0644, 0) == 0 || truncate(path.c_str(), 0) == 0, path);
}

// A directory that is most often empty by then, which is cheaper to find out than to look through
// it.
static void remove_directory(const std::string& path)
{
    if (rmdir(path.c_str()) != 0)
        std::filesystem::remove_all(path);
}

// ---- places ----

static constexpr char mount_directory[] = "/media/mnt";
static constexpr char node_directory[] = "/media/dev";
static constexpr char mount_table[] = "/etc/mtab";

BusyPlaces::BusyPlaces()
{
    make_directory(mount_directory);
    make_directory(node_directory);
    make_file(mount_table);
}

BusyPlaces::~BusyPlaces()
{
    remove_directory(mount_directory);
    remove_directory(node_directory);
}

// ---- the world ----

BusyWorld::BusyWorld(const BusyPlaces* places)
{
    if (places == nullptr)
        own_places_.emplace();
    fake_world_reset();
    fake_log_clear();
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

// Removes what the journal says that was made, and the files that it says were moved into place.
void BusyWorld::take_back() const
{
    const FakeWorld& world = fake_world();
    for (const std::string& call : world.calls("mknod "))
        (void)unlink(call.substr(6, call.find(' ', 6) - 6).c_str()); // it may be gone again
    for (const std::string& call : world.calls("mkdir "))
        (void)rmdir(call.substr(6, call.find(' ', 6) - 6).c_str());
    const bool renamed = world.count("rename") > 0;
    if (renamed || world.count("mount") > 0)
        must(truncate(mount_table, 0) == 0, mount_table);
    for (const std::string& file : {share_file, device_file}) {
        if (renamed || own_places_)
            unlink(file.c_str()); // not everybody makes them
    }
}

BusyWorld::~BusyWorld()
{
    for (MountEntry* entry : entries()) {
        crtsec_blk_del(entry);
        mount_entry_free(entry);
    }
    for (const std::string& name : put_) {
        (void)rmdir(directory_of(name).c_str()); // it may be gone
        (void)unlink(node_of(name).c_str());
    }
    crtsec_term();
    take_back();
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
        put_.push_back(name);
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
    return std::string(node_directory) + "/" + name;
}

std::string BusyWorld::directory_of(const std::string& name)
{
    return std::string(mount_directory) + "/" + name;
}
