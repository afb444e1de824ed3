// Add messages of devices with hostile texts: what the daemon reads of them.
//
// Input: on a line each the major and the minor number, the range, removable, read-only and the
// partition's number; then, separated by lines "%%", vendor id, product id, speed, serial, vendor's
// and product's name, and once more range, removable and read-only, as they may stand in sysfs, in
// the place of the numbers.
#include "agent/add_message.h"
#include "core/message.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <set>

static void put(char* field, size_t size, const std::string& text)
{
    const std::string fit = text.c_str();
    memcpy(field, fit.c_str(), std::min(fit.size() + 1, size));
    field[size - 1] = '\0';
}

// Digits where the text is none.
static void put_number(char* field, size_t size, int64_t number, const std::string& text)
{
    put(field, size, text.empty() ? std::to_string(number) : text);
}

// A device and what it has in common with the others of its disk.
struct Whole : BlockDevice, BlockHardware {};

static Whole read_device(Input* input)
{
    Whole device = {};
    device.major = static_cast<int32_t>(input->number(0, 4095));
    device.minor = static_cast<int32_t>(input->number(0, 1048575));
    const int64_t range = input->number(INT32_MIN, INT32_MAX);
    const int64_t removable = input->number(-1, 1);
    const int64_t readonly = input->number(-1, 1);
    const int64_t partition = input->number(0, 9999);
    const std::string name = "sda" + (partition > 0 ? std::to_string(partition) : "");
    check(block_name_parse(name.c_str(), &device.name), "a name");
    put(device.vid, sizeof device.vid, input->field());
    put(device.pid, sizeof device.pid, input->field());
    put(device.speed, sizeof device.speed, input->field());
    put(device.serial, sizeof device.serial, input->field());
    put(device.vname, sizeof device.vname, input->field());
    put(device.pname, sizeof device.pname, input->field());
    put_number(device.range, sizeof device.range, range, input->field());
    put_number(device.removable, sizeof device.removable, removable, input->field());
    put_number(device.readonly, sizeof device.readonly, readonly, input->field());
    return device;
}

static void check_bytes(std::string_view text)
{
    check(oracle_is_harmless(text), "it is UTF-8 without control characters");
    check(text.find_first_of("[]") == std::string_view::npos, "no bracket");
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
    std::string clean = oracle_clean(oracle_trim(given), ",[]");
    if (!clean.empty() && clean[0] == '=')
        clean[0] = '_';
    check_same(got, clean.substr(0, strlen(got)), what);
}

// What a text says that is one of the numbers from `least` to `most`, as the kernel writes them;
// `otherwise` for any other.
static int64_t number_of(const char* text, int64_t least, int64_t most, int64_t otherwise)
{
    const std::string trimmed = oracle_trim(text);
    const int64_t number = strtoll(trimmed.c_str(), nullptr, 10);
    if (number >= least && number <= most && trimmed == std::to_string(number))
        return number;
    return otherwise;
}

static void check_reading(const Whole& device, const char* text)
{
    ControlMessage message;
    check_equal(message_action(text), HOTPLUG_ACTION_ADD, "the action");
    check_equal(message_parse(text, &message), 0, "the daemon reads it");
    check_equal(message.dev.major, device.major, "the major number");
    check_equal(message.dev.minor, device.minor, "the minor number");
    check_equal(message.dev.range, number_of(device.range, 1, 255, 16), "the range");
    check_equal(message.dev.flags & HOTPLUG_FLAG_REMOVABLE, number_of(device.removable, 0, 1, 0),
                "RM");
    check_equal(message.dev.flags & HOTPLUG_FLAG_READONLY, number_of(device.readonly, 0, 1, 0) * 2,
                "RO");
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
    Whole device = read_device(&input);
    device.hardware = &device;
    using Text = char[agent_message_size];
    const std::unique_ptr<Text[]> text(new Text[1]); // no byte longer
    const size_t length = add_message_format(device, text[0]);
    check_equal(static_cast<int64_t>(length), static_cast<int64_t>(strlen(text[0])), "the length");
    check(length < agent_message_size, "it fits");
    check_bytes(text[0]);
    check_items(text[0]);
    check_reading(device, text[0]);
}
