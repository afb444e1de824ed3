// The call watch: a line for each thing that happens.
#pragma once

#include "ctl/call.h"

[[nodiscard]] int call_watch(const CallArgs& args);
