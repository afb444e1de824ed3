#include "unit/ctl/called.h"

#include "fake/fake_world.h"
#include "lib/socket_unix.h"
#include "support/files.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

CallArgs args_of(const Setup& setup)
{
    CallArgs args = {};
    args.setup = &setup;
    args.wait_s = -1;
    return args;
}

Called called(int (*call)(const CallArgs& args), CallArgs args, std::vector<std::string> words)
{
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    args.words = pointers.data();
    args.count = static_cast<int>(words.size());
    Called result = {};
    testing::internal::CaptureStderr();
    result.out = written_by([&](FILE* out) {
        args.out.out = out;
        result.status = call(args);
    });
    result.err = testing::internal::GetCapturedStderr();
    return result;
}

CtlService::CtlService()
{
    fake_world_reset();
    listener_.reset(unix_create_listen_socket("vyhotplugd"));
    EXPECT_GE(listener_.get(), 0);
    fake_world().on_select = [this] { take_requests(); };
    fake_world().on_sleep = [this](uint64_t) { take_settings(); };
}

CtlService::~CtlService()
{
    fake_world_reset();
}

void CtlService::take_requests()
{
    const int accepted = unix_accept_addr(listener_.get(), nullptr, nullptr);
    if (accepted >= 0)
        connection_.reset(accepted);
    char text[128];
    const ssize_t length = recv(connection_.get(), text, sizeof text, MSG_DONTWAIT);
    if (length <= 0)
        return;
    told.emplace_back(text, static_cast<size_t>(length) - 1);
    const std::string reply = answer ? answer(told.back()) : "";
    if (reply.empty())
        return connection_.reset(-1);
    EXPECT_GT(send(connection_.get(), reply.c_str(), reply.size() + 1, 0), 0);
}

// As a refresh does, it writes the device file without the lines that it does not know.
void CtlService::take_settings()
{
    int accepted = -1;
    while ((accepted = unix_accept_addr(listener_.get(), nullptr, nullptr)) >= 0)
        close(accepted); // who asked for its number
    std::string text = read_file(ctl_devices);
    for (size_t mark = 0; (mark = text.find("ctlchange=")) != std::string::npos;)
        text.erase(mark, text.find('\n', mark) + 1 - mark);
    if (!fake_world().signals.empty() && text != read_file(ctl_devices))
        write_file(ctl_devices, text);
}
