// Stands in for the daemon: a process that listens on its socket and notes what it is told.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct TestDaemonManners {
    int unread = 0;        // so many messages are not read: their connection is reset
    bool holds = false;    // reads messages, but closes no connection
    bool answers = false;  // says something before it closes
    bool orphaned = false; // the process that listens has gone, another one has its socket
    bool stranger = false; // is of another user
    bool deaf = false;     // closes connections before anything can be read from them
    int backlog = 128;
};

class TestDaemon {
  public:
    explicit TestDaemon(const TestDaemonManners& manners = {});
    ~TestDaemon() { end(); }
    TestDaemon(const TestDaemon&) = delete;
    TestDaemon& operator=(const TestDaemon&) = delete;

    void end();  // kills it
    void stop(); // it stands still until it goes on
    void go_on();
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
    bool is_child_;
};

// What the daemons of this test were told up to now, in order: "+8:1" for an add message, "-8:1"
// for a remove message, "unread" for one that was not read. `whole`: the messages themselves.
std::vector<std::string> daemon_told(bool whole = false);

// Connections over which nothing came.
int daemon_visits();

void daemon_forget_record();

// A message in the short form.
std::string short_form(const std::string& message);
