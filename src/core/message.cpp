#include "core/message.h"

#include "config/getopt.h"
#include "lib/str.h"

#include <stdlib.h>
#include <string.h>

static constexpr uint8_t default_range = 16;

namespace {

struct ActionPrefix {
    const char* text;
    HotplugAction action;
};

// In the order in which they are compared.
constexpr ActionPrefix action_prefixes[] = {
    {"ACTION=add", HOTPLUG_ACTION_ADD},
    {"ACTION=mount", HOTPLUG_ACTION_MOUNT},
    {"ACTION=unmount", HOTPLUG_ACTION_UNMOUNT},
    {"ACTION=remove", HOTPLUG_ACTION_REMOVE},
};

constexpr vyopt_option message_keys[] = {
    {'a', VYOPT_ARG, "ACTION"},  {'j', VYOPT_ARG, "MAJOR"},   {'n', VYOPT_ARG, "MINOR"},
    {'t', VYOPT_ARG, "DEVTYPE"}, {'u', VYOPT_ARG, "USBPORT"}, {'r', VYOPT_ARG, "RANGE"},
    {'m', VYOPT_ARG, "RM"},      {'o', VYOPT_ARG, "RO"},      {'V', VYOPT_ARG, "VNAME"},
    {'P', VYOPT_ARG, "PNAME"},   {'S', VYOPT_ARG, "SPEED"},   {'v', VYOPT_ARG, "VID"},
    {'p', VYOPT_ARG, "PID"},     {'s', VYOPT_ARG, "SID"},     {0, 0, nullptr},
};

} // namespace

HotplugAction message_action(const char* text)
{
    for (const ActionPrefix& prefix : action_prefixes) {
        if (strncmp(text, prefix.text, strlen(prefix.text)) == 0)
            return prefix.action;
    }
    return HOTPLUG_ACTION_UNKNOWN;
}

// ---- values: one that is missing or does not parse leaves its field as it was ----

static bool parse_number(const char* value, int base, int32_t* number)
{
    return value != nullptr && str_to_long(value, number, base) == 0;
}

static void set_number(int32_t* field, const char* value)
{
    int32_t number = 0;
    if (parse_number(value, 10, &number))
        *field = number;
}

static void set_usb_id(uint16_t* field, const char* value)
{
    int32_t number = 0;
    if (parse_number(value, 16, &number))
        *field = static_cast<uint16_t>(number);
}

static void set_range(HotplugDev* dev, const char* value)
{
    int32_t number = 0;
    if (parse_number(value, 10, &number) && number >= 1 && number <= 255)
        dev->range = static_cast<uint8_t>(number);
}

static void set_flag(HotplugDev* dev, uint8_t flag, const char* value)
{
    int32_t number = 0;
    if (!parse_number(value, 10, &number))
        return;
    if (number != 0)
        dev->flags |= flag;
    else
        dev->flags = static_cast<uint8_t>(dev->flags & ~flag);
}

static void set_devtype(HotplugDev* dev, const char* value)
{
    if (value == nullptr)
        return;
    if (strcmp(value, "partition") == 0)
        dev->devtype = HOTPLUG_DEVTYPE_PARTITION;
    else if (strcmp(value, "disk") == 0)
        dev->devtype = HOTPLUG_DEVTYPE_DISK;
}

static void set_speed(HotplugDev* dev, const char* value)
{
    if (value == nullptr)
        return;
    if (strstr(value, "480") != nullptr)
        dev->speed = 480;
    if (strstr(value, "12") != nullptr) // kept: wins over 480 where both are found
        dev->speed = 12;
}

static void set_text(char** field, const char* value, size_t length)
{
    char* copy = strndup(value, length);
    if (copy == nullptr)
        return;
    free(*field);
    *field = copy;
}

// A name without the blanks at its end; nothing when only blanks are left.
static void set_name(char** field, const char* value)
{
    if (value == nullptr)
        return;
    size_t length = strlen(value);
    while (length > 0 && (value[length - 1] == ' ' || value[length - 1] == '\t'))
        length--;
    if (length > 0)
        set_text(field, value, length);
}

static void set_word(ControlMessage* message, const char* word)
{
    if (strcmp(word, "force") == 0)
        message->force = 1;
    else
        str_ncpy(message->target, word, sizeof message->target);
}

static void set_item(ControlMessage* message, int code, const char* value)
{
    HotplugDev* dev = &message->dev;
    switch (code) {
    case 'j':
        return set_number(&dev->major, value);
    case 'n':
        return set_number(&dev->minor, value);
    case 't':
        return set_devtype(dev, value);
    case 'r':
        return set_range(dev, value);
    case 'm':
        return set_flag(dev, HOTPLUG_FLAG_REMOVABLE, value);
    case 'o':
        return set_flag(dev, HOTPLUG_FLAG_READONLY, value);
    case 'V':
        return set_name(&dev->vname, value);
    case 'P':
        return set_name(&dev->pname, value);
    case 'S':
        return set_speed(dev, value);
    case 'v':
        return set_usb_id(&dev->vid, value);
    case 'p':
        return set_usb_id(&dev->pid, value);
    case 's':
        if (value != nullptr)
            set_text(&dev->serial, value, strlen(value));
        return;
    case VYOPT_UNKNOWN:
        return set_word(message, value);
    default: // the action stands in the text's beginning; a port path is not taken over
        return;
    }
}

int message_parse(const char* text, ControlMessage* message)
{
    *message = {};
    message->dev.range = default_range;
    const OptionMapGuard map(vyopt_create_opmap(text));
    if (!map)
        return -1;
    int32_t index = 0;
    const char* value = nullptr;
    int code = 0;
    while ((code = vy_getopt(&index, map.get(), message_keys, &value)) != 0)
        set_item(message, code, value);
    return 0;
}

void message_clear(ControlMessage* message)
{
    hotplug_dev_clear(&message->dev);
}
