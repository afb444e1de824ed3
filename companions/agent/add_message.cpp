#include "agent/add_message.h"

#include "common/text.h"
#include "lib/str.h"

#include <stdio.h>
#include <string.h>

static constexpr char forbidden[] = ",[]";
static constexpr int32_t most_range = 255; // what the item may say
static constexpr size_t most_usb_id = 4;   // digits
static constexpr size_t most_speed = 7;
static constexpr size_t build_size = 2048; // more than all texts of a device together

// ---- fitness ----

static void clean(char* text)
{
    text_trim(text);
    (void)text_clean(text, forbidden);
    if (text[0] == '=')
        text[0] = '_';
}

static bool is_made_of(const char* text, const char* characters, size_t most)
{
    const size_t length = strlen(text);
    return length > 0 && length <= most && strspn(text, characters) == length;
}

static void drop_unfit(char* text, const char* characters, size_t most)
{
    text_trim(text);
    if (!is_made_of(text, characters, most))
        text[0] = '\0';
}

static void make_fit(BlockDevice* device)
{
    static constexpr char hexadecimal[] = "0123456789abcdefABCDEF";
    drop_unfit(device->vid, hexadecimal, most_usb_id);
    drop_unfit(device->pid, hexadecimal, most_usb_id);
    drop_unfit(device->speed, "0123456789.", most_speed);
    if (device->speed[0] == '.')
        device->speed[0] = '\0';
    clean(device->serial);
    clean(device->vname);
    clean(device->pname);
    if (device->range < 1 || device->range > most_range)
        device->range = -1;
}

// ---- writing ----

namespace {

struct Builder {
    char text[build_size];
    size_t length;
};

} // namespace

static void put_text(Builder* builder, const char* key, const char* value)
{
    if (value[0] == '\0')
        return;
    const size_t room = sizeof builder->text - builder->length;
    const int length = snprintf(builder->text + builder->length, room, ",%s=%s", key, value);
    if (length > 0 && static_cast<size_t>(length) < room)
        builder->length += static_cast<size_t>(length);
}

static void put_number(Builder* builder, const char* key, int32_t number)
{
    if (number < 0)
        return;
    char digits[16];
    (void)snprintf(digits, sizeof digits, "%d", number);
    put_text(builder, key, digits);
}

static void build(const BlockDevice& device, Builder* builder)
{
    builder->length = static_cast<size_t>(str_cpy(builder->text, "ACTION=add") - builder->text);
    put_number(builder, "MAJOR", device.major);
    put_number(builder, "MINOR", device.minor);
    put_text(builder, "DEVTYPE", device.name.partition > 0 ? "partition" : "disk");
    put_number(builder, "RANGE", device.range);
    put_number(builder, "RM", device.removable);
    put_number(builder, "RO", device.readonly);
    put_text(builder, "VID", device.vid);
    put_text(builder, "PID", device.pid);
    put_text(builder, "SID", device.serial);
    put_text(builder, "VNAME", device.vname);
    put_text(builder, "PNAME", device.pname);
    put_text(builder, "SPEED", device.speed);
}

// Takes the last character off, and blanks that end the text then.
static void drop_last(char* text)
{
    text_shorten(text, strlen(text) - 1);
    text_trim(text);
}

// Takes a character off the longer name. Returns whether there was any.
static bool shorten(BlockDevice* device)
{
    const bool vendor_longer = strlen(device->vname) > strlen(device->pname);
    char* name = vendor_longer ? device->vname : device->pname;
    if (name[0] == '\0')
        return false; // and then it fits, see the header
    drop_last(name);
    return true;
}

size_t add_message_format(const BlockDevice& device, char (&text)[agent_message_size])
{
    BlockDevice fit = device;
    make_fit(&fit);
    Builder builder;
    do {
        build(fit, &builder);
    } while (builder.length >= sizeof text && shorten(&fit));
    str_ncpy(text, builder.text, sizeof text);
    return strlen(text);
}

size_t remove_message_format(int32_t major, int32_t minor, char (&text)[agent_message_size])
{
    return static_cast<size_t>(
        snprintf(text, sizeof text, "ACTION=remove,MAJOR=%d,MINOR=%d", major, minor));
}

// ---- identity ----

// FNV-1a
static void mix(uint64_t* hash, const void* bytes, size_t size)
{
    const auto* byte = static_cast<const unsigned char*>(bytes);
    for (size_t i = 0; i < size; i++)
        *hash = (*hash ^ byte[i]) * 1099511628211ULL;
}

uint64_t block_device_identity(const BlockDevice& device)
{
    uint64_t hash = 14695981039346656037ULL;
    mix(&hash, &device.major, sizeof device.major);
    mix(&hash, &device.minor, sizeof device.minor);
    mix(&hash, &device.incarnation, sizeof device.incarnation);
    const char* const texts[] = {device.vid, device.pid, device.serial, device.vname, device.pname};
    for (const char* text : texts)
        mix(&hash, text, strlen(text) + 1);
    return hash;
}
