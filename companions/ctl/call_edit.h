// The call edit: settings in an editor, as visudo(8) and crontab(1) have it.
#pragma once

#include "ctl/call.h"

[[nodiscard]] int call_edit(const CallArgs& args);
