#include "test_daemon.h"

#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <sstream>

static constexpr char record[] = "/tmp/test-daemon.record";

static int make_listener(int backlog)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path + 1, "vyhotplugd");
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, backlog) != 0)
        return -1;
    return listener;
}

static void note(int file, const std::string& line)
{
    const std::string whole = line + "\n";
    if (write(file, whole.data(), whole.size()) < 0)
        _exit(98);
}

static void take_one(int connection, int file, TestDaemonManners* manners)
{
    char text[513] = "";
    if (manners->deaf) {
        note(file, "deaf");
        close(connection);
        return;
    }
    pollfd poll_fd = {.fd = connection, .events = POLLIN, .revents = 0};
    poll(&poll_fd, 1, -1);
    if (recv(connection, text, 1, MSG_PEEK) > 0 && manners->unread > 0) {
        manners->unread--;
        note(file, "unread");
        close(connection);
        return;
    }
    text[0] = '\0';
    const ssize_t length = recv(connection, text, sizeof text - 1, 0);
    if (length > 0 && text[length - 1] != '\0')
        note(file, "no zero byte");
    if (manners->answers)
        (void)send(connection, "success", 8, MSG_NOSIGNAL);
    note(file, length > 0 ? text : "visit");
    if (!manners->holds || length == 0)
        close(connection);
}

[[noreturn]] static void serve(TestDaemonManners manners, int ready)
{
    const int file = open(record, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (manners.stranger && (setgid(1234) != 0 || setuid(1234) != 0))
        _exit(96);
    const int listener = make_listener(manners.backlog);
    if (file < 0 || listener < 0)
        _exit(97);
    if (manners.orphaned && fork() != 0)
        _exit(0);
    const pid_t pid = getpid();
    if (write(ready, &pid, sizeof pid) != sizeof pid)
        _exit(98);
    close(ready);
    for (;;) {
        const int connection = accept(listener, nullptr, nullptr);
        if (connection >= 0)
            take_one(connection, file, &manners);
    }
}

TestDaemon::TestDaemon(const TestDaemonManners& manners) : is_child_(!manners.orphaned)
{
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(ready[0]);
        serve(manners, ready[1]);
    }
    close(ready[1]);
    EXPECT_EQ(read(ready[0], &pid_, sizeof pid_), static_cast<ssize_t>(sizeof pid_)); // it listens
    close(ready[0]);
    if (!is_child_) {
        EXPECT_EQ(waitpid(child, nullptr, 0), child);
    }
}

void TestDaemon::end()
{
    if (pid_ <= 0)
        return;
    kill(pid_, SIGKILL);
    if (is_child_) {
        EXPECT_EQ(waitpid(pid_, nullptr, 0), pid_);
    } else {
        const std::string stat = "/proc/" + std::to_string(pid_) + "/stat";
        EXPECT_TRUE(wait_for([&] { // another one's to be reaped
            return !exists(stat) || read_file(stat).find(") Z ") != std::string::npos;
        }));
    }
    pid_ = -1;
}

void TestDaemon::stop()
{
    kill(pid_, SIGSTOP);
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, WUNTRACED), pid_);
}

void TestDaemon::go_on()
{
    kill(pid_, SIGCONT);
}

std::string short_form(const std::string& message)
{
    static const std::regex form("ACTION=(add|remove),MAJOR=(\\d+),MINOR=(\\d+)(,.*)?");
    std::smatch match;
    if (!std::regex_match(message, match, form))
        return message;
    return (match[1] == "add" ? "+" : "-") + match[2].str() + ":" + match[3].str();
}

std::vector<std::string> daemon_told(bool whole)
{
    std::vector<std::string> told;
    std::istringstream lines(read_file(record));
    for (std::string line; std::getline(lines, line);) {
        if (line != "visit")
            told.push_back(whole ? line : short_form(line));
    }
    return told;
}

int daemon_visits()
{
    int visits = 0;
    std::istringstream lines(read_file(record));
    for (std::string line; std::getline(lines, line);)
        visits += line == "visit" ? 1 : 0;
    return visits;
}

void daemon_forget_record()
{
    unlink(record);
}
