#include "agent/modes.h"

#include "agent/add_message.h"
#include "agent/medium.h"
#include "agent/state_file.h"
#include "agent/survey.h"
#include "common/clock.h"
#include "lib/log.h"

#include <poll.h>
#include <stdio.h>
#include <string.h>

static constexpr char log_tag[] = "errand"; // kept: filters know these lines by it

namespace {

struct Oneshot {
    const AgentSettings* settings = nullptr;
    Courier courier;
    uint32_t dropped = 0; // messages, once the daemon could not be reached
    bool failed = false;  // something could not be looked at
};

} // namespace

// Delivers a message.
static void tell(Oneshot* oneshot, const char* message)
{
    Courier* courier = &oneshot->courier;
    uint64_t now = clock_now();
    const uint64_t patience = now + static_cast<uint64_t>(oneshot->settings->wait) * 1000;
    while (oneshot->dropped == 0 && (courier_descriptor(courier) >= 0 || now <= patience)) {
        DaemonIdentity ignored;
        const CourierEvent event = courier_advance(courier, true, now, &ignored);
        if (event == COURIER_DELIVERED)
            return;
        if (event == COURIER_MET)
            courier_send(courier, message, now);
        pollfd connection = {.fd = courier_descriptor(courier), .events = POLLIN, .revents = 0};
        (void)poll(&connection, 1, agent_retry_first);
        now = clock_now();
    }
    oneshot->dropped++;
}

static void tell_remove(Oneshot* oneshot, int32_t major, int32_t minor)
{
    char message[agent_message_size];
    (void)remove_message_format(major, minor, message);
    tell(oneshot, message);
}

// Tells of what sysfs shows and the event is about; of everything where that is null.
static void tell_adds(Oneshot* oneshot, const Uevent* event)
{
    const bool whole_disk = event != nullptr && event->action == UEVENT_CHANGE;
    BlockList list;
    const int result = survey_take(*oneshot->settings, nullptr, whole_disk, &list);
    if (result != 0)
        VY_LOG(LOG_ERR, "%s/block: %s", oneshot->settings->sysfs, strerror(-result));
    oneshot->failed = result != 0;
    for (const BlockDevice& device : list) {
        if (event != nullptr && block_name_compare(device.name, event->name) != 0 &&
            !(whole_disk && block_name_same_disk(device.name, event->name)))
            continue;
        char message[agent_message_size];
        (void)add_message_format(device, message);
        if (device.verdict == 0)
            tell(oneshot, message);
        else
            VY_LOG(LOG_INFO, "%s not announced: %s", device.name.text, device.reason);
        oneshot->failed = oneshot->failed || device.verdict < 0;
    }
}

// Nothing is known of what was announced: what sysfs shows still is taken back.
static void change_medium(Oneshot* oneshot, const Uevent& event)
{
    BlockList list;
    (void)block_list_read(oneshot->settings->sysfs, &list); // a failure is told below
    for (const BlockDevice& device : list) {
        if (device.name.partition > 0 && block_name_same_disk(device.name, event.name))
            tell_remove(oneshot, device.major, device.minor);
    }
    const BlockDevice* disk = block_list_find(list, event.name);
    if (disk != nullptr)
        tell_remove(oneshot, disk->major, disk->minor);
    medium_touch(event.name);
    tell_adds(oneshot, &event);
}

// Tells of the event, or of everything where it is null. Returns the exit status.
static int run(const AgentSettings& settings, const Uevent* event)
{
    Oneshot oneshot;
    oneshot.settings = &settings;
    if (event == nullptr || event->action == UEVENT_ADD)
        tell_adds(&oneshot, event);
    else if (event->action == UEVENT_REMOVE)
        tell_remove(&oneshot, event->major, event->minor);
    else if (event->media_change && event->name.partition == 0)
        change_medium(&oneshot, *event);
    if (oneshot.dropped > 0)
        VY_LOG(LOG_ERR, "the daemon cannot be reached, %u messages dropped", oneshot.dropped);
    return oneshot.dropped > 0 || oneshot.failed ? 1 : 0;
}

int oneshot_once(const AgentSettings& settings, const char* const* environment)
{
    Uevent event;
    const int result = uevent_from_environment(environment, &event);
    if (result < 0)
        VY_LOG(LOG_ERR, "no event in the environment: ACTION, DEVPATH, MAJOR, MINOR");
    if (result != 0)
        return result < 0 ? 1 : 0;
    if (event.action != UEVENT_REMOVE || (event.major >= 0 && event.minor >= 0))
        return run(settings, &event);
    VY_LOG(LOG_ERR, "remove event without MAJOR and MINOR");
    return 1;
}

int oneshot_scan(const AgentSettings& settings)
{
    return run(settings, nullptr);
}

int oneshot_list(const AgentSettings& settings)
{
    Announcer told;
    DaemonIdentity daemon;
    BlockList list;
    // What a running agent has told a running daemon of is the service's, not the machine's.
    if (state_load(settings.state, &daemon, &told) != 0 || !daemon_runs(daemon))
        announcer_forget(&told);
    const int result = survey_take(settings, &told.devices, false, &list);
    if (result != 0)
        fprintf(stderr, "vyhotplug-agent: %s/block: %s\n", settings.sysfs, strerror(-result));
    for (const BlockDevice& device : list) {
        char message[agent_message_size];
        (void)add_message_format(device, message);
        if (device.verdict == 0)
            printf("%s\n", message);
        else
            printf("# %s: not announced: %s\n", device.name.text, device.reason);
    }
    return result == 0 ? 0 : 1;
}
