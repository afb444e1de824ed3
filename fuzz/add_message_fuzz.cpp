// Add messages of devices with hostile texts: what the daemon reads of them.
//
// Input: on a line each the major and the minor number, the range, removable, read-only and the
// partition's number; then, separated by lines "%%", vendor id, product id, speed, serial, vendor's
// and product's name.
#include "agent/add_message.h"
#include "common/text.h"
#include "core/message.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <string.h>

#include <memory>
#include <set>

static void put(char* field, size_t size, const std::string& text)
{
    snprintf(field, size, "%s", text.c_str());
}

static BlockDevice read_device(Input* input)
{
    BlockDevice device = {};
    device.major = static_cast<int32_t>(input->number(0, 4095));
    device.minor = static_cast<int32_t>(input->number(0, 1048575));
    device.range = static_cast<int32_t>(input->number(INT32_MIN, INT32_MAX));
    device.removable = static_cast<int32_t>(input->number(-1, 1));
    device.readonly = static_cast<int32_t>(input->number(-1, 1));
    device.name = {BLOCK_SD, 1, static_cast<int32_t>(input->number(0, 9999))};
    put(device.vid, sizeof device.vid, input->field());
    put(device.pid, sizeof device.pid, input->field());
    put(device.speed, sizeof device.speed, input->field());
    put(device.serial, sizeof device.serial, input->field());
    put(device.vname, sizeof device.vname, input->field());
    put(device.pname, sizeof device.pname, input->field());
    return device;
}

static void check_bytes(const char* text)
{
    for (const char* at = text; *at != '\0'; at += text_sequence(at)) {
        check(text_sequence(at) > 0, "it is UTF-8");
        check(static_cast<unsigned char>(*at) >= ' ' && *at != 0x7f, "no control character");
        check(strchr("[]", *at) == nullptr, "no bracket");
    }
}

static void check_items(const std::string& text)
{
    static const std::set<std::string> known = {"ACTION", "MAJOR", "MINOR", "DEVTYPE", "RANGE",
                                                "RM",     "RO",    "VID",   "PID",     "SID",
                                                "VNAME",  "PNAME", "SPEED"};
    std::set<std::string> seen;
    size_t length = 0;
    for (const OptionItem& item : oracle_option_map(text)) {
        check(known.count(item.name) == 1, "an item that the daemon knows");
        check(seen.insert(item.name).second, "each item once");
        check(item.value && !item.value->empty(), "each with a value");
        check((*item.value)[0] != '=', "that begins with no equals sign");
        length += item.name.size() + item.value->size() + 2;
    }
    check_equal(static_cast<int64_t>(length) - 1, static_cast<int64_t>(text.size()),
                "items and nothing else");
}

static void check_prefix(const char* got, const char* given, const char* what)
{
    if (got == nullptr)
        return;
    std::string clean = given;
    text_trim(clean.data());
    clean.resize(strlen(clean.c_str()));
    text_clean(clean.data(), ",[]");
    clean.resize(strlen(clean.c_str()));
    if (clean[0] == '=')
        clean[0] = '_';
    check_same(got, clean.substr(0, strlen(got)), what);
}

static void check_reading(const BlockDevice& device, const char* text)
{
    ControlMessage message;
    check_equal(message_action(text), HOTPLUG_ACTION_ADD, "the action");
    check_equal(message_parse(text, &message), 0, "the daemon reads it");
    check_equal(message.dev.major, device.major, "the major number");
    check_equal(message.dev.minor, device.minor, "the minor number");
    const bool in_range = device.range >= 1 && device.range <= 255;
    check_equal(message.dev.range, in_range ? device.range : 16, "the range");
    check_equal(message.dev.flags & HOTPLUG_FLAG_REMOVABLE, device.removable == 1 ? 1 : 0, "RM");
    check_equal(message.dev.flags & HOTPLUG_FLAG_READONLY, device.readonly == 1 ? 2 : 0, "RO");
    check_equal(message.dev.devtype,
                device.name.partition > 0 ? HOTPLUG_DEVTYPE_PARTITION : HOTPLUG_DEVTYPE_DISK,
                "DEVTYPE");
    check_prefix(message.dev.serial, device.serial, "the serial");
    check_prefix(message.dev.vname, device.vname, "the vendor's name");
    check_prefix(message.dev.pname, device.pname, "the product's name");
    check_same(message.target, "", "no target");
    check_equal(message.force, 0, "no force");
    message_clear(&message);
}

void fuzz(Input& input)
{
    const BlockDevice device = read_device(&input);
    using Text = char[agent_message_size];
    const std::unique_ptr<Text[]> text(new Text[1]); // no byte longer
    const size_t length = add_message_format(device, text[0]);
    check_equal(static_cast<int64_t>(length), static_cast<int64_t>(strlen(text[0])), "the length");
    check(length < agent_message_size, "it fits");
    check_bytes(text[0]);
    check_items(text[0]);
    check_reading(device, text[0]);
}
