#include "agent/errand.h"

#include "agent/add_message.h"
#include "agent/courier.h"
#include "agent/daemon_peer.h"
#include "agent/medium.h"
#include "agent/state_file.h"
#include "agent/survey.h"
#include "agent/uevent.h"
#include "lib/log.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>

static constexpr char log_tag[] = "errand";

namespace {

struct Errand {
    const AgentSettings* settings;
    Courier courier;
    SurveyView view;
    uint64_t patience; // when to give the daemon up
    int status;
};

} // namespace

static SurveyView make_view(const AgentSettings& settings, const AnnouncedTable* announced)
{
    return {.sysfs = settings.sysfs,
            .proc = settings.proc,
            .mount_directory = settings.mounts,
            .announced = announced,
            .all = settings.all,
            .leaving = false};
}

// ---- delivering ----

static void renew_patience(Errand* errand)
{
    errand->patience = courier_now() + static_cast<uint64_t>(errand->settings->wait) * 1000;
}

static bool met(void*, int)
{
    return true;
}

static void missed(void*) {}

static void delivered(void* self, const QueuedMessage*)
{
    renew_patience(static_cast<Errand*>(self));
}

static void wait_for_courier(const Errand* errand, uint64_t now)
{
    pollfd connection = {.fd = errand->courier.connection, .events = POLLIN, .revents = 0};
    (void)poll(&connection, 1, courier_timeout(&errand->courier, now));
}

// Delivers all that is queued. Returns the exit status.
static int deliver(Errand* errand)
{
    Courier* courier = &errand->courier;
    renew_patience(errand);
    for (;;) {
        const uint64_t now = courier_now();
        courier_advance(courier, now);
        if (courier->queue.count == 0)
            return errand->status;
        if (!courier->under_way && now >= errand->patience) {
            VY_LOG(LOG_ERR, "the daemon cannot be reached, %u messages dropped",
                   courier->queue.count);
            message_queue_cut(&courier->queue, 0);
            return 1;
        }
        wait_for_courier(errand, now);
    }
}

// ---- queueing ----

static void put(Errand* errand, MessageKind kind, const char* text)
{
    const int result = message_queue_put(&errand->courier.queue, kind, 0, text);
    if (result == 0)
        return;
    VY_LOG(LOG_ERR, "message dropped (%s): %s", strerror(-result), text);
    errand->status = 1;
}

static void put_remove(Errand* errand, int32_t major, int32_t minor)
{
    char text[agent_message_size];
    (void)remove_message_format(major, minor, text);
    put(errand, MESSAGE_REMOVE, text);
}

static void put_add(Errand* errand, const BlockName& name)
{
    BlockDevice device;
    char reason[survey_reason_size];
    char text[agent_message_size];
    const int result = survey_device(errand->view, name, &device, reason);
    if (result == 0) {
        (void)add_message_format(device, text);
        return put(errand, MESSAGE_ADD, text);
    }
    if (result == -ENOENT)
        return;
    char plain[block_name_size];
    block_name_format(name, plain);
    VY_LOG(LOG_INFO, "%s not announced: %s", plain, reason);
    if (result != 1)
        errand->status = 1;
}

static Errand* start_errand(const AgentSettings& settings)
{
    static Errand errand; // large for a stack
    errand.settings = &settings;
    errand.view = make_view(settings, nullptr);
    courier_init(&errand.courier, {&errand, met, missed, delivered});
    return &errand;
}

// ---- one event ----

static void take_back_parts(Errand* errand, const BlockList& parts, bool partitions)
{
    for (uint32_t i = 0; i < parts.count; i++) {
        int32_t major = 0;
        int32_t minor = 0;
        if ((parts.names[i].partition > 0) == partitions &&
            block_numbers(errand->view.sysfs, parts.names[i], &major, &minor) == 0)
            put_remove(errand, major, minor);
    }
}

// Nothing is known of what was announced: what sysfs shows still is taken back.
static int change_medium(Errand* errand, const BlockName& disk)
{
    static BlockList parts; // large for a stack
    if (block_list_disk(errand->view.sysfs, disk, &parts) != 0)
        return 1;
    take_back_parts(errand, parts, true);
    take_back_parts(errand, parts, false);
    medium_touch(disk);
    if (block_list_disk(errand->view.sysfs, disk, &parts) != 0)
        errand->status = 1;
    errand->view.leaving = true;
    for (uint32_t i = 0; i < parts.count; i++)
        put_add(errand, parts.names[i]);
    return deliver(errand);
}

static int carry_out(Errand* errand, const Uevent& event)
{
    if (event.action == UEVENT_CHANGE) {
        const bool wanted = event.media_change && event.name.partition == 0;
        return wanted ? change_medium(errand, event.name) : 0;
    }
    if (event.action == UEVENT_ADD) {
        put_add(errand, event.name);
        return deliver(errand);
    }
    if (event.major < 0 || event.minor < 0) {
        VY_LOG(LOG_ERR, "remove event without MAJOR and MINOR");
        return 1;
    }
    put_remove(errand, event.major, event.minor);
    return deliver(errand);
}

int errand_once(const AgentSettings& settings, const char* const* environment)
{
    Uevent event;
    const int result = uevent_from_environment(environment, &event);
    if (result > 0)
        return 0;
    if (result < 0) {
        VY_LOG(LOG_ERR, "no event in the environment: ACTION, DEVPATH, MAJOR, MINOR");
        return 1;
    }
    return carry_out(start_errand(settings), event);
}

// ---- everything ----

int errand_scan(const AgentSettings& settings)
{
    static BlockList list; // large for a stack
    const int result = block_list_all(settings.sysfs, &list);
    if (result != 0) {
        VY_LOG(LOG_ERR, "%s/block: %s", settings.sysfs, strerror(-result));
        return 1;
    }
    Errand* errand = start_errand(settings);
    for (uint32_t i = 0; i < list.count; i++)
        put_add(errand, list.names[i]);
    return deliver(errand);
}

static void print_device(const SurveyView& view, const BlockName& name)
{
    BlockDevice device;
    char reason[survey_reason_size];
    char text[agent_message_size];
    char plain[block_name_size];
    const int result = survey_device(view, name, &device, reason);
    if (result == -ENOENT)
        return;
    if (result == 0) {
        (void)add_message_format(device, text);
        printf("%s\n", text);
        return;
    }
    block_name_format(name, plain);
    printf("# %s: not announced: %s\n", plain, reason);
}

int errand_list(const AgentSettings& settings)
{
    static BlockList list; // large for a stack
    static AnnouncedTable table;
    DaemonIdentity daemon;
    // What a running agent has told a running daemon of is the service's, not the machine's.
    if (settings.state[0] == '\0' || state_load(settings.state, &daemon, &table) != 0 ||
        !daemon_runs(daemon))
        announced_clear(&table);
    const int result = block_list_all(settings.sysfs, &list);
    if (result != 0)
        fprintf(stderr, "vyhotplug-agent: %s/block: %s\n", settings.sysfs, strerror(-result));
    const SurveyView view = make_view(settings, &table);
    for (uint32_t i = 0; i < list.count; i++)
        print_device(view, list.names[i]);
    return result == 0 ? 0 : 1;
}
