// Mounts of other mount namespaces than this process's own: what a container or a sandboxed service
// sees. For root; others see none.
#pragma once

#include "common/mountinfo.h"

#include <sys/types.h>

// A namespace, as one of its processes sees it. Borrowed.
struct NamespaceView {
    pid_t pid;
    const char* process; // the path of its directory in /proc, which no other process comes by
    const Mountinfo* mounts;
};

using NamespaceTake = void(void* context, const NamespaceView& seen);

// Calls `take` for each of them that has a process: once, however many processes are in it, and
// once more for each other root directory that they have there, which shows other mounts. One that
// ends meanwhile, or that not even root is shown, is passed over. Returns 0, also for a kernel
// without namespaces; a negated errno, and some may be missing.
[[nodiscard]] int namespaces_look(NamespaceTake* take, void* context);
