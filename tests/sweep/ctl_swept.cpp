#include "sweep/ctl_swept.h"

#include "fake/fake_world.h"
#include "lib/socket_unix.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char told_file[] = "/tmp/ctl/told";
static constexpr char complaints_file[] = "/tmp/ctl/complaints";

// ---- the call ----

SweptCall::SweptCall(int (*call)(const CallArgs& args), std::vector<std::string> words)
    : call_(call), words_(std::move(words))
{
    for (std::string& word : words_)
        pointers_.push_back(word.data());
    args.setup = &world.setup;
    args.words = pointers_.data();
    args.count = static_cast<int>(pointers_.size());
    args.wait_s = -1;
}

void SweptCall::begin()
{
    if (prepare)
        prepare();
    args.out.out = fopen(told_file, "w");
    own_complaints_.reset(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    const FdGuard complaining(
        open(complaints_file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ASSERT_EQ(dup2(complaining.get(), STDERR_FILENO), STDERR_FILENO);
}

void SweptCall::end()
{
    fclose(args.out.out);
    ASSERT_EQ(dup2(own_complaints_.get(), STDERR_FILENO), STDERR_FILENO);
    own_complaints_.reset(-1);
    told = read_file(told_file);
    complaints = read_file(complaints_file);
}

Scenario SweptCall::scenario()
{
    Scenario scenario;
    scenario.error = &error;
    scenario.prepare = [this] { begin(); };
    scenario.run = [this] { result = call_(args); };
    scenario.finish = [this] { end(); };
    scenario.check = [this](bool struck) {
        SCOPED_TRACE("ends with " + std::to_string(result) + ", and tells:\n" + told + complaints);
        check(struck);
    };
    return scenario;
}

bool SweptCall::was_denied() const
{
    return error == ENOENT || error == EACCES;
}

bool SweptCall::was_not_written() const
{
    return error == ENOSPC;
}

// ---- the service ----

SweptService::SweptService() : listener_(unix_create_listen_socket("vyhotplugd"))
{
    EXPECT_GE(listener_.get(), 0);
}

void SweptService::attend()
{
    asked.clear();
    fake_world().on_sleep = [this](uint64_t) { work(); };
    fake_world().on_select = [this] { work(); };
}

void SweptService::hang_up()
{
    int connection = -1;
    while ((connection = unix_accept_addr(listener_.get(), nullptr, nullptr)) >= 0)
        close(connection);
    for (const int known : connections_)
        close(known);
    connections_.clear();
}

// "ACTION=mount,sda1", "ACTION=unmount,sda1,force"
void SweptService::answer(int connection, const std::string& request)
{
    asked.push_back(request);
    const size_t name = request.find(',') + 1;
    const std::string target = request.substr(name, request.find(',', name) - name);
    bool done = true;
    if (request.starts_with("ACTION=mount,"))
        swept_mount(target);
    else
        done = swept_unmount(target);
    const std::string text = done ? "success" : "faild";
    (void)send(connection, text.c_str(), text.size() + 1, MSG_NOSIGNAL); // the asker may have gone
}

void SweptService::work()
{
    calls_overlook(true);
    int connection = -1;
    while ((connection = unix_accept_addr(listener_.get(), nullptr, nullptr)) >= 0)
        connections_.push_back(connection);
    char request[128];
    for (const int known : connections_) {
        const ssize_t length = recv(known, request, sizeof request, MSG_DONTWAIT);
        if (length > 0)
            answer(known, std::string(request, static_cast<size_t>(length) - 1));
    }
    // As a refresh does, it writes the device file without the lines that it does not know.
    std::string text = read_file(ctl_devices);
    const bool told = !fake_world().signals.empty();
    for (size_t mark = 0; told && (mark = text.find("ctlchange=")) != std::string::npos;)
        write_file(ctl_devices, text.erase(mark, text.find('\n', mark) + 1 - mark));
    calls_overlook(false);
}

// ---- mounts ----

std::string swept_directory(const std::string& name)
{
    return "/tmp/ctl/mounts/" + name;
}

bool swept_is_mounted(const std::string& name)
{
    struct stat above = {};
    struct stat status = {};
    return stat("/tmp/ctl/mounts", &above) == 0 &&
           stat(swept_directory(name).c_str(), &status) == 0 && status.st_dev != above.st_dev;
}

void swept_mount(const std::string& name)
{
    const std::string directory = swept_directory(name);
    (void)mkdir(directory.c_str(), 0755); // it may be there
    EXPECT_TRUE(swept_is_mounted(name) || mount("x", directory.c_str(), "tmpfs", 0, nullptr) == 0);
}

bool swept_unmount(const std::string& name)
{
    return !swept_is_mounted(name) || umount(swept_directory(name).c_str()) == 0;
}
