#include "agent/courier.h"

#include "agent/daemon_peer.h"
#include "agent/limits.h"
#include "lib/log.h"
#include "lib/sys.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr char log_tag[] = "courier";

uint64_t courier_now()
{
    timespec now = {};
    (void)sys_clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

void courier_init(Courier* courier, const CourierOwner& owner)
{
    *courier = {};
    courier->owner = owner;
    courier->connection = -1;
}

void courier_hang_up(Courier* courier)
{
    if (courier->connection >= 0)
        close(courier->connection);
    courier->connection = -1;
    courier->under_way = false;
    courier->due = 0;
}

void courier_pause(Courier* courier, uint64_t now)
{
    if (courier->under_way)
        return;
    courier->pause = courier->pause == 0 ? agent_retry_first : courier->pause * 2;
    if (courier->pause > agent_retry_most)
        courier->pause = agent_retry_most;
    courier->due = now + courier->pause;
}

// ---- a message under way ----

static void finish(Courier* courier)
{
    courier_hang_up(courier);
    courier->pause = 0;
    courier->owner.delivered(courier->owner.self, message_queue_head(&courier->queue));
    message_queue_pop(&courier->queue);
}

static void fail(Courier* courier, uint64_t now, int error)
{
    VY_LOG(LOG_INFO, "message not delivered, will be sent again (%s)", strerror(error));
    courier_hang_up(courier);
    courier_pause(courier, now);
}

// Returns whether the message has come to an end, one way or the other.
static bool look_for_end(Courier* courier, uint64_t now)
{
    char ignored[64]; // a hotplug message gets no answer
    ssize_t count = 1;
    while (count > 0)
        count = recv(courier->connection, ignored, sizeof ignored, MSG_DONTWAIT);
    if (count == 0) {
        finish(courier);
        return true;
    }
    if (errno != EAGAIN) {
        fail(courier, now, errno);
        return true;
    }
    if (now < courier->due)
        return false;
    VY_LOG(LOG_WARNING, "the daemon is slow; the message lies in its queue");
    finish(courier);
    return true;
}

// ---- the next message ----

static void send_head(Courier* courier, uint64_t now)
{
    const QueuedMessage* head = message_queue_head(&courier->queue);
    const size_t size = strlen(head->text) + 1;
    const ssize_t sent = send(courier->connection, head->text, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent != static_cast<ssize_t>(size))
        return fail(courier, now, sent < 0 ? errno : EMSGSIZE);
    VY_LOG(LOG_DEBUG, "sent %s", head->text);
    courier->under_way = true;
    courier->due = now + agent_close_wait;
}

// Returns whether to go on at once.
static bool visit(Courier* courier, uint64_t now)
{
    const int fd = daemon_connect();
    if (fd < 0) {
        if (fd == -ECONNREFUSED || fd == -ENOENT)
            courier->owner.missed(courier->owner.self);
        else
            VY_LOG(LOG_INFO, "connection put off (%s)", strerror(-fd));
        courier_pause(courier, now);
        return false;
    }
    courier->connection = fd;
    courier->visit = false;
    const bool sends = courier->owner.met(courier->owner.self, fd) && courier->queue.count > 0;
    const uint64_t due = courier->due;
    if (due <= now) // else the owner has paused, and its pauses grow
        courier->pause = 0;
    if (!sends) {
        courier_hang_up(courier);
        courier->due = due;
        return false;
    }
    send_head(courier, now);
    return true;
}

void courier_advance(Courier* courier, uint64_t now)
{
    for (;;) {
        if (courier->under_way) {
            if (!look_for_end(courier, now))
                return;
            continue;
        }
        if (courier->queue.count == 0 && !courier->visit)
            return;
        if (now < courier->due || !visit(courier, now))
            return;
    }
}

int courier_timeout(const Courier* courier, uint64_t now)
{
    if (!courier->under_way && courier->queue.count == 0 && !courier->visit)
        return -1;
    return courier->due > now ? static_cast<int>(courier->due - now) : 0;
}
