// bare_listener NAME
//
// The least that taking messages takes: accept, one recv, close, over and over, on an abstract
// socket padded as the service's is. Runs until it is killed.
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char* argv[])
{
    if (argc != 2) {
        fprintf(stderr, "usage: bare_listener NAME\n");
        return 2;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path + 1, argv[1], sizeof address.sun_path - 2);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (listener < 0 ||
        bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 128) != 0) {
        perror(argv[1]);
        return 1;
    }
    for (;;) {
        const int connection = accept(listener, nullptr, nullptr);
        if (connection < 0)
            continue;
        char text[512];
        (void)!recv(connection, text, sizeof text, 0);
        close(connection);
    }
}
