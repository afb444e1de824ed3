// The label a volume really has, as one line that may stand in the share file.
#pragma once

#include <stddef.h>

// Bytes of a label with its zero byte: whatever blkid prints, each byte of it three in UTF-8.
constexpr size_t label_printed_size = 513;
constexpr size_t label_size = 3 * (label_printed_size - 1) + 1;

// Makes the label of what blkid printed, which ends with a line feed. `code_page`: bytes that are
// no UTF-8 are characters of code page 850, as FAT's are. Control characters (line feeds are some),
// square brackets and what is no character become "_".
void label_from_printed(const char* printed, bool code_page, char (&label)[label_size]);
