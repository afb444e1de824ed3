// Settings: the calls set, unset and forget.
#pragma once

#include "ctl/call.h"

[[nodiscard]] int call_set(const CallArgs& args);
[[nodiscard]] int call_unset(const CallArgs& args);
[[nodiscard]] int call_forget(const CallArgs& args);
