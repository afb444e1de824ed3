#include "lib/vytime.h"

#include "lib/sys.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static constexpr int32_t nsec_per_sec = 1000000000;

int vytime_get(vytime* now, clockid_t clock)
{
    timespec reading;
    const int result = sys_clock_gettime(clock, &reading);
    if (result < 0)
        return result;
    *now = vytime_make(static_cast<uint64_t>(reading.tv_sec) * 1000000 +
                       static_cast<uint64_t>(reading.tv_nsec / 1000));
    return 0;
}

int vytime_cmp(vytime a, vytime b)
{
    const auto left = static_cast<int64_t>(vytime_count(a));
    const auto right = static_cast<int64_t>(vytime_count(b));
    if (left == right)
        return 0;
    return left > right ? 1 : -1;
}

int vytime_pending(vytime start, vytime duration)
{
    vytime now;
    if (vytime_get(&now, CLOCK_REALTIME) != 0)
        return -1;
    const vytime end = vytime_make(vytime_count(start) + vytime_count(duration));
    return vytime_cmp(end, now) > 0 ? 1 : 0;
}

static int sleep_whole(timespec interval)
{
    for (;;) {
        timespec rest = {};
        const int result = sys_nanosleep(&interval, &rest);
        if (result == 0)
            return 0;
        if (result != -EINTR)
            return -1;
        interval = rest;
    }
}

int vytime_usleep(uint32_t microseconds)
{
    return sleep_whole({.tv_sec = static_cast<time_t>(microseconds / 1000000),
                        .tv_nsec = static_cast<long>(microseconds % 1000000) * 1000});
}

int vytime_msleep(uint32_t milliseconds)
{
    return sleep_whole({.tv_sec = static_cast<time_t>(milliseconds / 1000),
                        .tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000});
}

int vytime_sleep(uint32_t seconds)
{
    constexpr uint32_t most = INT32_MAX; // what a time_t of 32 bits holds
    for (; seconds > most; seconds -= most) {
        if (sleep_whole({.tv_sec = static_cast<time_t>(most), .tv_nsec = 0}) != 0)
            return -1;
    }
    return sleep_whole({.tv_sec = static_cast<time_t>(seconds), .tv_nsec = 0});
}

int vytime_get_timezone()
{
    time_t now = 0;
    tm universal;
    tm local;
    if (sys_time(&now) != 0 || gmtime_r(&now, &universal) == nullptr ||
        localtime_r(&now, &local) == nullptr)
        return 0;
    const int hours = local.tm_hour - universal.tm_hour;
    const int minutes = local.tm_min - universal.tm_min;
    if (abs(hours) < 14)
        return minutes + 60 * hours;
    // Kept: near midnight the sign is turned, no day is added or taken away.
    return -minutes - 60 * hours;
}

// Reduces once, and only above a full second.
static void carry(int32_t* sec, int32_t* nsec)
{
    if (*nsec <= nsec_per_sec)
        return;
    *nsec -= nsec_per_sec;
    *sec += 1;
}

// Adds now - start to the current run, its seconds `times` times, and stops the watch.
static void watch_gather(vytime_watch* watch, int32_t now_sec, int32_t now_nsec, int32_t times)
{
    if (watch->start_sec == 0 && watch->start_nsec == 0)
        return;
    int32_t sec = now_sec - watch->start_sec;
    int32_t nsec = now_nsec - watch->start_nsec;
    if (nsec <= 0) {
        nsec += nsec_per_sec;
        sec -= 2; // kept: such a stretch counts one second short
    }
    watch->run_sec += sec * times;
    watch->run_nsec += nsec;
    carry(&watch->run_sec, &watch->run_nsec);
    watch->start_sec = 0;
    watch->start_nsec = 0;
}

static void watch_stop(vytime_watch* watch, int32_t now_sec, int32_t now_nsec)
{
    watch_gather(watch, now_sec, now_nsec, 2); // kept: the last stretch's seconds count twice
    watch->total_sec += watch->run_sec;
    watch->total_nsec += watch->run_nsec;
    carry(&watch->total_sec, &watch->total_nsec);
    watch->runs++;
    watch->run_sec = 0;
    watch->run_nsec = 0;
    watch->start_sec = 0;
    watch->start_nsec = 0;
}

int vytime_stopwatch(vytime_watch* watch, uint32_t operation)
{
    timespec now;
    const int result = sys_clock_gettime(CLOCK_MONOTONIC, &now);
    if (result < 0)
        return result;
    const auto sec = static_cast<int32_t>(now.tv_sec);
    const auto nsec = static_cast<int32_t>(now.tv_nsec);
    switch (operation) {
    case VYTIME_WATCH_RESET:
        *watch = {};
        break;
    case VYTIME_WATCH_START:
        watch->run_sec = 0;
        watch->run_nsec = 0;
        [[fallthrough]];
    case VYTIME_WATCH_RESUME:
        watch->start_sec = sec;
        watch->start_nsec = nsec;
        break;
    case VYTIME_WATCH_PAUSE:
        watch_gather(watch, sec, nsec, 1);
        break;
    case VYTIME_WATCH_STOP:
        watch_stop(watch, sec, nsec);
        break;
    default:
        break;
    }
    return 0;
}

namespace {

// The time of day to write, already split: hours may be 24 and more.
struct DayTime {
    uint32_t hours;
    uint32_t minutes;
    uint32_t seconds;
    uint32_t fraction_usec;
    uint32_t fraction_msec;
};

// Text under construction: pieces are appended until one does not fit.
struct DayText {
    char* buffer;
    int32_t size;
    int32_t length;
    bool failed;
};

} // namespace

