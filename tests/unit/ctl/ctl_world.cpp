#include "unit/ctl/ctl_world.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <filesystem>

static const std::string sysfs = ctl_sysfs;

CtlWorld::CtlWorld()
{
    for (const char* folder : {"/tmp/ctl/sys/block", "/tmp/ctl/run", "/tmp/ctl/mounts"})
        std::filesystem::create_directories(folder);
    write_file("/tmp/ctl/config",
               "smbconfigpath=/tmp/ctl/shares\ndeviceconfigpath=/tmp/ctl/devices\n"
               "mountpath=/tmp/ctl/mounts\ndevicepath=/tmp/ctl/nodes\n");
    const SetupPaths paths = {
        .config = "/tmp/ctl/config", .sysfs = ctl_sysfs, .run = "/tmp/ctl/run"};
    EXPECT_EQ(setup_begin(paths, &setup), 0);
}

CtlWorld::~CtlWorld()
{
    setup_end(&setup);
}

void CtlWorld::add_usb_disk(const std::string& name, const std::string& numbers,
                            const std::string& size)
{
    const std::string usb = sysfs + "/devices/usb-" + name;
    const std::string block = usb + "/host/block/" + name;
    std::filesystem::create_directories(block);
    write_file(usb + "/idVendor", "1234\n");
    write_file(usb + "/idProduct", "00AB\n");
    write_file(usb + "/serial", " S,1 \n");
    write_file(usb + "/product", "Flash\n");
    write_file(block + "/dev", numbers + "\n");
    write_file(block + "/size", size + "\n");
    write_file(block + "/range", "16\n");
    std::filesystem::create_symlink("../..", block + "/device");
    std::filesystem::create_symlink("../devices/usb-" + name + "/host/block/" + name,
                                    sysfs + "/block/" + name);
}

void CtlWorld::add_partition(const std::string& disk, const std::string& name,
                             const std::string& numbers)
{
    const std::string block = sysfs + "/block/" + disk + "/" + name;
    std::filesystem::create_directories(block + "/holders");
    write_file(block + "/dev", numbers + "\n");
    write_file(block + "/size", "100\n");
    write_file(block + "/ro", "1\n");
}
