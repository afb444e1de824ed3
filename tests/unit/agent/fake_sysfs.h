// A tree below /tmp that looks like /sys and /proc as far as the hotplug agent looks.
#pragma once

#include <map>
#include <string>
#include <vector>

using Attributes = std::map<std::string, std::string>; // a line feed is added to each

class FakeSysfs {
  public:
    FakeSysfs(); // without a disk, without a mount
    ~FakeSysfs();

    static constexpr char root[] = "/tmp/fake-sysfs";
    static constexpr char proc[] = "/tmp/fake-proc";
    static constexpr char mounts[] = "/media/vyhotplug"; // the service's

    // A USB stick, and a card. `changes` are put over the usual attributes: of the USB device, of
    // the disk. A value of "-" leaves the file out.
    void add_stick(const std::string& name, const std::string& numbers,
                   const Attributes& usb_changes = {}, const Attributes& disk_changes = {});
    void add_card(const std::string& name, const std::string& numbers);
    void add_partition(const std::string& disk, const std::string& name,
                       const std::string& numbers);

    void remove_disk(const std::string& name);
    void remove_partition(const std::string& disk, const std::string& name);

    // Writes an attribute; `path` is "sda/size", "sda/sda1/ro".
    void set(const std::string& path, const std::string& value);
    void drop(const std::string& path);
    void hold(const std::string& path, const std::string& holder);

    // Directories of a disk's SCSI device and USB device.
    std::string hardware(const std::string& name) const;
    std::string usb(const std::string& name) const;

    void set_event_count(unsigned count);

    // The tables: lines "MAJOR:MINOR DIRECTORY SOURCE [TYPE [rw|ro]]", and paths.
    void set_mounts(const std::vector<std::string>& lines);
    void set_swaps(const std::vector<std::string>& paths);
};
