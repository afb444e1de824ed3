// Stands in for lib/sys: a world that the test scripts. Names below the test's private root are
// really made and removed; mounts, processes, signals and clocks are only pretended. Every call is
// noted in a journal, and any call can be told to fail. Safe from any thread.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <array>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

// One run of a program that sys_spawn starts.
struct FakeRun {
    int wait_status = 0; // as waitpid reports it: exit status << 8, or a signal
    int polls = 0;       // looks that find it still running before it has ended; -1: it never ends
    std::string output;  // what it prints, waiting in the stdout pipe
};

struct FakeMount {
    std::string source;
    std::string type;
    unsigned long flags;
    std::string options;
};

struct FakeWorld {
    // ---- to be set up by the test ----

    // Filesystem on a device node, by the node's path; a node without one mounts as nothing
    // (EINVAL). `readonly` is the errno of a read-write mount, EROFS or EACCES; 0 for none.
    struct Medium {
        std::string type;
        int readonly = 0;
    };
    std::map<std::string, Medium> media;
    std::set<std::string>
        quietly_readonly; // nodes that are mounted read-only though it was not asked
    std::map<std::string, std::deque<FakeRun>> programs; // by argv[0]; an unknown one exits with 1
    std::map<std::string, int> busy;                     // mountpoint: errno of umount
    std::map<pid_t, int> kill_errors;                    // pid: errno of kill

    // Makes the nth call (1 = the next, counted per call name from now on) fail with an errno; nth
    // 0: every call. Names as in lib/sys.h without "sys_": "mount", "mkdir", "spawn", ...
    void fail(const std::string& call, int nth, int error);

    // The nth select from now on (0: none) finds nothing ready: it returns at once, the clocks
    // moved on by its whole time.
    int select_expires = 0;

    // From now on a select that finds nothing ready does not wait for its time to pass.
    bool impatient = false;

    // Called at each sleep with its microseconds, in the thread that sleeps, the world unlocked:
    // the place for a test to step in while a loop runs.
    std::function<void(uint64_t usec)> on_sleep;

    // The same before two names are exchanged, and before a second name is made.
    std::function<void()> on_exchange;
    std::function<void()> on_link;

    // The same before a program is started, with its argument vector: what it does.
    std::function<void(const std::vector<std::string>& arguments)> on_spawn;

    // The same at each sync, and at each wait for a descriptor before it begins.
    std::function<void()> on_sync;
    std::function<void()> on_select;

    // ---- what happened ----

    std::vector<std::string> journal;        // "mount /dev/sda1 /mnt/sda1 vfat 0x4 uid=0,..."
    std::map<std::string, FakeMount> mounts; // by mountpoint
    std::vector<std::pair<pid_t, int>> signals;
    std::vector<std::vector<std::string>> spawned; // argument vectors
    std::vector<std::array<int, 3>> streams;       // what their standard streams were to be
    uint64_t monotonic_usec = 1000000000;          // sleeping moves the clocks on
    uint64_t realtime_usec = 1700000000000000;
    uint64_t slept_usec = 0;
    int syncs = 0;
    int failed = 0; // calls that failed because the test wanted it

    // Moves the clocks on, while threads may look at them.
    void pass(uint64_t monotonic, uint64_t realtime);

    // Journal entries that begin with `prefix`.
    std::vector<std::string> calls(const std::string& prefix) const;
    // How often a call was made.
    int count(const std::string& call) const;
};

// The world that lib/sys.h stands on, and a fresh one in its place.
FakeWorld& fake_world();
void fake_world_reset();

// Ends all waiting for descriptors, while other threads wait for some.
void fake_world_lose_patience();
