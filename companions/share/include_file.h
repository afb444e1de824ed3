// A file that a server includes, or reads as its configuration.
#pragma once

// Reads the file, up to a NUL byte if it holds one. Returns 0 and an owned text; a negated errno,
// `text` untouched.
[[nodiscard]] int include_file_read(const char* path, char** text);

// Replaces the file, with mode 0644. A missing directory is made, but not its parents. Returns 0; a
// negated errno, the old file untouched.
[[nodiscard]] int include_file_write(const char* path, const char* text);
