// Runs a scenario once to count what it asks of the world, then once more for each of its
// allocations and calls, with that one failing, and holds what is left behind against what must be.
#pragma once

#include <poll.h>

#include <functional>
#include <string>

// Each run of a scenario is: prepare (nothing fails), run (one thing may fail), finish (nothing
// fails: frees what run was given), check. Nothing may leak, no descriptor stay open.
struct Scenario {
    std::function<void()> prepare;
    std::function<void()> run;
    std::function<void()> finish;
    std::function<void(bool struck)> check; // struck: the planned failure happened
    bool keeps_streams = false;             // a failure may leave a stream open: kept behaviour
    bool* lasting = nullptr;                // where it is to be noted whether memory stays short
    int* error = nullptr;                   // where the errno of the planned failure is to be noted
    bool threads = false;                   // counts may differ from run to run
    bool keeps_options = false; // the configuration's option texts live on, three at most
};

// What poll(2) does from now on, unseen by the sweep; an empty function: what it always does.
using Polling = std::function<int(pollfd* fds, nfds_t count, int timeout)>;
void sweep_polling(Polling stand_in);
extern "C" int __real_poll(pollfd* fds, nfds_t count, int timeout);

// Fails every allocation, each alone and each from there on.
void sweep_allocations(const Scenario& scenario);

// Fails every call of the C library and of lib/sys.h, each alone, with each errno that it may have.
void sweep_calls(const Scenario& scenario);
