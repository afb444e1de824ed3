#include "agent/device_table.h"

#include <sys/mman.h>

DeviceState device_next(DeviceState state, DeviceEvent event)
{
    static constexpr DeviceState table[][5] = {
        // out, added, went, taken, mounted
        {DEVICE_SENT, DEVICE_UNSEEN, DEVICE_PASSING, DEVICE_UNSEEN, DEVICE_UNSEEN},      // unseen
        {DEVICE_SENT, DEVICE_TOLD, DEVICE_LEAVING, DEVICE_SENT, DEVICE_SENT},            // sent
        {DEVICE_TOLD, DEVICE_TOLD, DEVICE_LEAVING, DEVICE_TOLD, DEVICE_TOLD},            // told
        {DEVICE_LEAVING, DEVICE_LEAVING, DEVICE_LEAVING, DEVICE_GONE, DEVICE_LEAVING},   // leaving
        {DEVICE_SENT, DEVICE_GONE, DEVICE_GONE, DEVICE_GONE, DEVICE_LEAVING},            // gone
        {DEVICE_PASSING, DEVICE_PASSING, DEVICE_PASSING, DEVICE_PASSED, DEVICE_PASSING}, // passing
        {DEVICE_SENT, DEVICE_PASSED, DEVICE_PASSED, DEVICE_PASSED, DEVICE_PASSED},       // passed
    };
    return table[state][event];
}

// Fresh pages are zero, which is an unseen device.
static_assert(DEVICE_UNSEEN == 0);

DeviceTable::DeviceTable()
{
    void* pages = mmap(nullptr, agent_table_limit * sizeof(Device), PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    devices_ = pages != MAP_FAILED ? static_cast<Device*>(pages) : nullptr;
}

DeviceTable::~DeviceTable()
{
    if (devices_ != nullptr)
        (void)munmap(devices_, agent_table_limit * sizeof(Device));
}

Device* device_find(const DeviceTable& devices, int32_t major, int32_t minor)
{
    for (Device& device : devices) {
        if (device.state != DEVICE_UNSEEN && device.major == major && device.minor == minor)
            return &device;
    }
    return nullptr;
}

bool device_is_ours(const DeviceTable& devices, int32_t major, int32_t minor)
{
    const Device* device = device_find(devices, major, minor);
    return device != nullptr && device->state != DEVICE_PASSING && device->state != DEVICE_PASSED;
}
