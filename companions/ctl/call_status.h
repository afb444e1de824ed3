// What is there: the calls status, show and who.
#pragma once

#include "ctl/call.h"
#include "ctl/view.h"

// As view_begin. Tells what is wrong. Returns an exit status.
[[nodiscard]] int look(const Setup& setup, View* view);

[[nodiscard]] int call_status(const CallArgs& args);
[[nodiscard]] int call_show(const CallArgs& args);
[[nodiscard]] int call_who(const CallArgs& args);
