// Bounded copying of byte strings, hexadecimal digits, strict number parsing, and one read with a
// time limit. Nothing here allocates, logs or prints.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// Copies `source` with its NUL. Returns the NUL's place in `destination`.
char* str_cpy(char* destination, const char* source);

// Copies at most `size` - 1 bytes and always terminates; never pads. Returns the NUL's place in
// `destination`; `destination` itself, with nothing written, when `size` is 0 or negative.
char* str_ncpy(char* destination, const char* source, int32_t size);

// Copies at most `size` - 2 bytes (the buffer's last byte is never used) and always terminates when
// `size` is not 0. Copies whole UTF-8 sequences only: one that would be cut is left out, and a
// malformed one ends the copy. Returns the NUL's place in `destination`.
char* str_ncpy_u8(char* destination, const char* source, uint32_t size);

// Returns the upper-case hexadecimal digit of a value 0..15.
char ctox(signed char value);

// Writes two upper-case hexadecimal digits, high nibble first, without a NUL. Returns
// `destination` + 2.
char* btox(uint8_t byte, char* destination);

// Converts the whole of `text`; the answer is that of a machine whose long has 32 bits.
// Returns 0 with the value stored; -EINVAL, nothing stored, when the text is not one number and
// nothing else (a trailing blank included); out of range, the clamped value (INT32_MAX or
// INT32_MIN) both stored and returned.
[[nodiscard]] int32_t str_to_long(const char* text, int32_t* value, int base);

// As str_to_long for unsigned numbers, but what follows the number is ignored. A negative number is
// its two's complement. Out of range, UINT32_MAX is stored and -1 returned.
[[nodiscard]] int32_t str_to_ulong(const char* text, uint32_t* value, int base);

// Reads at most `length` bytes from `fd` once. `timeout_ms` 0 reads without waiting, negative waits
// without limit, positive waits that many milliseconds, of which the part below a second counts as
// microseconds. Returns the bytes read; 0 at end of file or when the time ran out; a negated errno.
[[nodiscard]] ssize_t str_read(int fd, void* buffer, size_t length, int timeout_ms);
