// Tests with devices in the busy-device set.
#pragma once

#include "support/busy_world.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// What a message would say of a device.
HotplugDev make_device(int32_t major, int32_t minor, uint8_t range = 16);

// Labels of FAT are not read here.
class BusyDevicesTest : public testing::Test, protected BusyWorld {
  protected:
    BusyDevicesTest();

    // Adds an entry named after its device, such as sda1; a mounted one is so in the fake world.
    MountEntry* add(int32_t major, int32_t minor, uint8_t range = 16, bool mounted = true);

    // The names of the mount directories that the hook was called for, with its word in front:
    // "mount sda1".
    static std::vector<std::string> hook_calls();
};
