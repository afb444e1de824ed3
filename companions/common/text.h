// Makes strings from devices and administrators fit for a message or a file.
#pragma once

#include <stddef.h>

// Puts "_" in place of every control character (C0, DEL and C1), every byte that is not part of
// a well-formed UTF-8 sequence (RFC 3629), and every character of `forbidden` (ASCII only; may be
// empty). Returns how many were replaced.
size_t text_clean(char* text, const char* forbidden);

// Shortens `text` to at most `size` bytes, before the character that would be cut. The text is
// well-formed UTF-8.
void text_shorten(char* text, size_t size);

// Drops blanks and tabs at both ends, in place.
void text_trim(char* text);

// Returns the length in bytes (1 to 4) of the well-formed UTF-8 sequence that `text` begins with; 0
// for anything else, the empty text included.
size_t text_sequence(const char* text);
