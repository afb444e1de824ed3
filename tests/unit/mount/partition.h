// One partition in the fake world, ready to be mounted, and the configuration's defaults.
#pragma once

#include "config/conf_hotplug.h"
#include "device/mount_entry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

class PartitionTest : public testing::Test {
  protected:
    PartitionTest();

    int mount();

    // Extra options that the configuration is to carry.
    void set_vfat_options(const std::string& options);
    void set_ntfs_options(const std::string& options);
    void set_ext_options(const std::string& options);

    std::string devnode = "/media/dev/sda1";
    std::string mountpoint = "/media/mnt/sda1";
    HotplugDev dev = {};
    MountEntry entry = {};
    ConfHotplug config = {};

  private:
    std::string vfat_options = "utf8";
    std::string ntfs_options;
    std::string ext_options;
};
