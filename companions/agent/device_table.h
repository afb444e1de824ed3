// What the daemon was told of each device, and the one table of what happens to a device.
#pragma once

#include "agent/block_device.h"
#include "agent/limits.h"

#include <stdint.h>

enum DeviceState : uint8_t {
    DEVICE_UNSEEN,  // the daemon was told nothing of it
    DEVICE_SENT,    // its add message is under way
    DEVICE_TOLD,    // the daemon has it
    DEVICE_LEAVING, // the daemon has it, and its remove message is to be sent or under way
    DEVICE_GONE,    // the daemon was told that it went
    DEVICE_PASSING, // it was never announced, but its remove message is to be sent,
    DEVICE_PASSED,  // and was
};

enum DeviceEvent : uint8_t {
    DEVICE_OUT,     // its add message is handed out
    DEVICE_ADDED,   // its add message has been delivered
    DEVICE_WENT,    // the kernel says so, or sysfs shows it no more, or another one in its place
    DEVICE_TAKEN,   // its remove message has been delivered
    DEVICE_MOUNTED, // it is still mounted, some time after that
};

// The one table of states and events. Pure.
DeviceState device_next(DeviceState state, DeviceEvent event);

// A device is what has certain numbers.
struct Device {
    DeviceState state = DEVICE_UNSEEN;
    int32_t major = 0;
    int32_t minor = 0;
    BlockName name = {};
    uint64_t identity = 0; // of the block device that was announced
    uint64_t seen = 0;     // how many events the kernel had sent before that was read
    uint8_t looks = 0;     // had or due, whether it is still mounted
    uint64_t look_due = 0; // the next one's time; 0: none is due
};

// agent_table_limit devices, at first unseen. Pages of memory are taken as devices are written to
// them, for most machines have few. Where there is no memory for any, it is empty.
class DeviceTable {
  public:
    DeviceTable();
    ~DeviceTable();
    DeviceTable(const DeviceTable&) = delete;
    DeviceTable& operator=(const DeviceTable&) = delete;

    Device* begin() const { return devices_; }
    Device* end() const { return devices_ + (devices_ != nullptr ? agent_table_limit : 0); }

  private:
    Device* devices_;
};

// Lends the one with these numbers; null when there is none but unseen ones.
Device* device_find(const DeviceTable& devices, int32_t major, int32_t minor);

// Whether a device with these numbers was ever announced, gone or not: what is mounted there is the
// service's.
bool device_is_ours(const DeviceTable& devices, int32_t major, int32_t minor);
