// The string and number functions against simple ones.
//
// Input: a buffer size, a number base, a dividend and a divisor, each on a line; the rest is the
// text.
#include "lib/str.h"
#include "lib/vytime.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>

// A buffer on the heap, no byte longer than it is said to be, filled with something to notice.
static std::unique_ptr<char[]> make_buffer(size_t size)
{
    std::unique_ptr<char[]> buffer(new char[size]);
    memset(buffer.get(), '#', size);
    return buffer;
}

// ---- copies ----

// What stands behind the text and its NUL is as it was.
static void check_padding(const char* buffer, size_t size, size_t length)
{
    for (size_t at = length + 1; at < size; at++)
        check(buffer[at] == '#', "nothing is written behind the copy");
}

static void check_copies(const std::string& text, int32_t size)
{
    const size_t bytes = size > 0 ? static_cast<size_t>(size) : 1;
    const auto buffer = make_buffer(bytes);
    const char* end = str_ncpy(buffer.get(), text.c_str(), size);
    if (size <= 0) {
        check(end == buffer.get() && buffer[0] == '#', "nothing is copied without room");
    } else {
        const std::string wanted = text.substr(0, bytes - 1);
        check_same(buffer.get(), wanted, "str_ncpy");
        check_equal(end - buffer.get(), static_cast<int64_t>(wanted.size()), "str_ncpy's end");
        check_padding(buffer.get(), bytes, wanted.size());
    }
    const auto whole = make_buffer(text.size() + 1);
    check_equal(str_cpy(whole.get(), text.c_str()) - whole.get(), static_cast<int64_t>(text.size()),
                "str_cpy's end");
    check_same(whole.get(), text, "str_cpy");
}

static void check_copy_u8(const std::string& text, uint32_t size)
{
    const auto buffer = make_buffer(size > 0 ? size : 1);
    const char* end = str_ncpy_u8(buffer.get(), text.c_str(), size);
    if (size == 0) {
        check(end == buffer.get() && buffer[0] == '#', "nothing is copied without room");
        return;
    }
    const std::string wanted = oracle_copy_u8(text, size);
    check_same(buffer.get(), wanted, "str_ncpy_u8");
    check_equal(end - buffer.get(), static_cast<int64_t>(wanted.size()), "str_ncpy_u8's end");
    check_padding(buffer.get(), size, wanted.size());
}

// ---- numbers ----

static void check_numbers(const std::string& text, int base)
{
    const NumberAnswer long_answer = oracle_to_long(text, base);
    int32_t number = 0x5A5A5A5A;
    check_equal(str_to_long(text.c_str(), &number, base), long_answer.result, "str_to_long");
    check_equal(number, long_answer.value.value_or(0x5A5A5A5A), "str_to_long's value");

    const NumberAnswer ulong_answer = oracle_to_ulong(text, base);
    uint32_t positive = 0x5A5A5A5A;
    check_equal(str_to_ulong(text.c_str(), &positive, base), ulong_answer.result, "str_to_ulong");
    check_equal(positive, ulong_answer.value.value_or(0x5A5A5A5A), "str_to_ulong's value");
}

static void check_digits(const std::string& text)
{
    for (const char c : text) {
        char digits[3] = "##";
        check(btox(static_cast<uint8_t>(c), digits) == digits + 2, "btox's end");
        char wanted[3];
        snprintf(wanted, sizeof wanted, "%02X", static_cast<uint8_t>(c));
        check_same(digits, wanted, "btox");
    }
}

static void check_division(uint64_t dividend, uint32_t divisor)
{
    uint32_t remainder = 0;
    const uint64_t quotient = vydiv64_32(dividend, divisor, &remainder);
    check(quotient == dividend / divisor, "vydiv64_32's quotient");
    check(remainder == dividend % divisor, "vydiv64_32's remainder");
    check(vydiv64_32(dividend, divisor, nullptr) == quotient, "vydiv64_32 without a remainder");
}

// ---- the rest ----

// A text either fits its buffer whole or leaves it empty.
static void check_time(uint64_t microseconds, int32_t size, uint32_t flags)
{
    const vytime value = vytime_make(microseconds);
    const auto buffer = make_buffer(size > 0 ? static_cast<size_t>(size) : 1);
    const int length = vytime_format(&value, buffer.get(), size, flags);
    if (size <= 0) {
        check(length == -1 && buffer[0] == '#', "no time is written without room");
        return;
    }
    const size_t written = strnlen(buffer.get(), static_cast<size_t>(size));
    check(length < size, "a time fits");
    check_equal(static_cast<int64_t>(written), length < 0 ? 0 : length, "a time's length");
}

static void check_read(const std::string& text, size_t size)
{
    int ends[2];
    check(text.size() <= 4096 && pipe(ends) == 0, "a pipe that takes the text");
    check(write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()), "written");
    close(ends[1]);
    const auto buffer = make_buffer(size + 1);
    const ssize_t count = str_read(ends[0], buffer.get(), size, 0);
    close(ends[0]);
    check_same(std::string(buffer.get(), count < 0 ? 0 : static_cast<size_t>(count)),
               text.substr(0, size), "str_read");
}

void fuzz(Input& input)
{
    const auto buffer_size = static_cast<int32_t>(input.number(-2, 600));
    const auto base = static_cast<int>(input.number(-1, 40));
    const auto dividend = static_cast<uint64_t>(input.number(INT64_MIN, INT64_MAX));
    const auto divisor = static_cast<uint32_t>(input.number(1, UINT32_MAX));
    const std::string bytes = input.rest();
    const std::string text = bytes.c_str();
    check_copies(text, buffer_size);
    check_copy_u8(text, buffer_size > 0 ? static_cast<uint32_t>(buffer_size) : 0);
    check_numbers(text, base);
    check_digits(bytes);
    check_division(dividend, divisor);
    check_time(dividend, buffer_size, divisor);
    check_read(bytes.substr(0, 4096), buffer_size > 0 ? static_cast<size_t>(buffer_size) : 0);
}
