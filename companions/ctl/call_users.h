// users: whom shares can be for.
#pragma once

#include "ctl/call.h"

int call_users(const CallArgs& args);
