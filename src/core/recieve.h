// The receive thread: reads one control message from each connection on the socket "vyhotplugd" and
// queues it for the run loop. It never acts on one itself.
#pragma once

#include <pthread.h>
#include <stdint.h>

constexpr char hotplug_socket_name[] = "vyhotplugd"; // in the abstract namespace
constexpr uint32_t strict_queue_limit = 4096;        // messages

// The thread's argument block, owned by the run loop.
struct ReceiveArg {
    uint8_t* running; // borrowed: the context's flag; the thread ends when it is 0, and clears it
    int32_t status;   // the thread's exit value: 0, a negated errno
    pthread_t thread;
    uint8_t strict = 0; // 1: of root and the own user only, and no more than the queue may hold
};

// Starts the thread. Returns 0; -1 when its stack cannot be set or the thread not be made.
[[nodiscard]] int recieve_run(ReceiveArg* arg);