static void append(DayText* text, const char* prefix, int digits, uint32_t value)
{
    if (text->failed)
        return;
    const auto space = static_cast<size_t>(text->size - text->length);
    const int written =
        snprintf(text->buffer + text->length, space, "%s%0*u", prefix, digits, value);
    text->failed = written < 0 || static_cast<size_t>(written) >= space;
    if (!text->failed)
        text->length += written;
}

static void append_fields(DayText* text, const DayTime& day, uint32_t flags)
{
    if (flags & VYTIME_FMT_HOUR) {
        append(text, "", 2, day.hours);
        if (!(flags & VYTIME_FMT_MIN))
            return;
    }
    if (flags & VYTIME_FMT_MIN) {
        append(text, flags & VYTIME_FMT_HOUR ? ":" : "", 2, day.minutes);
        if (!(flags & VYTIME_FMT_SEC))
            return;
    }
    if (flags & VYTIME_FMT_SEC)
        append(text, flags & (VYTIME_FMT_HOUR | VYTIME_FMT_MIN) ? "." : "", 2, day.seconds);
    const char* point = flags & VYTIME_FMT_SEC ? "." : "";
    if (flags & VYTIME_FMT_USEC)
        append(text, point, 6, day.fraction_usec);
    else if (flags & VYTIME_FMT_MSEC)
        append(text, point, 3, day.fraction_msec);
}

static int write_day_time(char* buffer, int32_t size, const DayTime& day, uint32_t flags)
{
    if (size <= 0)
        return -1;
    buffer[0] = '\0';
    DayText text = {.buffer = buffer, .size = size, .length = 0, .failed = false};
    append_fields(&text, day, flags);
    if (!text.failed)
        return text.length;
    buffer[0] = '\0';
    return -1;
}

// The time zone's offset where the flags ask for it, in units of which `per_minute` make a minute.
// What it is added to is not reduced to one day again, and wraps at 32 bits: kept.
static uint32_t local_offset(uint32_t per_minute, uint32_t flags)
{
    return flags & VYTIME_FMT_LOCAL ? static_cast<uint32_t>(vytime_get_timezone()) * per_minute : 0;
}

static DayTime split_day(uint32_t second)
{
    return {.hours = second / 3600,
            .minutes = second % 3600 / 60,
            .seconds = second % 60,
            .fraction_usec = 0,
            .fraction_msec = 0};
}

int vytime_format_now(char* buffer, int32_t size, uint32_t flags)
{
    timeval now;
    const int result = sys_gettimeofday(&now);
    if (result < 0)
        return result;
    DayTime day = split_day(static_cast<uint32_t>(now.tv_sec % 86400) + local_offset(60, flags));
    day.fraction_usec = static_cast<uint32_t>(now.tv_usec);
    day.fraction_msec = day.fraction_usec % 1000; // kept: the last digits of the microseconds
    return write_day_time(buffer, size, day, flags);
}

// Time of day in units of 32 microseconds, in which a whole day fits 32 bits.
static constexpr uint32_t units_per_day = 2700000000U;
static constexpr uint32_t units_per_minute = 1875000U;
static constexpr uint32_t units_per_second = 31250U;

static uint32_t units_of_day(uint64_t microseconds)
{
    const uint64_t units = microseconds >> 5;
    if (units <= UINT32_MAX)
        return static_cast<uint32_t>(units) % units_per_day;
    uint32_t rest = 0;
    (void)vydiv64_32(units, units_per_day, &rest);
    return rest;
}

int vytime_format(const vytime* value, char* buffer, int32_t size, uint32_t flags)
{
    if (flags == 0)
        flags =
            VYTIME_FMT_HOUR | VYTIME_FMT_MIN | VYTIME_FMT_SEC | VYTIME_FMT_USEC | VYTIME_FMT_LOCAL;
    const uint32_t units =
        units_of_day(vytime_count(*value)) + local_offset(units_per_minute, flags);
    DayTime day = split_day(units / units_per_second);
    // Kept: counted from the minute, up to eight digits.
    day.fraction_usec = units % units_per_minute * 32 + (value->low & 31);
    day.fraction_msec = day.fraction_usec % 1000000 / 1000;
    return write_day_time(buffer, size, day, flags);
}

uint64_t vydiv64_32(uint64_t dividend, uint32_t divisor, uint32_t* remainder)
{
    if (divisor == 0)
        __builtin_trap(); // not every machine traps a division by zero by itself
    const auto high = static_cast<uint32_t>(dividend >> 32);
    uint64_t quotient = static_cast<uint64_t>(high / divisor) << 32;
    uint64_t rest = static_cast<uint64_t>(high % divisor) << 32 | static_cast<uint32_t>(dividend);

    // rest < divisor * 2^32 here, so neither the shifted divisor nor the mask leaves 64 bits.
    uint64_t shifted = divisor;
    uint64_t mask = 1;
    while (shifted < rest) {
        shifted <<= 1;
        mask <<= 1;
    }
    for (; mask != 0; mask >>= 1, shifted >>= 1) {
        if (rest < shifted)
            continue;
        rest -= shifted;
        quotient += mask;
    }
    if (remainder != nullptr)
        *remainder = static_cast<uint32_t>(rest);
    return quotient;
}
