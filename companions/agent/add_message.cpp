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

static void make_fit(BlockDevice* device, BlockHardware* hardware)
{
    static constexpr char hexadecimal[] = "0123456789abcdefABCDEF";
    drop_unfit(hardware->range, "0123456789", 3);
    if (hardware->range[0] == '0' ||
        (strlen(hardware->range) == 3 && strcmp(hardware->range, "255") > 0))
        hardware->range[0] = '\0'; // what the item may say ends there
    drop_unfit(hardware->removable, "01", 1);
    drop_unfit(device->readonly, "01", 1);
    drop_unfit(hardware->vid, hexadecimal, 4);
    drop_unfit(hardware->pid, hexadecimal, 4);
    drop_unfit(hardware->speed, "0123456789.", 7);
    if (hardware->speed[0] == '.')
        hardware->speed[0] = '\0';
    clean(hardware->serial);
    clean(hardware->vname);
    clean(hardware->pname);
}

// Takes a character off the longer name. Returns whether there was any.
static bool shorten(BlockHardware* hardware)
{
    const bool vendor_longer = strlen(hardware->vname) > strlen(hardware->pname);
    char* name = vendor_longer ? hardware->vname : hardware->pname;
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
static void shorten_to(size_t size, size_t length, BlockHardware* hardware)
{
    const size_t others =
        length - length_of_name(hardware->vname) - length_of_name(hardware->pname);
    while (others + length_of_name(hardware->vname) + length_of_name(hardware->pname) >= size &&
           shorten(hardware)) {
    }
}

// Returns the length.
static size_t build(const BlockDevice& device, const BlockHardware& hardware,
                    char (&text)[build_size])
{
    const struct {
        const char* key;
        const char* value; // left out where it is empty
    } items[] = {
        {"DEVTYPE", device.name.partition > 0 ? "partition" : "disk"},
        {"RANGE", hardware.range},
        {"RM", hardware.removable},
        {"RO", device.readonly},
        {"VID", hardware.vid},
        {"PID", hardware.pid},
        {"SID", hardware.serial},
        {"VNAME", hardware.vname},
        {"PNAME", hardware.pname},
        {"SPEED", hardware.speed},
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
    BlockHardware hardware = *device.hardware;
    make_fit(&fit, &hardware);
    const size_t length = build(fit, hardware, built);
    if (length >= sizeof text) {
        shorten_to(sizeof text, length, &hardware);
        (void)build(fit, hardware, built);
    }
    str_ncpy(text, built, sizeof text);
    return strlen(text);
}

size_t remove_message_format(int32_t major, int32_t minor, char (&text)[agent_message_size])
{
    return static_cast<size_t>(
        snprintf(text, sizeof text, "ACTION=remove,MAJOR=%d,MINOR=%d", major, minor));
}
