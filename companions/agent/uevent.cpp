#include "agent/uevent.h"

#include "agent/limits.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

static constexpr uint64_t most_major = 4095; // 12 and 20 bits of the kernel's device numbers
static constexpr uint64_t most_minor = 1048575;
static constexpr uint64_t missing = UINT64_MAX; // becomes -1 where there are 32 bits

namespace {

enum Key { KEY_ACTION, KEY_DEVPATH, KEY_SUBSYSTEM, KEY_MAJOR, KEY_MINOR, KEY_MEDIA, KEY_SEQUENCE };

constexpr const char* key_names[] = {
    "ACTION", "DEVPATH", "SUBSYSTEM", "MAJOR", "MINOR", "DISK_MEDIA_CHANGE", "SEQNUM",
};
constexpr size_t key_count = sizeof key_names / sizeof key_names[0];
constexpr const char* action_words[] = {"add", "remove", "change"}; // as UeventAction

} // namespace

// Takes an item into the values of an event, which are null where it has none, and point into its
// bytes.
static void take_item(const char** values, const char* item)
{
    for (size_t i = 0; i < key_count; i++) {
        const size_t length = strlen(key_names[i]);
        if (strncmp(item, key_names[i], length) == 0 && item[length] == '=')
            values[i] = item + length + 1;
    }
}

static bool find_action(const char* word, UeventAction* action)
{
    for (size_t i = 0; i < sizeof action_words / sizeof action_words[0]; i++) {
        *action = static_cast<UeventAction>(i);
        if (strcmp(word, action_words[i]) == 0)
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
    for (const char* at = path; *at != '\0'; at++) {
        if (*at <= ' ' || *at >= 0x7f || strchr("\\\"'", *at) != nullptr)
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
    const size_t length = name->disk_length;
    const auto above = static_cast<size_t>(last - 1 - path); // what stands before the last slash
    if (above <= length || path[above - length - 1] != '/')
        return -EINVAL;
    return memcmp(path + above - length, last, length) == 0 ? 0 : -EINVAL;
}

// Digits that are no more than `most`; one that is not given is left alone.
static bool read_number(const char* value, uint64_t most, uint64_t* number)
{
    if (value == nullptr)
        return true;
    char* end = nullptr;
    errno = 0;
    *number = strtoull(value, &end, 10);
    return value[0] >= '0' && value[0] <= '9' && *end == '\0' && errno == 0 && *number <= most;
}

static int judge(const char* const* values, Uevent* event)
{
    if (values[KEY_ACTION] == nullptr || values[KEY_DEVPATH] == nullptr)
        return -EINVAL;
    Uevent read = {};
    const bool is_block =
        values[KEY_SUBSYSTEM] == nullptr || strcmp(values[KEY_SUBSYSTEM], "block") == 0;
    if (!is_block || !find_action(values[KEY_ACTION], &read.action))
        return 1;
    if (!is_devpath(values[KEY_DEVPATH]))
        return -EINVAL;
    const int result = read_devpath(values[KEY_DEVPATH], &read.name);
    if (result != 0)
        return result;
    uint64_t major = missing;
    uint64_t minor = missing;
    if (!read_number(values[KEY_MAJOR], most_major, &major) ||
        !read_number(values[KEY_MINOR], most_minor, &minor) ||
        !read_number(values[KEY_SEQUENCE], UINT64_MAX, &read.sequence))
        return -EINVAL;
    read.major = static_cast<int32_t>(major);
    read.minor = static_cast<int32_t>(minor);
    read.media_change = values[KEY_MEDIA] != nullptr && strcmp(values[KEY_MEDIA], "1") == 0;
    *event = read;
    return 0;
}

int uevent_parse(const char* data, size_t length, Uevent* event)
{
    if (length == 0 || data[length - 1] != '\0' || strchr(data, '@') == nullptr)
        return -EINVAL;
    const char* values[key_count] = {};
    const char* end = data + length;
    for (const char* item = data + strlen(data) + 1; item < end; item += strlen(item) + 1)
        take_item(values, item);
    if (values[KEY_SUBSYSTEM] == nullptr)
        return -EINVAL;
    Uevent read;
    const int result = judge(values, &read);
    if (result == 0 && (read.major < 0 || read.minor < 0)) // the kernel always gives them
        return -EINVAL;
    if (result == 0)
        *event = read;
    return result;
}

int uevent_from_environment(const char* const* environment, Uevent* event)
{
    const char* values[key_count] = {};
    for (; *environment != nullptr; environment++)
        take_item(values, *environment);
    return judge(values, event);
}
