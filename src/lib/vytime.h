// Clock readings as one 64-bit count of microseconds, sleeps that signals do not shorten, a
// stopwatch, the time zone's offset, and time-of-day text. Everything is reentrant.
#pragma once

#include <stdint.h>
#include <time.h>

// Microseconds since the epoch of the clock it was read from, low word first.
struct vytime {
    uint32_t low;
    uint32_t high;
};

constexpr uint64_t vytime_count(vytime value)
{
    return static_cast<uint64_t>(value.high) << 32 | value.low;
}

constexpr vytime vytime_make(uint64_t microseconds)
{
    return {.low = static_cast<uint32_t>(microseconds),
            .high = static_cast<uint32_t>(microseconds >> 32)};
}

// Elapsed time gathered over several runs. A start of zero in both fields: not running.
struct vytime_watch {
    int32_t total_sec;
    int32_t total_nsec;
    int32_t runs; // completed ones
    int32_t run_sec;
    int32_t run_nsec;
    int32_t start_sec;
    int32_t start_nsec;
};

enum : uint32_t {
    VYTIME_WATCH_RESET = 0,
    VYTIME_WATCH_START = 1,
    VYTIME_WATCH_PAUSE = 2,
    VYTIME_WATCH_RESUME = 3,
    VYTIME_WATCH_STOP = 4,
};

enum : uint32_t {
    VYTIME_FMT_USEC = 1, // six-digit fraction; wins over VYTIME_FMT_MSEC
    VYTIME_FMT_MSEC = 2, // three-digit fraction
    VYTIME_FMT_SEC = 4,
    VYTIME_FMT_MIN = 8,
    VYTIME_FMT_HOUR = 16,
    VYTIME_FMT_LOCAL = 256, // add the time zone's offset
};

// Reads a clock (a clock_gettime(2) id). Returns 0; a negated errno with `now` untouched.
[[nodiscard]] int vytime_get(vytime* now, clockid_t clock);

// Returns 1 when a > b, -1 when a < b, 0 when equal, both taken as signed 64-bit numbers.
[[nodiscard]] int vytime_cmp(vytime a, vytime b);

// Returns 1 while start + duration lies after the wall-clock time, 0 from then on, -1 when the
// clock cannot be read.
[[nodiscard]] int vytime_pending(vytime start, vytime duration);

// Sleep for the whole time, through any number of signals. Return 0; -1 on any other failure.
int vytime_usleep(uint32_t microseconds);
int vytime_msleep(uint32_t milliseconds);
int vytime_sleep(uint32_t seconds);

// Returns the local offset from universal time in minutes, positive east; 0 when it cannot be had.
// When the two lie on different days the sign of the result is turned instead of a day added.
[[nodiscard]] int vytime_get_timezone();

// Drives a stopwatch on the monotonic clock, which is read first whatever the operation. Returns 0
// (for an unknown operation too); a negated errno when the clock cannot be read.
[[nodiscard]] int vytime_stopwatch(vytime_watch* watch, uint32_t operation);

// Write the time of day as the flags ask, for now and for a given value: hours ":" minutes "."
// seconds "." fraction. Fields below hours need minutes, fields below minutes need seconds; all
// flags 0 mean every field and local time for vytime_format, and nothing for vytime_format_now.
// Return the text's length; -1, with the buffer empty, when it does not fit; a negated errno.
[[nodiscard]] int vytime_format_now(char* buffer, int32_t size, uint32_t flags);
[[nodiscard]] int vytime_format(const vytime* value, char* buffer, int32_t size, uint32_t flags);

// Divides by shifting and subtracting, without a 64-bit division in the C library. Returns the
// quotient and, where `remainder` is not null, the remainder. A divisor of 0 stops the process.
uint64_t vydiv64_32(uint64_t dividend, uint32_t divisor, uint32_t* remainder);
