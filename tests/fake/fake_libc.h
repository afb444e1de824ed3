// Makes chosen calls of the C library fail, for sockets, descriptor flags and broken-down times,
// which do not go through lib/sys.h. All other calls go on to the library. For executables linked
// with "-Wl,--wrap" for socket, fcntl, fcntl64, setsockopt, listen, gmtime_r and localtime_r.
#pragma once

enum FakeCall {
    FAKE_SOCKET,
    FAKE_FCNTL,
    FAKE_SETSOCKOPT,
    FAKE_LISTEN,
    FAKE_GMTIME,
    FAKE_LOCALTIME,
    FAKE_CALLS, // how many there are
};

// Makes the nth call (1 = the next) from now on fail with an errno, once. Forgets the plan before.
void fake_libc_fail(FakeCall call, int nth, int error);

// Forgets the plan. Returns whether it struck.
bool fake_libc_end();
