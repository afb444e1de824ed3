// Mounting, unmounting and taking a whole disk out: the calls mount, unmount and eject.
#pragma once

#include "ctl/call.h"

[[nodiscard]] int call_mount(const CallArgs& args);
[[nodiscard]] int call_unmount(const CallArgs& args);
[[nodiscard]] int call_eject(const CallArgs& args);
