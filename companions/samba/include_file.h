// The file that smb.conf includes.
#pragma once

// Reads the file, up to a NUL byte if it holds one. Returns 0 and an owned text; a negated errno,
// `text` untouched.
[[nodiscard]] int include_file_read(const char* path, char** text);

// Replaces the file whole, with mode 0644; its directory is made where it is missing (not those
// above). Returns 0; a negated errno, the old file as it was.
[[nodiscard]] int include_file_write(const char* path, const char* text);
