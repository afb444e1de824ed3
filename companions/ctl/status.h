// Exit statuses of all calls.
#pragma once

enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,     // refused, or it did not work
    EXIT_WRONG_CALL = 2, // no such call, option or key; a target that fits several
    EXIT_NO_SERVICE = 3,
    EXIT_BUSY = 4,
    EXIT_NO_DISK = 5, // nothing fits the target
};
