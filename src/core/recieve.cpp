#include "core/recieve.h"

#include "device/crtsec.h"
#include "lib/guard.h"
#include "lib/log.h"
#include "lib/platform.h"
#include "lib/socket_unix.h"
#include "lib/sys.h"
#include "lib/vytime.h"

#include <errno.h>
#include <string.h>

static constexpr char log_tag[] = "recieve";
static constexpr int read_timeout_ms = 2000;
static constexpr time_t poll_seconds = 1;
static constexpr uint64_t add_delay_usec = 2000000; // for the kernel to finish with a new disk
static constexpr uint32_t accept_pause_ms = 100;    // for descriptors to come free
static constexpr uint64_t told_again_usec = 60000000;

using CmdGuard = Guard<HotplugCmd, hotplug_cmd_free>;

static bool begins_with(const char* text, const char* prefix)
{
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

// When an add message may be handled; 0, at once, when the clock cannot be read.
static uint64_t due_time()
{
    vytime now;
    return vytime_get(&now, CLOCK_MONOTONIC) == 0 ? vytime_count(now) + add_delay_usec : 0;
}

// Hotplug messages get no answer, so their connection is closed at once. The command keeps the
// closed descriptor's number and the run loop closes that once more: kept.
static void settle_connection(HotplugCmd* cmd, FdGuard* connection)
{
    if (begins_with(cmd->text, "ACTION=remove")) {
        connection->reset(-1);
    } else if (begins_with(cmd->text, "ACTION=add")) {
        connection->reset(-1);
        cmd->due = due_time();
    }
}

// Reads the message of one connection and queues it. Whatever fails drops the connection.
static void take_message(FdGuard* connection)
{
    CmdGuard cmd(hotplug_cmd_create());
    if (!cmd)
        return;
    const ssize_t length =
        unix_recieve(connection->get(), cmd->text, HOTPLUG_CMD_TEXT, 0, read_timeout_ms);
    if (length < 1)
        return;
    cmd->len = static_cast<int32_t>(length);
    cmd->fd = connection->get();
    settle_connection(cmd.get(), connection);
    VY_LOG(LOG_DEBUG, "%s", cmd->text);
    (void)connection->take(); // from here on the command's, even when it cannot be queued: kept
    if (crtsec_cmd_enqueue(cmd.get()) == 0)
        (void)cmd.take();
}

// ---- strict ----

namespace {

// Connections that were refused and not yet told of.
struct Refusals {
    uint32_t count;
    uint64_t told; // monotonic microseconds; 0: never
};

} // namespace

// Tells of refusals once a minute at most: whoever connects as fast as they can must not fill the
// log.
static void count_refusal(Refusals* refusals, const UnixPeer& peer)
{
    refusals->count++;
    vytime now;
    if (vytime_get(&now, CLOCK_MONOTONIC) != 0)
        return;
    if (refusals->told != 0 && vytime_count(now) - refusals->told < told_again_usec)
        return;
    VY_LOG(LOG_ERR, "Refused %u connections, the last of user %d (process %d)", refusals->count,
           static_cast<int>(peer.uid), static_cast<int>(peer.pid));
    *refusals = {.count = 0, .told = vytime_count(now)};
}

// Before a byte is read. A connection that is closed with its message unread tells its sender so
// (ECONNRESET): the agent then sends it once more.
static bool may_send(int connection, Refusals* refusals)
{
    UnixPeer peer;
    if (unix_peer(connection, &peer) != 0)
        return false;
    if (!unix_peer_is_trusted(peer)) {
        count_refusal(refusals, peer);
        return false;
    }
    return crtsec_cmd_count() < strict_queue_limit;
}

// ---- the thread ----

static void take_connection(int listener, const ReceiveArg* arg, Refusals* refusals)
{
    FdGuard connection(unix_accept_addr(listener, nullptr, nullptr));
    if (connection.get() < 0) {
        // Out of descriptors, most likely, and the connection still waits.
        (void)vytime_msleep(accept_pause_ms);
        return;
    }
    if (arg->strict == 0 || may_send(connection.get(), refusals))
        take_message(&connection);
}

// Takes messages until `running` is cleared. Returns 0, or the negated errno of a failed wait.
static int32_t recieve_loop(int listener, const ReceiveArg* arg)
{
    Refusals refusals = {};
    while (flag_get(arg->running) != 0) {
        timeval limit = {.tv_sec = poll_seconds, .tv_usec = 0};
        const int ready = sys_select_one(listener, SYS_READABLE, &limit);
        if (ready > 0)
            take_connection(listener, arg, &refusals);
        else if (ready < 0 && ready != -EINTR)
            return ready;
    }
    return 0;
}

static void* recieve_main(void* argument)
{
    auto* arg = static_cast<ReceiveArg*>(argument);
    FdGuard listener(unix_create_listen_socket(hotplug_socket_name));
    if (listener.get() < 0)
        flag_set(arg->running, 0); // a daemon that cannot hear stops
    VY_LOG(LOG_ERR, "start recieve loop");
    arg->status = recieve_loop(listener.get(), arg);
    listener.reset(-1);
    flag_set(arg->running, 0);
    VY_LOG(LOG_ERR, "exit recieve loop");
    return reinterpret_cast<void*>(static_cast<intptr_t>(arg->status));
}

int recieve_run(ReceiveArg* arg)
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return -1;
    const bool started = pthread_attr_setstacksize(&attributes, receive_stack_bytes) == 0 &&
                         pthread_create(&arg->thread, &attributes, recieve_main, arg) == 0;
    (void)pthread_attr_destroy(&attributes);
    return started ? 0 : -1;
}
