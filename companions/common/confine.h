// Takes away from a process what a program that only reads a device has no use for.
#pragma once

// For a child that is about to run such a program. Of root it keeps the right to read every file,
// which opening the device takes, under the user and group 65534 ("nobody"); where the kernel
// cannot hand on a single right (before 4.3) it stays root with that right alone. From then on
//   - no program that it runs can gain a right;
//   - it can start no process, send no signal, look into no other process and open no socket;
//   - it takes 30 s of the processor and 256 MB of memory at the most, writes no file that has a
//     byte, and leaves no core.
// Whoever is not root has no rights to lose, the rest holds too.
//
// Makes no call that is unsafe after fork(2). Returns whether all of this is in force; a kernel
// without seccomp lacks the second point, which counts as in force.
[[nodiscard]] bool confine_reader();
