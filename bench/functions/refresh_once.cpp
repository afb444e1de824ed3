// refresh_once SECTIONS MOUNTS [TIMES]
//
// Refreshes the tables of a daemon with so many device sections, each with settings, and so many
// mounted partitions without any, on the scripted world: files are really written, sync(2) is not
// called. The first refresh, which adds the partitions, is not counted; TIMES (1) more are. Prints
// their times in ns and their allocations as JSON. Under callgrind with --instr-atstart=no the
// counted refreshes' instructions are what is counted. To be run in a private world.
#include "config/filesystems.h"
#include "core/refresh.h"
#include "device/crtsec.h"
#include "device/kinds.h"
#include "functions/counted.h"
#include "functions/device_sections.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static char share_file[] = "/tmp/vynas.dir.conf";
static char device_file[] = "/tmp/hotplug.dev.conf";

static void add_partition(int number)
{
    auto* entry = static_cast<MountEntry*>(calloc(1, sizeof(MountEntry)));
    entry->dev = static_cast<HotplugDev*>(calloc(1, sizeof(HotplugDev)));
    entry->dev->range = 16;
    entry->dev->vid = 0x1234;
    entry->dev->pid = 0x00AB;
    entry->dev->major = MAJOR_SD;
    entry->dev->minor = number;
    entry->dev->serial = strdup(("MOUNTED" + std::to_string(number)).c_str());
    entry->mounted = 1;
    entry->fstype = CONF_DEV_FS_EXT4;
    entry->devnode = strdup(("/tmp/node" + std::to_string(number)).c_str());
    entry->mountpoint = strdup(("/tmp/mount" + std::to_string(number)).c_str());
    if (crtsec_blk_add(entry) != 0)
        exit(1);
}

static long long now_ns()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

int main(int argc, char* argv[])
{
    if (argc < 3 || getenv("VY_WORLD") == nullptr) {
        fprintf(stderr, "usage, in a private world: refresh_once SECTIONS MOUNTS [TIMES]\n");
        return 2;
    }
    write_device_file(device_file, strtoul(argv[1], nullptr, 10));
    ConfHotplug config = {};
    config.naswork = 1;
    config.smbconfigpath = share_file;
    config.deviceconfigpath = device_file;
    DaemonCtx ctx = {};
    ctx.config = &config;
    if (crtsec_init() != 0)
        return 1;
    for (int number = 0; number < atoi(argv[2]); number++)
        add_partition(number);
    const int dirty = DIRTY_ADDED | DIRTY_REMOVED;
    refresh_tables(&ctx, dirty);

    const int times = argc > 3 ? atoi(argv[3]) : 1;
    const Allocations before = allocations_so_far();
    printf("{\"ns\": [");
    for (int run = 0; run < times; run++) {
        const long long began = now_ns();
        CALLGRIND_START_INSTRUMENTATION;
        refresh_tables(&ctx, dirty);
        CALLGRIND_STOP_INSTRUMENTATION;
        printf("%s%lld", run > 0 ? ", " : "", now_ns() - began);
    }
    const Allocations after = allocations_so_far();
    printf("], \"allocations\": %zu, \"bytes\": %zu}\n", after.count - before.count,
           after.bytes - before.bytes);
    return 0;
}
