// What a request's target selects, and what then happens to each entry, against an independent
// reading of the target.
//
// Input: the target, "mount" or "unmount", and 0 or 1 for force, each on a line; then a line for
// each entry of the set: major, minor, range, and which of these it is: "m" mounted, "u" busy
// (cannot be unmounted without force), "v" holds a filesystem.
#include "core/request.h"

#include "fake/fake_world.h"
#include "support/busy_world.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <errno.h>
#include <stdio.h>

#include <algorithm>

static constexpr size_t most_entries = 6;
static constexpr char hook_call[] = "spawn /tmp/vyhotplugd-evhook.sh /tmp/vyhotplugd-evhook.sh ";

namespace {

struct Entry {
    MountEntry* entry;
    std::string name;
    bool mounted;
    bool busy;
    bool filesystem;
};

// The minors of a target; `any_major` and `any_minor` lift the limits.
struct Target {
    bool refused = false;
    bool any_major = false;
    bool any_minor = false;
    int64_t major = 0;
    int64_t lowest = 0;
    int64_t highest = 0;
};

} // namespace

static bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

static void read_disk(const std::string& rest, const std::vector<Entry>& entries, Target* target)
{
    int64_t range = 0;
    for (const Entry& entry : entries) {
        if (entry.entry->dev->major == target->major) {
            range = entry.entry->dev->range;
            break;
        }
    }
    target->refused = !is_letter(rest[0]) || range == 0;
    const int64_t letter = rest[0] >= 'a' ? rest[0] - 'a' : rest[0] - 'A';
    const std::string digits = rest.substr(1);
    const std::optional<int32_t> number = oracle_number(digits, 10);
    if (digits.empty()) {
        target->lowest = letter * range;
        target->highest = letter * range + range - 1;
    } else if (number) {
        target->lowest = letter * range + *number;
        target->highest = target->lowest;
    }
}

static Target read_target(const std::string& text, const std::vector<Entry>& entries)
{
    Target target;
    target.any_major = text == "all";
    std::string rest;
    if (text.rfind("sd", 0) == 0) {
        target.major = 8;
        rest = text.substr(2);
    } else if (text.rfind("mmcblk", 0) == 0) {
        target.major = 179;
        rest = text.substr(6);
    } else if (!target.any_major) {
        target.refused = true;
    }
    target.any_minor = rest.empty();
    if (!rest.empty())
        read_disk(rest, entries, &target);
    return target;
}

static std::vector<Entry> select(const Target& target, const std::vector<Entry>& entries)
{
    std::vector<Entry> selected;
    for (const Entry& entry : entries) {
        const HotplugDev* dev = entry.entry->dev;
        if (target.refused || (!target.any_major && dev->major != target.major))
            continue;
        if (target.any_minor || (dev->minor >= target.lowest && dev->minor <= target.highest))
            selected.push_back(entry);
    }
    return selected;
}

// ---- what happens ----

static bool mounted_after(const Entry& entry, bool mounting, bool force)
{
    if (mounting)
        return entry.mounted || entry.filesystem;
    return entry.mounted && entry.busy && !force;
}

// Each selected entry is tried, in order: a mount begins with its node, an unmount with the hook.
static void check_tried(const std::vector<Entry>& selected, bool mounting)
{
    std::vector<std::string> tried;
    if (mounting) {
        for (const std::string& call : fake_world().calls("mknod "))
            tried.push_back(call.substr(6, call.find(' ', 6) - 6));
    } else {
        for (const std::string& call : fake_world().calls(hook_call))
            tried.push_back(call.substr(sizeof hook_call - 1));
    }
    std::vector<std::string> wanted;
    for (const Entry& entry : selected)
        wanted.push_back(mounting ? BusyWorld::node_of(entry.name)
                                  : "unmount " + BusyWorld::directory_of(entry.name));
    check_list(tried, wanted, "the entries that are tried");
}

static void check_states(const std::vector<Entry>& entries, const std::vector<Entry>& selected,
                         bool mounting, bool force)
{
    for (const Entry& entry : entries) {
        const bool is_selected =
            std::any_of(selected.begin(), selected.end(),
                        [&entry](const Entry& other) { return other.entry == entry.entry; });
        const bool wanted = is_selected ? mounted_after(entry, mounting, force) : entry.mounted;
        check_equal(entry.entry->mounted, wanted ? 1 : 0, "whether it is mounted afterwards");
    }
}

// ---- the set ----

static void add_entry(BusyWorld* world, const std::string& line, std::vector<Entry>* entries)
{
    int major = 0;
    int minor = 0;
    int range = 0;
    char states[8] = "";
    if (sscanf(line.c_str(), "%d %d %d %7s", &major, &minor, &range, states) < 3)
        return;
    HotplugDev dev = {};
    dev.major = major;
    dev.minor = minor;
    dev.range = static_cast<uint8_t>(range);
    const std::string marks = states;
    Entry entry = {.entry = nullptr,
                   .name = "e" + std::to_string(entries->size()),
                   .mounted = marks.find('m') != std::string::npos,
                   .busy = marks.find('u') != std::string::npos,
                   .filesystem = marks.find('v') != std::string::npos};
    entry.entry = world->add(dev, entry.name, entry.mounted);
    if (entry.busy)
        fake_world().busy[BusyWorld::directory_of(entry.name)] = EBUSY;
    if (entry.filesystem)
        fake_world().media[BusyWorld::node_of(entry.name)] = {"vfat"};
    entries->push_back(entry);
}

void fuzz(Input& input)
{
    const std::string text = std::string(input.line().c_str()).substr(0, HOTPLUG_TARGET_SIZE - 1);
    const bool mounting = input.line() != "unmount";
    const bool force = input.number(0, 1) == 1;
    static const BusyPlaces places; // of every input
    BusyWorld world(&places);
    std::vector<Entry> entries;
    std::string line;
    while (entries.size() < most_entries && !(line = input.line()).empty())
        add_entry(&world, line, &entries);

    const Target target = read_target(text, entries);
    const std::vector<Entry> selected = select(target, entries);
    const int result = hotplug_mount_request(
        &world.ctx, text.c_str(), mounting ? HOTPLUG_ACTION_MOUNT : HOTPLUG_ACTION_UNMOUNT,
        force ? 1 : 0, &world.config);

    int wanted = target.refused ? -1 : 0;
    for (const Entry& entry : selected) {
        if (mounted_after(entry, mounting, force) != mounting)
            wanted = -1;
    }
    check_equal(result, wanted, "the request's result");
    check_tried(selected, mounting);
    check_states(entries, selected, mounting, force);
}
