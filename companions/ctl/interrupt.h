// Interruptions (Ctrl-C, the end of the session or of the machine) that wait until what has begun
// is whole, or has been told of.
#pragma once

// From here on SIGINT, SIGTERM and SIGHUP do nothing but wait, those that are ignored excepted.
void interrupt_hold();

// Lets them through again, in a child before its own program. Returns true.
bool interrupt_release();

// Whether one of them waits. Where they are not held, none does.
[[nodiscard]] bool interrupt_waits();

// Takes back a SIGINT that waits: it was somebody else's.
void interrupt_forget_int();

// Waits until something can be read. Returns false when an interruption waits before that.
[[nodiscard]] bool interrupt_wait_input(int fd);
