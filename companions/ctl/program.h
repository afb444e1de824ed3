// The program: its table of calls and its options.
#pragma once

// Returns the exit status.
[[nodiscard]] int ctl_main(int argc, char* argv[]);
