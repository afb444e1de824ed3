// A configuration, files and a sysfs for the tests.
#pragma once

#include "ctl/setup.h"
#include "ctl/view.h"

#include <string>

// Makes directories, an empty device file and a configuration below /tmp/ctl, and reads it.
class CtlWorld {
  public:
    CtlWorld();
    ~CtlWorld();
    CtlWorld(const CtlWorld&) = delete;
    CtlWorld& operator=(const CtlWorld&) = delete;

    // A USB disk, or a part of one, in sysfs. `size` in sectors.
    static void add_usb_disk(const std::string& name, const std::string& numbers,
                             const std::string& size);
    static void add_partition(const std::string& disk, const std::string& name,
                              const std::string& numbers);

    Setup setup = {};
};

constexpr char ctl_sysfs[] = "/tmp/ctl/sys";
constexpr char ctl_devices[] = "/tmp/ctl/devices"; // the device file
constexpr char ctl_shares[] = "/tmp/ctl/shares";   // the share file
constexpr char ctl_not_mounted[] = "/tmp/ctl/run/not-mounted";
