// The call check: what is wrong with the installation, and what to type.
#pragma once

#include "ctl/call.h"

[[nodiscard]] int call_check(const CallArgs& args);
