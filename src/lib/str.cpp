#include "lib/str.h"

#include "lib/sys.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

char* str_cpy(char* destination, const char* source)
{
    const size_t length = strlen(source);
    memcpy(destination, source, length + 1);
    return destination + length;
}

char* str_ncpy(char* destination, const char* source, int32_t size)
{
    if (size <= 0)
        return destination;
    const size_t length = strnlen(source, static_cast<size_t>(size) - 1);
    memcpy(destination, source, length);
    destination[length] = '\0';
    return destination + length;
}

// Length of the whole UTF-8 sequence that `text` begins with; 0 at the NUL or at a malformed one.
static uint32_t utf8_sequence(const char* text)
{
    const auto lead = static_cast<uint8_t>(*text);
    uint32_t length = 0;
    if (lead == 0)
        return 0;
    if (lead < 0x80)
        length = 1;
    else if ((lead & 0xE0) == 0xC0)
        length = 2;
    else if ((lead & 0xF0) == 0xE0)
        length = 3;
    else if ((lead & 0xF8) == 0xF0)
        length = 4;
    for (uint32_t i = 1; i < length; i++) {
        if ((static_cast<uint8_t>(text[i]) & 0xC0) != 0x80)
            return 0;
    }
    return length;
}

char* str_ncpy_u8(char* destination, const char* source, uint32_t size)
{
    uint32_t used = 0;
    for (;;) {
        const uint32_t sequence = utf8_sequence(source + used);
        // One byte stricter than the buffer needs: kept, share names rely on the length it gives.
        if (sequence == 0 || static_cast<uint64_t>(used) + sequence + 2 > size)
            break;
        memcpy(destination + used, source + used, sequence);
        used += sequence;
    }
    if (used < size)
        destination[used] = '\0';
    return destination + used;
}

char ctox(signed char value)
{
    return static_cast<char>(value < 10 ? value + '0' : value + '7');
}

char* btox(uint8_t byte, char* destination)
{
    destination[0] = ctox(static_cast<signed char>(byte >> 4));
    destination[1] = ctox(static_cast<signed char>(byte & 0x0F));
    return destination + 2;
}

int32_t str_to_long(const char* text, int32_t* value, int base)
{
    char* end = nullptr;
    errno = 0;
    const long long number = strtoll(text, &end, base);
    if (errno == EINVAL)
        return -EINVAL;
    if (errno != 0 || number > INT32_MAX || number < INT32_MIN) {
        *value = number < 0 ? INT32_MIN : INT32_MAX;
        return *value;
    }
    if (end == text || *end != '\0')
        return -EINVAL;
    *value = static_cast<int32_t>(number);
    return 0;
}

// Whether the first character of the number is a minus sign.
static bool is_negative(const char* text)
{
    while (isspace(static_cast<unsigned char>(*text)))
        text++;
    return *text == '-';
}

int32_t str_to_ulong(const char* text, uint32_t* value, int base)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = strtoull(text, &end, base);
    if (errno == EINVAL)
        return -EINVAL;
    const unsigned long long magnitude = is_negative(text) ? 0 - number : number;
    if (errno != 0 || magnitude > UINT32_MAX) {
        *value = UINT32_MAX;
        return -1;
    }
    if (number == 0 && end == text)
        return -EINVAL;
    *value = static_cast<uint32_t>(number);
    return 0;
}

ssize_t str_read(int fd, void* buffer, size_t length, int timeout_ms)
{
    if (timeout_ms != 0) {
        // The rest of the milliseconds goes in as microseconds: kept, callers are tuned to it.
        timeval limit = {.tv_sec = timeout_ms / 1000, .tv_usec = timeout_ms % 1000};
        const int ready = sys_select_one(fd, SYS_READABLE, timeout_ms < 0 ? nullptr : &limit);
        if (ready <= 0)
            return ready;
    }
    const ssize_t count = read(fd, buffer, length);
    return count < 0 ? -errno : count;
}
