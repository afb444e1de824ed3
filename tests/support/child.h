// Runs a piece of the program in a process of its own, its output caught.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

struct ChildResult {
    int status;      // its exit status; 128 + the signal's number when one killed it
    std::string out; // what it wrote to standard output
    std::string err; // and to standard error
};

// Forks, runs `body` in the child and ends that with the result as its exit status, by exit(3).
ChildResult run_child(const std::function<int()>& body);

// As run_child, for a main function: with these arguments, the first one its name.
ChildResult run_main(int (*main_function)(int argc, char* argv[]),
                     const std::vector<std::string>& arguments);

// Calls a main function in this process.
int call_main(int (*main_function)(int argc, char* argv[]), std::vector<std::string> arguments);

// Starts a process that does something and then waits to be killed. Returns once it has done it.
pid_t waiting_child(const std::function<bool()>& act);

// Waits until `condition` holds, for a minute at most unless told. Returns whether it does.
bool wait_for(const std::function<bool()>& condition, int msec = 60000);
