// A daemon's context and busy-device set on the fake world, with directories of their own.
#pragma once

#include "core/context.h"
#include "device/mount_entry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// What a message would say of a device.
HotplugDev make_device(int32_t major, int32_t minor, uint8_t range = 16);

class BusyDevicesTest : public testing::Test {
  protected:
    BusyDevicesTest();
    ~BusyDevicesTest() override;

    // Adds an entry named after its device, such as sda1; a mounted one is so in the fake world.
    MountEntry* add(int32_t major, int32_t minor, uint8_t range = 16, bool mounted = true);

    static std::string node_of(const std::string& name) { return "/media/dev/" + name; }
    static std::string directory_of(const std::string& name) { return "/media/mnt/" + name; }

    // The names of the mount directories that the hook was called for, with its word in front:
    // "mount sda1".
    std::vector<std::string> hook_calls();

    // The entries of the set, in order.
    std::vector<MountEntry*> entries();

    DaemonCtx ctx = {};
    ConfHotplug config = {};
    std::string share_file = "/tmp/vynas.dir.conf";
    std::string device_file = "/tmp/hotplug.dev.conf";

  private:
    std::string mountpath = "/media/mnt";
    std::string devicepath = "/media/dev";
};
