// flood NAME CLIENTS MESSAGES
//
// So many clients, each a process, send their part of the messages to the abstract socket NAME: one
// connection for each, the next when the other side has closed it. The messages tell of devices
// that are not there. Prints the nanoseconds that all of it took, and how many connections were
// closed before their message was sent.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static sockaddr_un address;

static bool send_one(int number)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return false;
    char text[128];
    const int length = snprintf(text, sizeof text, "ACTION=remove,MAJOR=8,MINOR=%d", number % 200);
    const bool sent = send(fd, text, static_cast<size_t>(length) + 1, MSG_NOSIGNAL) == length + 1;
    char nothing;
    (void)!recv(fd, &nothing, 1, 0); // until it is closed
    close(fd);
    return sent;
}

// Sends a client's part and tells the failures through the pipe.
[[noreturn]] static void run_client(int messages, int pipe_end)
{
    int failed = 0;
    for (int number = 0; number < messages; number++)
        failed += !send_one(number);
    _exit(write(pipe_end, &failed, sizeof failed) == sizeof failed ? 0 : 1);
}

static long long now_ns()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

int main(int argc, char* argv[])
{
    if (argc != 4) {
        fprintf(stderr, "usage: flood NAME CLIENTS MESSAGES\n");
        return 2;
    }
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path + 1, argv[1], sizeof address.sun_path - 2);
    const int clients = atoi(argv[2]);
    const int share = atoi(argv[3]) / clients;
    int ends[2];
    if (pipe(ends) != 0)
        return 1;
    const long long began = now_ns();
    for (int client = 0; client < clients; client++) {
        const pid_t pid = fork();
        if (pid == 0)
            run_client(share, ends[1]);
        if (pid < 0)
            return 1;
    }
    int total = 0;
    for (int client = 0; client < clients; client++) {
        int failed = 0;
        if (read(ends[0], &failed, sizeof failed) != sizeof failed)
            return 1;
        total += failed;
    }
    printf("%lld %d\n", now_ns() - began, total);
    while (wait(nullptr) > 0) {
    }
    return 0;
}
