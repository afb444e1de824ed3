// The configuration that ksmbd.mountd(8) reads: the global parameters of the administrator's file,
// and behind them the list of shares. (ksmbd.conf(5) cannot include another file.)
#pragma once

#include "share/bridge_config.h"

// The list's first lines, by which it is found.
extern const char ksmbd_file_head[];

// Makes the global parameters of the administrator's text: the lines of its sections [global].
// Those that would give users more than a share says are left out: "write list", "admin users",
// "force user", "force group" and "root directory". Returns 0 and an owned text; -ENOMEM, `made`
// untouched.
[[nodiscard]] int ksmbd_global_make(const char* text, char** made);

// Reads the list that stands in the file at `path`. Where other global parameters stand in it than
// those of the file at `base`, the list ends in a line feed more than was written, so that it is
// written anew. Returns 0 and an owned text; a negated errno, `text` untouched.
[[nodiscard]] int ksmbd_file_read(const char* path, const char* base, char** text);

// Replaces the file. Returns 0; a negated errno, the old file untouched.
[[nodiscard]] int ksmbd_file_write(const char* path, const char* base, const char* text);
