// A call of vyhotplugctl within the test's process, and the service that it asks.
#pragma once

#include "ctl/call.h"
#include "lib/guard.h"

#include <functional>
#include <string>
#include <vector>

struct Called {
    int status;
    std::string out; // what it wrote to standard output
    std::string err; // and to standard error
};

// What the command line says where it has no options.
CallArgs args_of(const Setup& setup);

Called called(int (*call)(const CallArgs& args), CallArgs args, std::vector<std::string> words);

// A service that listens: takes requests while one waits for its answer, and settings while one
// sleeps. It stands on the scripted world, which it resets.
class CtlService {
  public:
    CtlService();
    ~CtlService();
    CtlService(const CtlService&) = delete;
    CtlService& operator=(const CtlService&) = delete;

    // Nobody listens any more.
    void end() { listener_.reset(-1); }

    // What a request is answered with; the connection is closed where that is "".
    std::function<std::string(const std::string& request)> answer;
    std::vector<std::string> told; // the requests

  private:
    void take_requests();
    void take_settings();

    FdGuard listener_;
    FdGuard connection_;
};
