// Lines that the device file and the share file have in common. Return 0, -1 when the write fails.
#pragma once

#include <stdio.h>

// Writes a whole line, its line feed included; nothing for null.
[[nodiscard]] int line_write(FILE* stream, const char* line);

// Writes "<key><text>" and a line feed; nothing for a null text.
[[nodiscard]] int line_write_text(FILE* stream, const char* key, const char* text);
