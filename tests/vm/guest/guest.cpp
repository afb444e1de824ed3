// What the tests run in the guest besides the service: one program, so that a judgement costs one
// command.
//
//   guest log              collects what is sent to /dev/log in /vm/log
//   guest share-service    stands in for the file-sharing service: notes every SIGHUP
//   guest send MESSAGE     one control message; prints the answer
//   guest state OFFSET     everything a test looks at, as JSON; the log from that offset on
//   guest mount NODE DIRECTORY TYPE FLAGS
//                          mount(2) as it stands, no second attempt
//
// Texts in JSON carry a byte as one character, \u0000 to \u00ff.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

static const std::string share_file = "/run/vyhotplugd/files/vynas.dir.conf";
static const std::string device_file = "/run/vyhotplugd/files/hotplug.dev.conf";

// ---- reading ----

static bool read_file(const std::string& path, std::string* text, off_t from = 0)
{
    text->clear();
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    if (from > 0)
        lseek(fd, from, SEEK_SET);
    char block[65536];
    ssize_t count = 0;
    while ((count = read(fd, block, sizeof block)) > 0)
        text->append(block, static_cast<size_t>(count));
    close(fd);
    return true;
}

static std::vector<std::string> names_in(const std::string& folder)
{
    std::vector<std::string> names;
    DIR* directory = opendir(folder.c_str());
    if (directory == nullptr)
        return names;
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    closedir(directory);
    std::sort(names.begin(), names.end());
    return names;
}

static std::vector<std::string> split(const std::string& text, char at)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t end = 0; (end = text.find(at, start)) != std::string::npos; start = end + 1)
        parts.push_back(text.substr(start, end - start));
    if (start < text.size())
        parts.push_back(text.substr(start));
    return parts;
}

static double now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// ---- JSON ----

static std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        char escape[8];
        if (byte < 0x20 || byte >= 0x7f || c == '"' || c == '\\') {
            snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

static std::string listed(const std::vector<std::string>& texts)
{
    std::string out;
    for (const std::string& text : texts)
        out += (out.empty() ? "" : ",") + quoted(text);
    return "[" + out + "]";
}

static std::string file_text(const std::string& path)
{
    std::string text;
    return read_file(path, &text) ? quoted(text) : "null";
}

static std::string link_text(const std::string& path)
{
    char target[4096];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return length < 0 ? "null" : quoted(std::string(target, static_cast<size_t>(length)));
}

static std::vector<std::string> lines_of(const std::string& path)
{
    std::string text;
    read_file(path, &text);
    return split(text, '\n');
}

// ---- state ----

// Name to [kind, major, minor].
static std::string nodes_in(const std::string& folder)
{
    std::string out;
    for (const std::string& name : names_in(folder)) {
        struct stat status;
        if (lstat((folder + "/" + name).c_str(), &status) != 0)
            continue;
        char numbers[64];
        snprintf(numbers, sizeof numbers, ":[%d,%u,%u]", S_ISBLK(status.st_mode) ? 1 : 0,
                 major(status.st_rdev), minor(status.st_rdev));
        out += (out.empty() ? "" : ",") + quoted(name) + numbers;
    }
    return "{" + out + "}";
}

static std::string descriptors_of(const std::string& pid)
{
    std::string out;
    const std::string folder = "/proc/" + pid + "/fd";
    for (const std::string& name : names_in(folder))
        out += (out.empty() ? "" : ",") + quoted(name) + ":" + link_text(folder + "/" + name);
    return "{" + out + "}";
}

// All processes but the kernel's threads; the service's own with their descriptors.
static std::string processes()
{
    std::string out;
    for (const std::string& pid : names_in("/proc")) {
        std::string stat_line;
        if (pid[0] < '0' || pid[0] > '9' || !read_file("/proc/" + pid + "/stat", &stat_line))
            continue;
        const size_t open_at = stat_line.find('(');
        const size_t close_at = stat_line.rfind(')');
        if (open_at == std::string::npos || close_at == std::string::npos)
            continue; // it ended meanwhile
        const std::string name = stat_line.substr(open_at + 1, close_at - open_at - 1);
        const std::vector<std::string> rest = split(stat_line.substr(close_at + 2), ' ');
        if (rest[1] == "2" || pid == "2")
            continue;
        out += (out.empty() ? "" : ",");
        out += "{\"pid\":" + pid + ",\"parent\":" + rest[1] + ",\"state\":" + quoted(rest[0]);
        out += ",\"name\":" + quoted(name);
        if (name.compare(0, 9, "vyhotplug") == 0)
            out += ",\"descriptors\":" + descriptors_of(pid);
        out += "}";
    }
    return "[" + out + "]";
}

static std::string joined_lines(const std::string& path)
{
    std::string out;
    for (const std::string& line : lines_of(path))
        out += (out.empty() ? "" : ",") + line;
    return "[" + out + "]";
}

static int print_state(const char* log_offset)
{
    std::string log;
    read_file("/vm/log", &log, atol(log_offset));
    log.resize(log.rfind('\n') == std::string::npos ? 0 : log.rfind('\n') + 1); // whole lines only
    std::string mounts;
    read_file("/proc/self/mountinfo", &mounts);
    printf("{\"time\":%.3f", now());
    printf(",\"mountinfo\":%s", listed(split(mounts, '\n')).c_str());
    printf(",\"mtab\":%s,\"mtab_link\":%s", file_text("/etc/mtab").c_str(),
           link_text("/etc/mtab").c_str());
    printf(",\"shares\":%s", file_text(share_file).c_str());
    printf(",\"devices\":%s", file_text(device_file).c_str());
    printf(",\"nodes\":%s", nodes_in("/dev/vyhotplug").c_str());
    printf(",\"places\":%s", listed(names_in("/media/vyhotplug")).c_str());
    printf(",\"tmp\":%s", listed(names_in("/tmp")).c_str());
    printf(",\"kernel\":%s", listed(names_in("/sys/class/block")).c_str());
    printf(",\"hook\":%s", listed(lines_of("/vm/hook.record")).c_str());
    printf(",\"service\":%s", joined_lines("/vm/service.record").c_str());
    printf(",\"processes\":%s", processes().c_str());
    printf(",\"log\":%s,\"log_bytes\":%zu}\n", listed(split(log, '\n')).c_str(), log.size());
    return 0;
}

// ---- neighbours of the service ----

static void append(const char* path, const std::string& text)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        perror(path);
    close(fd);
}

