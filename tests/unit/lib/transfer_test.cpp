// Messages between two processes and reads from pipes, with the real waiting.
#include "lib/socket_unix.h"
#include "lib/str.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

// The client's part: a request, and the answer compared with what is expected.
[[noreturn]] void run_client(int told)
{
    char go;
    if (read(told, &go, 1) != 1)
        _exit(2);
    const int fd = unix_create_socket("vyhotplugd");
    if (fd < 0 || unix_send(fd, "ACTION=mount", 13, 0, 60000) != 13)
        _exit(3);
    char answer[128] = {};
    if (unix_recieve(fd, answer, sizeof answer, 0, 60000) != 8)
        _exit(4);
    _exit(std::string(answer) == "success" ? 0 : 5);
}

TEST(Transfer, RequestAndAnswerPassInOnePieceEach)
{
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    const pid_t client = fork();
    if (client == 0)
        run_client(told[0]);
    const int listener = unix_create_listen_socket("vyhotplugd");
    ASSERT_GE(listener, 0);
    ASSERT_EQ(write(told[1], "x", 1), 1);
    pollfd waiting = {.fd = listener, .events = POLLIN, .revents = 0};
    ASSERT_EQ(poll(&waiting, 1, 60000), 1) << "nobody came";
    const int fd = unix_accept_addr(listener, nullptr, nullptr);
    ASSERT_GE(fd, 0);
    char request[512] = {};
    EXPECT_EQ(unix_recieve(fd, request, sizeof request, 0, 60000), 13);
    EXPECT_STREQ(request, "ACTION=mount");
    EXPECT_EQ(unix_send(fd, "success", 8, 0, 60000), 8);
    int status = -1;
    EXPECT_EQ(waitpid(client, &status, 0), client);
    EXPECT_EQ(status, 0);
    for (const int held : {fd, listener, told[0], told[1]})
        close(held);
}

// The data comes only once the reader is asked to wait for it.
TEST(Transfer, StrReadWaitsForData)
{
    for (const int timeout_ms : {-1, 60000}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t writer = fork();
        if (writer == 0) {
            usleep(50000);
            _exit(write(ends[1], "label", 5) == 5 ? 0 : 1);
        }
        char text[16] = {};
        EXPECT_EQ(str_read(ends[0], text, sizeof text, timeout_ms), 5);
        EXPECT_STREQ(text, "label");
        int status = -1;
        EXPECT_EQ(waitpid(writer, &status, 0), writer);
        EXPECT_EQ(status, 0);
        close(ends[0]);
        close(ends[1]);
    }
}

TEST(Transfer, StrReadGivesUpWhenNothingComes)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    char text[16];
    EXPECT_EQ(str_read(ends[0], text, sizeof text, 999), 0); // 999 microseconds
    close(ends[0]);
    close(ends[1]);
}

} // namespace
