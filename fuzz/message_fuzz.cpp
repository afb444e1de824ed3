// Control messages: what is read from their bytes against an independent reading.
//
// Input: a message. Like the receive thread, this cuts it to 512 bytes and leaves one zero byte
// behind it.
#include "core/message.h"

#include "device/crtsec.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <string.h>

#include <algorithm>
#include <memory>

static HotplugAction action_of(const std::string& text)
{
    if (text.rfind("ACTION=add", 0) == 0)
        return HOTPLUG_ACTION_ADD;
    if (text.rfind("ACTION=mount", 0) == 0)
        return HOTPLUG_ACTION_MOUNT;
    if (text.rfind("ACTION=unmount", 0) == 0)
        return HOTPLUG_ACTION_UNMOUNT;
    if (text.rfind("ACTION=remove", 0) == 0)
        return HOTPLUG_ACTION_REMOVE;
    return HOTPLUG_ACTION_UNKNOWN;
}

namespace {

// What a message says, by the second reading.
struct Said {
    int64_t major = 0;
    int64_t minor = 0;
    int64_t speed = 0;
    int64_t devtype = 0;
    int64_t range = 16;
    bool removable = false;
    bool readonly = false;
    uint16_t vid = 0;
    uint16_t pid = 0;
    std::string vname = "(null)";
    std::string pname = "(null)";
    std::string serial = "(null)";
    std::string target;
    bool force = false;
};

} // namespace

static void say_number(int64_t* field, const std::string& value)
{
    *field = oracle_number(value, 10).value_or(static_cast<int32_t>(*field));
}

static void say_range(int64_t* field, const std::string& value)
{
    const int32_t number = oracle_number(value, 10).value_or(0);
    if (number > 0 && number < 256)
        *field = number;
}

static void say_flag(bool* field, const std::string& value)
{
    *field = oracle_number(value, 10).value_or(*field ? 1 : 0) != 0;
}

static void say_usb_id(uint16_t* field, const std::string& value)
{
    *field = static_cast<uint16_t>(oracle_number(value, 16).value_or(*field) & 0xFFFF);
}

static void say_name(std::string* field, std::string value)
{
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
        value.pop_back();
    if (!value.empty())
        *field = value;
}

static void say_speed(int64_t* field, const std::string& value)
{
    if (value.find("480") != std::string::npos)
        *field = 480;
    if (value.find("12") != std::string::npos)
        *field = 12;
}

static void say_devtype(int64_t* field, const std::string& value)
{
    if (value == "partition")
        *field = 1;
    if (value == "disk")
        *field = 2;
}

static bool is_key(const std::string& name)
{
    static const std::string keys[] = {"ACTION", "MAJOR", "MINOR", "DEVTYPE", "USBPORT",
                                       "RANGE",  "RM",    "RO",    "VNAME",   "PNAME",
                                       "SPEED",  "VID",   "PID",   "SID"};
    return std::find(std::begin(keys), std::end(keys), name) != std::end(keys);
}

static void say_item(Said* said, const std::string& name, const std::string& value)
{
    if (name == "MAJOR")
        say_number(&said->major, value);
    else if (name == "MINOR")
        say_number(&said->minor, value);
    else if (name == "DEVTYPE")
        say_devtype(&said->devtype, value);
    else if (name == "RANGE")
        say_range(&said->range, value);
    else if (name == "RM")
        say_flag(&said->removable, value);
    else if (name == "RO")
        say_flag(&said->readonly, value);
    else if (name == "VNAME")
        say_name(&said->vname, value);
    else if (name == "PNAME")
        say_name(&said->pname, value);
    else if (name == "SPEED")
        say_speed(&said->speed, value);
    else if (name == "VID")
        say_usb_id(&said->vid, value);
    else if (name == "PID")
        say_usb_id(&said->pid, value);
    else if (name == "SID")
        said->serial = value;
}

static Said read_again(const std::string& text)
{
    Said said;
    for (const OptionItem& item : oracle_option_map(text)) {
        if (is_key(item.name) && item.value)
            say_item(&said, item.name, *item.value);
        else if (!is_key(item.name) && item.name == "force")
            said.force = true;
        else if (!is_key(item.name))
            said.target = item.name.substr(0, 15);
    }
    return said;
}

static void check_device(const HotplugDev& dev, const Said& said)
{
    check_equal(dev.major, said.major, "MAJOR");
    check_equal(dev.minor, said.minor, "MINOR");
    check_equal(dev.devtype, said.devtype, "DEVTYPE");
    check_equal(dev.range, said.range, "RANGE");
    check_equal(dev.flags, (said.removable ? 1 : 0) + (said.readonly ? 2 : 0), "RM and RO");
    check_equal(dev.speed, said.speed, "SPEED");
    check_equal(dev.vid, said.vid, "VID");
    check_equal(dev.pid, said.pid, "PID");
    check_same(text_of(dev.vname), said.vname, "VNAME");
    check_same(text_of(dev.pname), said.pname, "PNAME");
    check_same(text_of(dev.serial), said.serial, "SID");
    check_equal(dev.usbport[0], 0, "USBPORT");
    check_equal(dev.helperpid, 0, "no driver yet");
}

static void check_reading(const char* text)
{
    check_equal(message_action(text), action_of(text), "the action");
    ControlMessage message;
    check_equal(message_parse(text, &message), 0, "a message is read");
    const Said said = read_again(text);
    check_device(message.dev, said);
    check_same(message.target, said.target, "the target");
    check_equal(message.force, said.force ? 1 : 0, "force");
    message_clear(&message);
}

void fuzz(Input& input)
{
    const std::string bytes = input.rest().substr(0, HOTPLUG_CMD_TEXT);
    const std::unique_ptr<char[]> text(new char[bytes.size() + 1]); // no byte longer
    memcpy(text.get(), bytes.c_str(), bytes.size() + 1);
    check_reading(text.get());
}
