// Start-up and end of the daemon process.
#pragma once

// Parses the command line (man 8 vyhotplugd), becomes a daemon by starting itself again, takes the
// single-instance lock and runs the daemon. Ends the process with the run's status, or with the
// negated errno or -1 of what failed; returns -1 only when the program's own path cannot be found.
int vyhotplug_main(int argc, char* argv[]);
