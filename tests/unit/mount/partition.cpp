#include "partition.h"

#include "device/kinds.h"
#include "mount/mount.h"

#include <sys/stat.h>

PartitionTest::PartitionTest()
{
    for (const char* directory : {"/media/dev", "/media/mnt"})
        EXPECT_EQ(mkdir(directory, 0755), 0);
    dev.major = MAJOR_SD;
    dev.minor = 1;
    dev.range = 16;
    entry.devnode = devnode.data();
    entry.mountpoint = mountpoint.data();
    entry.dev = &dev;
    config.fileumask = 0113;
    config.dirumask = 0002;
    config.mountvfat = 1;
    config.mountntfs = 1;
    config.mountext = 1;
    config.vfatoptions = vfat_options.data();
}

int PartitionTest::mount()
{
    return vymount(&entry, &config);
}

void PartitionTest::set_vfat_options(const std::string& options)
{
    vfat_options = options;
    config.vfatoptions = vfat_options.data();
}

void PartitionTest::set_ntfs_options(const std::string& options)
{
    ntfs_options = options;
    config.ntfsoptions = ntfs_options.data();
}

void PartitionTest::set_ext_options(const std::string& options)
{
    ext_options = options;
    config.extfsoptions = ext_options.data();
}