static std::string time_text()
{
    char text[32];
    snprintf(text, sizeof text, "%.3f", now());
    return text;
}

static int collect_log()
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    unlink(address.sun_path);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("/dev/log");
        return 1;
    }
    for (;;) {
        char datagram[65536];
        const ssize_t length = recv(fd, datagram, sizeof datagram, 0);
        if (length < 0)
            return 1;
        std::string line(datagram, static_cast<size_t>(length));
        while (!line.empty() && (line.back() == '\0' || line.back() == '\n'))
            line.pop_back();
        std::replace(line.begin(), line.end(), '\n', '|');
        append("/vm/log", time_text() + " " + line + "\n");
    }
}

static int share_service()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGHUP);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    unlink("/var/run/vynas-fssd.pid");
    append("/var/run/vynas-fssd.pid", std::to_string(getpid()) + "\n");
    for (;;) {
        int number = 0;
        if (sigwait(&signals, &number) == 0)
            append("/vm/service.record",
                   "{\"time\":" + time_text() + ",\"shares\":" + file_text(share_file) + "}\n");
    }
}

static int send_message(const char* message)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path + 1, "vyhotplugd");
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        write(fd, message, strlen(message) + 1) < 0) {
        perror("vyhotplugd");
        return 1;
    }
    char answer[128];
    const ssize_t length = read(fd, answer, sizeof answer);
    if (length > 0)
        printf("%.*s\n", static_cast<int>(length), answer);
    return 0;
}

static int mount_once(char* argv[])
{
    const unsigned long flags = strtoul(argv[5], nullptr, 0);
    const int result = mount(argv[2], argv[3], argv[4], flags, nullptr);
    printf("%s\n", result == 0 ? "0" : strerrorname_np(errno));
    return 0;
}

int main(int argc, char* argv[])
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "log")
        return collect_log();
    if (command == "share-service")
        return share_service();
    if (command == "send" && argc == 3)
        return send_message(argv[2]);
    if (command == "state" && argc == 3)
        return print_state(argv[2]);
    if (command == "mount" && argc == 6)
        return mount_once(argv);
    fputs("guest: unknown command\n", stderr);
    return 2;
}
