// start_to_socket NAME COMMAND [ARGUMENT]...
//
// Starts a command and prints the nanoseconds until the abstract socket NAME takes a connection.
// Then kills it. Nobody else may listen there.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static constexpr long long limit_ns = 20000000000LL;

static long long now_ns()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

static bool accepts(const sockaddr_un& address)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const bool connected =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

int main(int argc, char* argv[])
{
    if (argc < 3) {
        fprintf(stderr, "usage: start_to_socket NAME COMMAND [ARGUMENT]...\n");
        return 2;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path + 1, argv[1], sizeof address.sun_path - 2);
    if (accepts(address)) {
        fprintf(stderr, "somebody listens on %s\n", argv[1]);
        return 1;
    }
    const long long began = now_ns();
    const pid_t pid = fork();
    if (pid == 0) {
        execvp(argv[2], argv + 2);
        _exit(127);
    }
    bool up = false;
    const timespec pause = {.tv_sec = 0, .tv_nsec = 20000};
    while (!(up = accepts(address)) && now_ns() - began < limit_ns)
        (void)nanosleep(&pause, nullptr);
    const long long took = now_ns() - began;
    (void)kill(pid, SIGKILL);
    (void)waitpid(pid, nullptr, 0);
    if (!up) {
        fprintf(stderr, "it did not come up\n");
        return 1;
    }
    printf("%lld\n", took);
    return 0;
}
