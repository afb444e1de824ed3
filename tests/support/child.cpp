#include "support/child.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr char out_file[] = "/run/child.out";
static constexpr char err_file[] = "/run/child.err";

static void catch_stream(int stream, const char* path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || dup2(fd, stream) != stream)
        _exit(99);
    close(fd);
}

ChildResult run_child(const std::function<int()>& body)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        catch_stream(STDOUT_FILENO, out_file);
        catch_stream(STDERR_FILENO, err_file);
        exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    const int result = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return {result, read_file(out_file), read_file(err_file)};
}

int call_main(int (*main_function)(int argc, char* argv[]), std::vector<std::string> arguments)
{
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    return main_function(static_cast<int>(arguments.size()), argv.data());
}

ChildResult run_main(int (*main_function)(int argc, char* argv[]),
                     const std::vector<std::string>& arguments)
{
    return run_child([&] { return call_main(main_function, arguments); });
}

pid_t waiting_child(const std::function<bool()>& act)
{
    int ready[2];
    char byte = 0;
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        if (!act() || write(ready[1], "x", 1) != 1)
            _exit(1);
        for (;;)
            pause();
    }
    close(ready[1]);
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    return pid;
}

bool wait_for(const std::function<bool()>& condition, int msec)
{
    for (int looks = 0; looks < msec; looks++) {
        if (condition())
            return true;
        usleep(1000);
    }
    return condition();
}
