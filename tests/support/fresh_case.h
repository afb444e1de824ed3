// Cases share a process and its private world: after each one, what it changed is put back.
//
// Put back are the files outside of what the machine lends, mounts, processes, working directory,
// environment, file mode mask, limits and signal dispositions, and the fakes that are linked in.
// Must not be left: open descriptors, and threads.
#pragma once

#include <string>

// Remembers what is there. Called once, before the first case.
void fresh_case_keep();

// For a case that shows how a stream stays open.
void fresh_case_may_leave_streams();

// Puts everything back. Returns what the case must not have left, in words; "" when there is
// nothing.
std::string fresh_case_put_back();
