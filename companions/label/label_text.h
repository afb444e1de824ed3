// Makes one line for the share file from what blkid prints as a volume's label.
#pragma once

#include <stddef.h>

// Bytes with the NUL: of what blkid prints, and of a label, where each byte may be three in UTF-8.
constexpr size_t label_printed_size = 513;
constexpr size_t label_size = 3 * (label_printed_size - 1) + 1;

// Takes the last line off what blkid printed, which is the filesystem's type. Returns whether it is
// this one.
bool label_take_type(char* printed, const char* type);

// Converts what blkid printed, dropping the line feed at its end. `code_page`: where it is not
// UTF-8 it is read as code page 850, as on FAT. Control characters (line feeds, too), square
// brackets and bytes that are no character become "_".
void label_from_printed(const char* printed, bool code_page, char (&label)[label_size]);
