#include "agent/state_file.h"

#include "lib/file.h"
#include "lib/str.h"

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

static constexpr char heading[] = "vyhotplug-agent 1";
static constexpr size_t line_size = 80;     // a device's needs 60
static constexpr size_t most_size = 262144; // of a file that is read

// Whether the daemon has it.
static bool is_known(const Device& device)
{
    return device.state == DEVICE_TOLD || device.state == DEVICE_LEAVING;
}

int state_save(const char* path, const DaemonIdentity& daemon, const Announcer& announcer)
{
    if (path[0] == '\0')
        return 0;
    // Of one size, whatever is known: pieces of many sizes would each stay in the heap.
    constexpr size_t room = (2 + agent_table_limit) * line_size;
    const MemGuard<char> made(static_cast<char*>(malloc(room)));
    if (!made)
        return -ENOMEM;
    char* text = made.get();
    int length = snprintf(text, room, "%s\ndaemon %ld %" PRIu64 " %s\n", heading,
                          static_cast<long>(daemon.pid), daemon.start,
                          daemon.boot[0] != '\0' ? daemon.boot : "-");
    for (const Device& device : announcer.devices) {
        if (!is_known(device))
            continue;
        // What is leaving is another than sysfs shows, whatever that is.
        const uint64_t identity = device.state == DEVICE_TOLD ? device.identity : 0;
        length += snprintf(text + length, line_size, "%d %d %s %016" PRIx64 "\n", device.major,
                           device.minor, device.name.text, identity);
    }
    return file_replace(path, text, static_cast<size_t>(length), 0600, 0);
}

// Takes a line apart at its blanks, in place. Returns whether it has so many words.
static bool split(char* line, char** words, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        words[i] = strsep(&line, " ");
        if (words[i] == nullptr || words[i][0] == '\0')
            return false;
    }
    return line == nullptr;
}

static bool parse_number(const char* word, int base, uint64_t* number)
{
    char* end = nullptr;
    errno = 0;
    *number = strtoull(word, &end, base);
    return errno == 0 && *end == '\0';
}

static bool parse_daemon(char* line, DaemonIdentity* daemon)
{
    char* words[4]; // "daemon", its number, its start, the boot
    int32_t pid = 0;
    if (!split(line, words, 4) || strcmp(words[0], "daemon") != 0 ||
        str_to_long(words[1], &pid, 10) != 0 || !parse_number(words[2], 10, &daemon->start) ||
        strlen(words[3]) >= sizeof daemon->boot)
        return false;
    daemon->pid = pid;
    str_cpy(daemon->boot, strcmp(words[3], "-") != 0 ? words[3] : "");
    return true;
}

static bool parse_device(char* line, Device* device)
{
    char* words[4]; // major, minor, name, identity
    device->state = DEVICE_TOLD;
    return split(line, words, 4) && str_to_long(words[0], &device->major, 10) == 0 &&
           str_to_long(words[1], &device->minor, 10) == 0 &&
           block_name_parse(words[2], &device->name) &&
           parse_number(words[3], 16, &device->identity);
}

static bool parse(char* text, DaemonIdentity* daemon, Announcer* announcer)
{
    if (strcmp(strsep(&text, "\n"), heading) != 0 || text == nullptr ||
        !parse_daemon(strsep(&text, "\n"), daemon))
        return false;
    Device* device = announcer->devices.begin();
    for (; text != nullptr && text[0] != '\0'; device++) {
        if (device == announcer->devices.end() || !parse_device(strsep(&text, "\n"), device))
            return false;
    }
    return true;
}

int state_load(const char* path, DaemonIdentity* daemon, Announcer* announcer)
{
    *daemon = {};
    announcer_forget(announcer);
    FileBytes content;
    const int result = file_read_all(path, 0, most_size, &content);
    if (result == 0 && strlen(content.bytes.get()) == content.size &&
        parse(content.bytes.get(), daemon, announcer))
        return 0;
    *daemon = {};
    announcer_forget(announcer);
    return result != 0 ? result : -EINVAL;
}
