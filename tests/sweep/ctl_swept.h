// A call of vyhotplugctl for a sweep, and the service that it asks.
#pragma once

#include "ctl/call.h"
#include "lib/guard.h"
#include "sweep/sweep.h"
#include "unit/ctl/ctl_world.h"

#include <functional>
#include <string>
#include <vector>

// Runs it in this process, and keeps what it told.
class SweptCall {
  public:
    SweptCall(int (*call)(const CallArgs& args), std::vector<std::string> words);

    Scenario scenario();

    CtlWorld world;
    CallArgs args = {};
    std::function<void()> prepare; // before each run
    std::function<void(bool struck)> check;

    // Whether a file was said not to be there, or not to be for everybody, which is an answer.
    bool was_denied() const;

    // Whether a piece of what it told was refused, as a full disk does: who flushes the stream sees
    // that.
    bool was_not_written() const;

    // Of the run before.
    int result = -1;
    std::string told;       // on standard output
    std::string complaints; // on standard error
    int error = 0;          // the errno of what failed

  private:
    void begin();
    void end();

    int (*call_)(const CallArgs& args);
    std::vector<std::string> words_;
    std::vector<char*> pointers_;
    FdGuard own_complaints_;
};

// A service that listens, mounts and unmounts for real, and has read the device file as soon as it
// is told to. It works while the call sleeps or waits, and nothing of its own fails.
class SweptService {
  public:
    SweptService();
    ~SweptService() { hang_up(); }
    SweptService(const SweptService&) = delete;
    SweptService& operator=(const SweptService&) = delete;

    void attend(); // from now on, on the world that was made anew
    void hang_up();

    std::vector<std::string> asked; // the requests since attend()

  private:
    void work();
    void answer(int connection, const std::string& request);

    FdGuard listener_;
    std::vector<int> connections_;
};

// A directory below the service's own, and whether something is mounted there.
std::string swept_directory(const std::string& name);
bool swept_is_mounted(const std::string& name);
void swept_mount(const std::string& name);   // unless something is
bool swept_unmount(const std::string& name); // whether nothing is, now
