// Calls of the C library that fail where a test wants it. The calls of the product and of what is
// linked with it come here first; what the C library calls itself does not. What goes through
// lib/sys.h fails through the fake world. Functions go by the names in the sources: "open", not
// "open64".
#pragma once

#include <stddef.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

// Makes the nth call of a function from now on (1 = the next) fail with an errno, once. A close or
// fclose is done before it fails.
void call_fail(const std::string& function, int nth, int error);

// Does something just before the nth call of a function from now on, once: what another process
// does between two calls. Its own calls are overlooked.
void call_before(const std::string& function, int nth, std::function<void()> act);

// Whether the planned failure, or act, has struck. Takes the plan back.
bool call_failed();

// From now on a read gives so many bytes at most, though there are more; 0: as many as are asked
// for.
void reads_cut(size_t most);

// While watched, calls are counted, and a planned failure can strike; call_fail() begins it.
void calls_watch(bool on);

// While on, this thread's calls are overlooked: they are the test's own.
void calls_overlook(bool on);

// What was counted, and how many streams were opened and not closed, since calls_reset().
std::map<std::string, int> calls_counted();
size_t streams_kept();

// What some work opens by open(2), openat(2) and socket(2) that every program started meanwhile
// would have as well: "open /path", "socket"; nothing where all of it is close-on-exec. It resets.
std::vector<std::string> inheritable_after(const std::function<void()>& work);

// No plan, no watch, nothing counted, no reads cut.
void calls_reset();
