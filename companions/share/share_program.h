// The program around a file server's table: its options, its pid file, its life.
#pragma once

#include "share/share_server.h"

// Returns the exit status.
[[nodiscard]] int share_program(int argc, char* argv[], const ShareServer* server);
