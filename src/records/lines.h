// Lines that the device file and the share file have in common. Return 0, -1 when the write fails.
#pragma once

#include <stdint.h>
#include <stdio.h>

// Writes a whole line, its line feed included; nothing for null.
[[nodiscard]] int line_write(FILE* stream, const char* line);

// Writes "<key><text>" and a line feed; nothing for a null text.
[[nodiscard]] int line_write_text(FILE* stream, const char* key, const char* text);

// The line that names a filesystem; null for an unknown one and for ext4, which readers of the two
// files have no word for (kept).
[[nodiscard]] const char* line_of_filesystem(uint8_t filesystem);
