#include "agent/device_table.h"

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

Device* device_find(Device* devices, int32_t major, int32_t minor)
{
    for (Device* device = devices; device < devices + agent_table_limit; device++) {
        if (device->state != DEVICE_UNSEEN && device->major == major && device->minor == minor)
            return device;
    }
    return nullptr;
}

bool device_is_ours(const Device* devices, int32_t major, int32_t minor)
{
    const Device* device = device_find(const_cast<Device*>(devices), major, minor);
    return device != nullptr && device->state != DEVICE_PASSING && device->state != DEVICE_PASSED;
}
