#include "agent/uevent.h"

#include "agent/limits.h"
#include "lib/str.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

static constexpr int32_t most_major = 4095; // 12 and 20 bits of the kernel's device numbers
static constexpr int32_t most_minor = 1048575;

namespace {

enum Key { KEY_ACTION, KEY_DEVPATH, KEY_SUBSYSTEM, KEY_MAJOR, KEY_MINOR, KEY_MEDIA, KEY_SEQUENCE };

constexpr const char* key_names[] = {
    "ACTION", "DEVPATH", "SUBSYSTEM", "MAJOR", "MINOR", "DISK_MEDIA_CHANGE", "SEQNUM",
};
constexpr size_t key_count = sizeof key_names / sizeof key_names[0];

// The values of an event, null where it has none; they point into its bytes.
struct Items {
    const char* values[key_count];
};

struct ActionWord {
    const char* word;
    UeventAction action;
};

constexpr ActionWord action_words[] = {
    {"add", UEVENT_ADD},
    {"remove", UEVENT_REMOVE},
    {"change", UEVENT_CHANGE},
};

} // namespace

static void take_item(Items* items, const char* item)
{
    for (size_t i = 0; i < key_count; i++) {
        const size_t length = strlen(key_names[i]);
        if (strncmp(item, key_names[i], length) == 0 && item[length] == '=')
            items->values[i] = item + length + 1;
    }
}

// ---- values ----

static bool find_action(const char* word, UeventAction* action)
{
    for (const ActionWord& row : action_words) {
        if (strcmp(word, row.word) != 0)
            continue;
        *action = row.action;
        return true;
    }
    return false;
}

// A path below sysfs: from the root on, no steps up, nothing that a device's name never holds.
static bool is_devpath(const char* path)
{
    const size_t length = strlen(path);
    if (length < 2 || path[0] != '/' || length >= agent_devpath_size || path[length - 1] == '/')
        return false;
    for (size_t i = 0; i < length; i++) {
        const auto byte = static_cast<unsigned char>(path[i]);
        if (byte <= ' ' || byte >= 0x7f || byte == '\\' || byte == '"' || byte == '\'')
            return false;
    }
    return strstr(path, "..") == nullptr && strstr(path, "//") == nullptr &&
           strstr(path, "/./") == nullptr && strcmp(path + length - 2, "/.") != 0;
}

// Returns 0 for the path of a device that the service mounts; 1 for another's; -EINVAL for a
// partition that does not lie on its disk.
static int read_devpath(const char* path, BlockName* name)
{
    const char* last = strrchr(path, '/') + 1;
    if (!block_name_parse(last, name))
        return 1;
    if (name->partition == 0)
        return 0;
    char disk[block_name_size];
    block_name_format(block_name_disk(*name), disk);
    const size_t length = strlen(disk);
    const size_t above = static_cast<size_t>(last - 1 - path);
    if (above <= length || path[above - length - 1] != '/')
        return -EINVAL;
    return memcmp(path + above - length, disk, length) == 0 ? 0 : -EINVAL;
}

// A missing number is -1. Returns whether what is given is one.
static bool read_number(const char* value, int32_t most, int32_t* number)
{
    *number = -1;
    if (value == nullptr)
        return true;
    if (value[0] < '0' || value[0] > '9')
        return false;
    return str_to_long(value, number, 10) == 0 && *number <= most;
}

static bool read_sequence(const char* value, uint64_t* number)
{
    *number = 0;
    if (value == nullptr)
        return true;
    char* end = nullptr;
    errno = 0;
    *number = strtoull(value, &end, 10);
    return value[0] >= '0' && value[0] <= '9' && errno == 0 && *end == '\0';
}

static int judge(const Items& items, Uevent* event)
{
    const char* action = items.values[KEY_ACTION];
    const char* devpath = items.values[KEY_DEVPATH];
    const char* subsystem = items.values[KEY_SUBSYSTEM];
    if (action == nullptr || devpath == nullptr)
        return -EINVAL;
    Uevent read = {};
    if (subsystem != nullptr && strcmp(subsystem, "block") != 0)
        return 1;
    if (!find_action(action, &read.action))
        return 1;
    if (!is_devpath(devpath))
        return -EINVAL;
    const int result = read_devpath(devpath, &read.name);
    if (result != 0)
        return result;
    if (!read_number(items.values[KEY_MAJOR], most_major, &read.major) ||
        !read_number(items.values[KEY_MINOR], most_minor, &read.minor))
        return -EINVAL;
    const char* media = items.values[KEY_MEDIA];
    read.media_change = media != nullptr && strcmp(media, "1") == 0;
    if (!read_sequence(items.values[KEY_SEQUENCE], &read.sequence))
        return -EINVAL;
    *event = read;
    return 0;
}

// ---- the two sources ----

int uevent_parse(const char* data, size_t length, Uevent* event)
{
    if (length == 0 || data[length - 1] != '\0' || strchr(data, '@') == nullptr)
        return -EINVAL;
    Items items = {};
    const char* end = data + length;
    for (const char* item = data + strlen(data) + 1; item < end; item += strlen(item) + 1)
        take_item(&items, item);
    const bool whole = items.values[KEY_SUBSYSTEM] != nullptr;
    if (!whole)
        return -EINVAL;
    Uevent read;
    const int result = judge(items, &read);
    if (result != 0)
        return result;
    if (read.major < 0 || read.minor < 0) // the kernel always gives them
        return -EINVAL;
    *event = read;
    return 0;
}

int uevent_from_environment(const char* const* environment, Uevent* event)
{
    Items items = {};
    for (; *environment != nullptr; environment++)
        take_item(&items, *environment);
    return judge(items, event);
}
