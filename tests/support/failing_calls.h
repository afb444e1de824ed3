// The C library of a sweep: every allocation and every call that the service makes can be counted
// and told to fail. Stands between the service's objects and libc (linker option --wrap), so the
// tests' own containers and streams are not concerned. What goes through lib/sys.h fails through
// the fake world.
#pragma once

#include <map>
#include <string>

// Starts afresh: counts from 0, nothing fails.
void libc_reset();

// Counts only while armed; disarmed, calls pass through unseen.
void libc_arm();
void libc_disarm();

// What was counted since libc_reset.
int libc_allocations();
const std::map<std::string, int>& libc_calls();

// Makes the nth allocation (1 = first) fail, and with `onwards` each one after it.
void libc_fail_allocation(int nth, bool onwards);

// Makes the nth call of a function fail with an errno. A close or fclose is done before it fails.
void libc_fail_call(const std::string& function, int nth, int error);

// Whether a planned failure has struck.
bool libc_struck();

// Memory and streams that the service got since libc_reset and has not given back, in words; "" for
// none, or no more than the allocations allowed for.
std::string libc_leaks(size_t allowed = 0);

// Frees that memory: for what outlives a run on purpose.
void libc_free_kept();
