#include "tools/mount_client.h"

#include "lib/guard.h"
#include "lib/socket_unix.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

static constexpr char daemon_socket[] = "vyhotplugd";
static constexpr size_t message_size = 128; // bytes with the zero byte
static constexpr int send_timeout_ms = 1500;
static constexpr char success_answer[] = "success";

namespace {

// What tells the two commands apart.
struct ClientCommand {
    const char* word; // in the request and in the outcome's line
    int answer_timeout_ms;
    const char* usage;
};

constexpr ClientCommand mount_command = {
    .word = "mount",
    .answer_timeout_ms = 60000,
    .usage = "mount command.\n"
             "Usage : vymount {option}.\n"
             "\n"
             "option:\n"
             "  all     : mount all hotplug device.\n"
             "  sd      : mount all scsi disk device.\n"
             "  sda     : mount sda.\n"
             "  sda0    : mount sda0. (set able 0 to 15)\n"
             "  mmcblk  : mount all mmc block device.\n"
             "\n",
};

// Blanks and the word "umount" as the command has always had them.
constexpr ClientCommand unmount_command = {
    .word = "unmount",
    .answer_timeout_ms = 30000,
    .usage = "unmount command.\n"
             "Usage : vyunmount {option}.\n"
             "\n"
             "option:\n"
             " all     : umount all hotplug device.\n"
             " sd      : umount all sd device.\n"
             " sda     : umount sda.\n"
             " sda0    : umount sda0. (set able 0 to 15)\n"
             " mmcblk  : umount all mmc block device.\n"
             "\n",
};

} // namespace

// Whether the daemon listens there, and not somebody who took its name.
static bool is_daemon(int fd)
{
    UnixPeer peer;
    return unix_peer(fd, &peer) == 0 && unix_peer_is_trusted(peer);
}

static int send_request(const ClientCommand& command, const char* target)
{
    const FdGuard fd(unix_create_socket(daemon_socket));
    if (fd.get() < 0 || !is_daemon(fd.get()))
        return -1;
    char message[message_size];
    const int length = snprintf(message, sizeof message, "ACTION=%s,%s", command.word, target);
    if (length < 0 || static_cast<size_t>(length) >= sizeof message)
        return -1;
    const size_t size = static_cast<size_t>(length) + 1;
    const ssize_t sent = unix_send(fd.get(), message, size, MSG_NOSIGNAL, send_timeout_ms);
    if (sent < static_cast<ssize_t>(size))
        return -1;
    const ssize_t received =
        unix_recieve(fd.get(), message, sizeof message, 0, command.answer_timeout_ms);
    if (received < static_cast<ssize_t>(strlen(success_answer)))
        return -1;
    return memcmp(message, success_answer, strlen(success_answer)) == 0 ? 0 : -1;
}

static int run_client(const ClientCommand& command, int argc, char* argv[])
{
    if (getuid() != 0) {
        fputs("root only.\n", stderr);
        return -1;
    }
    if (argc < 2) {
        fputs(command.usage, stderr);
        return -1;
    }
    const char* outcome = send_request(command, argv[1]) == 0 ? "success" : "failed";
    fprintf(stderr, "%s %s - %s.\n", command.word, argv[1], outcome);
    return 0;
}

int hotplug_cmd_mount(const char* target)
{
    return send_request(mount_command, target);
}

int hotplug_cmd_unmount(const char* target)
{
    return send_request(unmount_command, target);
}

int hotplug_mount_main(int argc, char* argv[])
{
    return run_client(mount_command, argc, argv);
}

int hotplug_unmount_main(int argc, char* argv[])
{
    return run_client(unmount_command, argc, argv);
}
