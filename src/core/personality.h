// One executable, four names: which of them it was started under.
#pragma once

// Returns 1 when `name` is the last component of `path`, else 0. Only the first occurrence of the
// name in the path is looked at.
[[nodiscard]] int progname(const char* path, const char* name);

// Runs the personality that argv[0] names, the daemon for an unknown name. Returns its exit status.
[[nodiscard]] int personality_run(int argc, char* argv[]);
