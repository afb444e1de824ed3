#include "agent/add_message.h"

#include "common/text.h"
#include "lib/str.h"

#include <stdio.h>
#include <string.h>

static constexpr size_t build_size = 2048; // more than all texts of a device together

static void drop_unfit(char* text, const char* characters, size_t most)
{
    text_trim(text);
    if (strlen(text) > most || text[strspn(text, characters)] != '\0')
        text[0] = '\0';
}

static void clean(char* text)
{
    text_trim(text);
    (void)text_clean(text, ",[]");
    if (text[0] == '=')
        text[0] = '_';
}

static void make_fit(BlockDevice* device)
{
    static constexpr char hexadecimal[] = "0123456789abcdefABCDEF";
    drop_unfit(device->range, "0123456789", 3);
    if (device->range[0] == '0' || (strlen(device->range) == 3 && strcmp(device->range, "255") > 0))
        device->range[0] = '\0'; // what the item may say ends there
    drop_unfit(device->removable, "01", 1);
    drop_unfit(device->readonly, "01", 1);
    drop_unfit(device->vid, hexadecimal, 4);
    drop_unfit(device->pid, hexadecimal, 4);
    drop_unfit(device->speed, "0123456789.", 7);
    if (device->speed[0] == '.')
        device->speed[0] = '\0';
    clean(device->serial);
    clean(device->vname);
    clean(device->pname);
}

// Takes a character off the longer name. Returns whether there was any.
static bool shorten(BlockDevice* device)
{
    const bool vendor_longer = strlen(device->vname) > strlen(device->pname);
    char* name = vendor_longer ? device->vname : device->pname;
    if (name[0] == '\0')
        return false; // and then it fits, see the header
    text_shorten(name, strlen(name) - 1);
    text_trim(name); // no blank ends it then
    return true;
}

// Bytes that a name takes off the message's length, with its key.
static size_t length_of_name(const char* name)
{
    return name[0] != '\0' ? strlen(",VNAME=") + strlen(name) : 0;
}

// Takes characters off the names until a message of `length` bytes has less than `size`, or the
// names are empty.
static void shorten_to(size_t size, size_t length, BlockDevice* device)
{
    const size_t others = length - length_of_name(device->vname) - length_of_name(device->pname);
    while (others + length_of_name(device->vname) + length_of_name(device->pname) >= size &&
           shorten(device)) {
    }
}

// Returns the length.
static size_t build(const BlockDevice& device, char (&text)[build_size])
{
    const struct {
        const char* key;
        const char* value; // left out where it is empty
    } items[] = {
        {"DEVTYPE", device.name.partition > 0 ? "partition" : "disk"},
        {"RANGE", device.range},
        {"RM", device.removable},
        {"RO", device.readonly},
        {"VID", device.vid},
        {"PID", device.pid},
        {"SID", device.serial},
        {"VNAME", device.vname},
        {"PNAME", device.pname},
        {"SPEED", device.speed},
    };
    int length =
        snprintf(text, sizeof text, "ACTION=add,MAJOR=%d,MINOR=%d", device.major, device.minor);
    for (const auto& item : items) {
        if (item.value[0] != '\0')
            length += snprintf(text + length, sizeof text - static_cast<size_t>(length), ",%s=%s",
                               item.key, item.value);
    }
    return static_cast<size_t>(length);
}

size_t add_message_format(const BlockDevice& device, char (&text)[agent_message_size])
{
    char built[build_size];
    BlockDevice fit = device;
    make_fit(&fit);
    const size_t length = build(fit, built);
    if (length >= sizeof text) {
        shorten_to(sizeof text, length, &fit);
        (void)build(fit, built);
    }
    str_ncpy(text, built, sizeof text);
    return strlen(text);
}

size_t remove_message_format(int32_t major, int32_t minor, char (&text)[agent_message_size])
{
    return static_cast<size_t>(
        snprintf(text, sizeof text, "ACTION=remove,MAJOR=%d,MINOR=%d", major, minor));
}
