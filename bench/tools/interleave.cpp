// interleave ROUNDS -- COMMAND [ARGUMENT]... [-- COMMAND [ARGUMENT]...]...
//
// Runs the commands one after the other, so many rounds, their output thrown away, and prints one
// line for each command: the nanoseconds of its runs from fork to end. Fails when one of them does.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <vector>

static long long now_ns()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

// Returns the nanoseconds; -1 when the command failed.
static long long run(char* const command[])
{
    const long long began = now_ns();
    const pid_t pid = fork();
    if (pid == 0) {
        const int nowhere = open("/dev/null", O_WRONLY);
        (void)dup2(nowhere, STDOUT_FILENO);
        execvp(command[0], command);
        perror(command[0]);
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0) {
        fprintf(stderr, "%s failed (0x%x)\n", command[0], static_cast<unsigned>(status));
        return -1;
    }
    return now_ns() - began;
}

int main(int argc, char* argv[])
{
    std::vector<char**> commands;
    for (int at = 2; at + 1 < argc; at++) {
        if (strcmp(argv[at], "--") == 0) {
            argv[at] = nullptr;
            commands.push_back(argv + at + 1);
        }
    }
    if (commands.empty()) {
        fprintf(stderr, "usage: interleave ROUNDS -- COMMAND [ARGUMENT]... [-- COMMAND ...]\n");
        return 2;
    }
    std::vector<std::vector<long long>> times(commands.size());
    for (int round = 0; round < atoi(argv[1]); round++) {
        for (size_t at = 0; at < commands.size(); at++) {
            const long long took = run(commands[at]);
            if (took < 0)
                return 1;
            times[at].push_back(took);
        }
    }
    for (const std::vector<long long>& row : times) {
        for (const long long took : row)
            printf("%lld ", took);
        printf("\n");
    }
    return 0;
}
