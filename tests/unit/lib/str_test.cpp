#include "lib/str.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

constexpr char untouched = '~';

// A destination in which every byte that was not written can be told. Its first byte stands before
// the buffer that is handed out.
struct Buffer {
    std::string bytes = std::string(64, untouched);

    char* data() { return bytes.data() + 1; }
    std::string text() { return data(); }
    // How many bytes were written, counted from the start of the buffer.
    size_t written()
    {
        const size_t last = bytes.find_last_not_of(untouched);
        return last == std::string::npos ? 0 : last;
    }
};

// ---- str_cpy ----

TEST(StrCpy, CopiesTheTextWithItsNulAndReturnsTheNul)
{
    Buffer buffer;
    EXPECT_EQ(str_cpy(buffer.data(), "mount"), buffer.data() + 5);
    EXPECT_EQ(buffer.text(), "mount");
    EXPECT_EQ(buffer.written(), 6U);
}

TEST(StrCpy, EmptyTextIsTheNulAlone)
{
    Buffer buffer;
    EXPECT_EQ(str_cpy(buffer.data(), ""), buffer.data());
    EXPECT_EQ(buffer.written(), 1U);
}

TEST(StrCpy, ReturnsWhereTheNextPieceGoes)
{
    Buffer buffer;
    str_cpy(str_cpy(str_cpy(buffer.data(), "/mnt"), "/"), "sda1");
    EXPECT_EQ(buffer.text(), "/mnt/sda1");
}

// ---- str_ncpy ----

struct NcpyRow {
    const char* source;
    int32_t size;
    const char* text; // null: nothing is written
};

void PrintTo(const NcpyRow& row, std::ostream* out)
{
    *out << testing::PrintToString(std::string(row.source)) << " size " << row.size;
}

class StrNcpy : public testing::TestWithParam<NcpyRow> {};

TEST_P(StrNcpy, CutsToSizeMinusOneAndTerminates)
{
    const NcpyRow& row = GetParam();
    Buffer buffer;
    char* end = str_ncpy(buffer.data(), row.source, row.size);
    if (row.text == nullptr) {
        EXPECT_EQ(end, buffer.data());
        EXPECT_EQ(buffer.written(), 0U);
        return;
    }
    EXPECT_EQ(buffer.text(), row.text);
    EXPECT_EQ(end, buffer.data() + strlen(row.text));
    EXPECT_EQ(buffer.written(), strlen(row.text) + 1) << "padded, or not terminated";
}

INSTANTIATE_TEST_SUITE_P(
    Rows, StrNcpy,
    testing::Values(NcpyRow{"abcdef", 1, ""}, NcpyRow{"abcdef", 0, nullptr},
                    NcpyRow{"abcdef", -1, nullptr}, NcpyRow{"abcdef", INT32_MIN, nullptr},
                    NcpyRow{"abcdef", 2, "a"}, NcpyRow{"abcdef", 6, "abcde"},
                    NcpyRow{"abcdef", 7, "abcdef"}, NcpyRow{"abcdef", 8, "abcdef"},
                    NcpyRow{"abcdef", 32, "abcdef"}, NcpyRow{"abcdef", INT32_MAX, "abcdef"},
                    NcpyRow{"", 1, ""}, NcpyRow{"", 8, ""},
                    // Bytes, not characters: a sequence may be cut.
                    NcpyRow{"a\xC3\xA4z", 3, "a\xC3"}));

TEST(StrNcpyType, SizeIsSigned32Bit)
{
    EXPECT_TRUE((std::is_same_v<decltype(&str_ncpy), char* (*)(char*, const char*, int32_t)>));
}

TEST(StrNcpyReading, LooksAtNoMoreOfTheSourceThanItCopies)
{
    // The source has no NUL; a sanitizer tells when a byte behind it is read.
    char* source = new char[3]{'a', 'b', 'c'};
    Buffer buffer;
    str_ncpy(buffer.data(), source, 4);
    EXPECT_EQ(buffer.text(), "abc");
    delete[] source;
}

// ---- str_ncpy_u8 ----

struct U8Row {
    const char* what;
    std::string source;
    uint32_t size;
    std::string text;
};

void PrintTo(const U8Row& row, std::ostream* out)
{
    *out << row.what;
}

class StrNcpyU8 : public testing::TestWithParam<U8Row> {};

TEST_P(StrNcpyU8, CopiesWholeSequencesWithinSizeMinusTwo)
{
    const U8Row& row = GetParam();
    Buffer buffer;
    char* end = str_ncpy_u8(buffer.data(), row.source.c_str(), row.size);
    EXPECT_EQ(buffer.text(), row.text);
    EXPECT_EQ(end, buffer.data() + row.text.size());
    EXPECT_EQ(buffer.written(), row.text.size() + 1) << "padded, or not terminated";
}

const std::string two = "\xC3\xA4";
const std::string three = "\xE2\x82\xAC";
const std::string four = "\xF0\x9F\x98\x80";

INSTANTIATE_TEST_SUITE_P(
    Limits, StrNcpyU8,
    testing::Values(
        U8Row{"six letters into four bytes", "abcdef", 4, "ab"},
        U8Row{"a text of exactly size - 2", "abcdef", 8, "abcdef"},
        U8Row{"a text of size - 1 loses its last", "abcdef", 7, "abcde"},
        U8Row{"room to spare", "abcdef", 40, "abcdef"}, U8Row{"size 1", "abc", 1, ""},
        U8Row{"size 2", "abc", 2, ""}, U8Row{"size 3", "abc", 3, "a"}, U8Row{"empty", "", 8, ""},
        U8Row{"a share name's size", std::string(40, 'n'), 34, std::string(32, 'n')},
        U8Row{"two bytes that fit", "a" + two, 5, "a" + two},
        U8Row{"two bytes that would end at the last usable byte", "a" + two, 4, "a"},
        U8Row{"two bytes alone", two, 4, two}, U8Row{"two bytes alone, cut", two, 3, ""},
        U8Row{"three bytes that fit", "a" + three, 6, "a" + three},
        U8Row{"three bytes that would be cut", "a" + three, 5, "a"},
        U8Row{"four bytes that fit", "a" + four, 7, "a" + four},
        U8Row{"four bytes that would be cut", "a" + four, 6, "a"},
        U8Row{"nothing behind a sequence that was left out", "a" + four + "z", 6, "a"},
        U8Row{"all lengths together", "a" + two + three + four, 12, "a" + two + three + four}));

INSTANTIATE_TEST_SUITE_P(
    Malformed, StrNcpyU8,
    testing::Values(U8Row{"stray continuation byte",
                          "a\x80"
                          "b",
                          32, "a"},
                    U8Row{"last stray continuation byte", "a\xBFz", 32, "a"},
                    U8Row{"two bytes, second no continuation", "a\xC3z", 32, "a"},
                    U8Row{"two bytes, second a lead byte", "a\xC3\xC3\xA4", 32, "a"},
                    U8Row{"two bytes, ended by the NUL", "a\xC3", 32, "a"},
                    U8Row{"three bytes, second no continuation", "a\xE2z\xAC", 32, "a"},
                    U8Row{"three bytes, third no continuation", "a\xE2\x82z", 32, "a"},
                    U8Row{"three bytes, ended by the NUL", "a\xE2\x82", 32, "a"},
                    U8Row{"four bytes, second no continuation", "a\xF0z\x98\x80", 32, "a"},
                    U8Row{"four bytes, third no continuation", "a\xF0\x9Fz\x80", 32, "a"},
                    U8Row{"four bytes, fourth no continuation", "a\xF0\x9F\x98z", 32, "a"},
                    U8Row{"four bytes, ended by the NUL", "a\xF0\x9F\x98", 32, "a"},
                    U8Row{"lead byte F8", "a\xF8\x88\x80\x80\x80", 32, "a"},
                    U8Row{"lead byte FF", "a\xFFz", 32, "a"},
                    U8Row{"the three bytes BF BB EF", "\xBF\xBB\xEFtext", 32, ""},
                    U8Row{"BF alone at the start", "\xBFtext", 32, ""}));

// The check is of the sequence's form alone: kept, names that were once taken stay the same.
INSTANTIATE_TEST_SUITE_P(FormOnly, StrNcpyU8,
                         testing::Values(U8Row{"an over-long form", "\xC0\xAFz", 32, "\xC0\xAFz"},
                                         U8Row{"a surrogate", "\xED\xA0\x80z", 32, "\xED\xA0\x80z"},
                                         U8Row{"beyond the last code point", "\xF7\xBF\xBF\xBFz",
                                               32, "\xF7\xBF\xBF\xBFz"},
                                         U8Row{"a byte-order mark", "\xEF\xBB\xBFtext", 32,
                                               "\xEF\xBB\xBFtext"}));

TEST(StrNcpyU8Size, ZeroWritesNothing)
{
    Buffer buffer;
    EXPECT_EQ(str_ncpy_u8(buffer.data(), "abc", 0), buffer.data());
    EXPECT_EQ(buffer.written(), 0U);
}

TEST(StrNcpyU8Size, ZeroWritesNothingForAnEmptyText)
{
    Buffer buffer;
    EXPECT_EQ(str_ncpy_u8(buffer.data(), "", 0), buffer.data());
    EXPECT_EQ(buffer.written(), 0U);
}

TEST(StrNcpyU8Size, LargestSizeDoesNotWrap)
{
    Buffer buffer;
    EXPECT_EQ(str_ncpy_u8(buffer.data(), "abc", UINT32_MAX), buffer.data() + 3);
    EXPECT_EQ(buffer.text(), "abc");
}

// ---- hexadecimal digits ----

TEST(Ctox, GivesUpperCaseDigits)
{
    std::string digits;
    for (signed char value = 0; value < 16; value++)
        digits += ctox(value);
    EXPECT_EQ(digits, "0123456789ABCDEF");
}

TEST(Btox, WritesTheHighNibbleFirstWithoutNul)
{
    Buffer buffer;
    EXPECT_EQ(btox(0x3C, buffer.data()), buffer.data() + 2);
    EXPECT_EQ(buffer.bytes.substr(1, 2), "3C");
    EXPECT_EQ(buffer.written(), 2U);
}

TEST(Btox, TakesEveryByte)
{
    for (int byte = 0; byte < 256; byte++) {
        char expected[3];
        snprintf(expected, sizeof expected, "%02X", byte);
        Buffer buffer;
        btox(static_cast<uint8_t>(byte), buffer.data());
        EXPECT_EQ(buffer.bytes.substr(1, 2), expected);
    }
}

// ---- str_to_long ----

constexpr int32_t sentinel = 4711;

struct LongRow {
    const char* text;
    int base;
    int32_t result;
    int32_t value; // sentinel: not stored
};

void PrintTo(const LongRow& row, std::ostream* out)
{
    *out << testing::PrintToString(std::string(row.text)) << " base " << row.base;
}

class StrToLong : public testing::TestWithParam<LongRow> {};

TEST_P(StrToLong, ConvertsTheWholeTextOrNothing)
{
    const LongRow& row = GetParam();
    int32_t value = sentinel;
    EXPECT_EQ(str_to_long(row.text, &value, row.base), row.result);
    EXPECT_EQ(value, row.value);
}

INSTANTIATE_TEST_SUITE_P(Numbers, StrToLong,
                         testing::Values(LongRow{"0", 10, 0, 0}, LongRow{"12", 10, 0, 12},
                                         LongRow{"-12", 10, 0, -12}, LongRow{"+12", 10, 0, 12},
                                         LongRow{" \t\n12", 10, 0, 12}, LongRow{"0012", 10, 0, 12},
                                         LongRow{"0x1A", 16, 0, 26}, LongRow{"1a", 16, 0, 26},
                                         LongRow{"-0x1A", 16, 0, -26}, LongRow{"0x1A", 0, 0, 26},
                                         LongRow{"017", 0, 0, 15}, LongRow{"017", 8, 0, 15},
                                         LongRow{"17", 0, 0, 17}, LongRow{"101", 2, 0, 5},
                                         LongRow{"z", 36, 0, 35},
                                         LongRow{"2147483647", 10, 0, INT32_MAX},
                                         LongRow{"-2147483648", 10, 0, INT32_MIN},
                                         LongRow{"7fffffff", 16, 0, INT32_MAX}));

INSTANTIATE_TEST_SUITE_P(
    NotOneNumberAlone, StrToLong,
    testing::Values(LongRow{"", 10, -EINVAL, sentinel}, LongRow{" ", 10, -EINVAL, sentinel},
                    LongRow{"12 ", 10, -EINVAL, sentinel}, LongRow{"12\n", 10, -EINVAL, sentinel},
                    LongRow{"12x", 10, -EINVAL, sentinel}, LongRow{"1 2", 10, -EINVAL, sentinel},
                    LongRow{"x", 10, -EINVAL, sentinel}, LongRow{"-", 10, -EINVAL, sentinel},
                    LongRow{"+", 10, -EINVAL, sentinel}, LongRow{"- 1", 10, -EINVAL, sentinel},
                    LongRow{"--1", 10, -EINVAL, sentinel}, LongRow{"1.5", 10, -EINVAL, sentinel},
                    LongRow{"0x1A", 10, -EINVAL, sentinel}, LongRow{"0x", 16, -EINVAL, sentinel},
                    LongRow{"8", 8, -EINVAL, sentinel}, LongRow{"12", 1, -EINVAL, sentinel},
                    LongRow{"12", 37, -EINVAL, sentinel}, LongRow{"12", -1, -EINVAL, sentinel}));

// Where long has 64 bits these must not be taken for numbers in range.
INSTANTIATE_TEST_SUITE_P(
    OutOf32Bits, StrToLong,
    testing::Values(LongRow{"99999999999", 10, INT32_MAX, INT32_MAX},
                    LongRow{"-99999999999", 10, INT32_MIN, INT32_MIN},
                    LongRow{"2147483648", 10, INT32_MAX, INT32_MAX},
                    LongRow{"-2147483649", 10, INT32_MIN, INT32_MIN},
                    LongRow{"4294967295", 10, INT32_MAX, INT32_MAX},
                    LongRow{"4294967296", 10, INT32_MAX, INT32_MAX},
                    LongRow{"80000000", 16, INT32_MAX, INT32_MAX},
                    LongRow{"ffffffff", 16, INT32_MAX, INT32_MAX},
                    LongRow{"9223372036854775807", 10, INT32_MAX, INT32_MAX},
                    LongRow{"9223372036854775808", 10, INT32_MAX, INT32_MAX},
                    LongRow{"-9223372036854775808", 10, INT32_MIN, INT32_MIN},
                    LongRow{"-99999999999999999999999", 10, INT32_MIN, INT32_MIN},
                    // The range is looked at before what stands behind the number.
                    LongRow{"99999999999x", 10, INT32_MAX, INT32_MAX},
                    LongRow{"-99999999999 ", 10, INT32_MIN, INT32_MIN}));

TEST(StrToLongErrno, LeftOverErrnoIsNoFailure)
{
    for (const int before : {EINVAL, ERANGE, EIO}) {
        int32_t value = sentinel;
        errno = before;
        EXPECT_EQ(str_to_long("12", &value, 10), 0) << "errno was " << before;
        EXPECT_EQ(value, 12);
    }
}

// ---- str_to_ulong ----

struct UlongRow {
    const char* text;
    int base;
    int32_t result;
    uint32_t value; // sentinel: not stored
};

void PrintTo(const UlongRow& row, std::ostream* out)
{
    *out << testing::PrintToString(std::string(row.text)) << " base " << row.base;
}

class StrToUlong : public testing::TestWithParam<UlongRow> {};

TEST_P(StrToUlong, ConvertsWhatStandsInFront)
{
    const UlongRow& row = GetParam();
    uint32_t value = sentinel;
    EXPECT_EQ(str_to_ulong(row.text, &value, row.base), row.result);
    EXPECT_EQ(value, row.value);
}

INSTANTIATE_TEST_SUITE_P(Numbers, StrToUlong,
                         testing::Values(UlongRow{"0", 10, 0, 0}, UlongRow{"12", 10, 0, 12},
                                         UlongRow{"+12", 10, 0, 12}, UlongRow{" \t\n12", 10, 0, 12},
                                         UlongRow{"12abc", 10, 0, 12}, UlongRow{"12 ", 10, 0, 12},
                                         UlongRow{"12\n", 10, 0, 12}, UlongRow{"0abc", 10, 0, 0},
                                         UlongRow{"0x", 16, 0, 0}, UlongRow{"0x1Ag", 16, 0, 26},
                                         UlongRow{"0x1A", 0, 0, 26}, UlongRow{"018", 0, 0, 1},
                                         UlongRow{"2147483648", 10, 0, 2147483648U},
                                         UlongRow{"4294967295", 10, 0, UINT32_MAX},
                                         UlongRow{"ffffffff", 16, 0, UINT32_MAX}));

// As where unsigned long has 32 bits: a negative number is its two's complement, and its size, not
// its sign, decides whether it is in range.
INSTANTIATE_TEST_SUITE_P(
    Negative, StrToUlong,
    testing::Values(UlongRow{"-0", 10, 0, 0}, UlongRow{"-1", 10, 0, UINT32_MAX},
                    UlongRow{"-12x", 10, 0, 4294967284U}, UlongRow{" -1", 10, 0, UINT32_MAX},
                    UlongRow{"\t\v\f\r\n -2", 10, 0, 4294967294U},
                    UlongRow{"-4294967295", 10, 0, 1}, UlongRow{"-2147483648", 10, 0, 2147483648U},
                    UlongRow{"-4294967296", 10, -1, UINT32_MAX},
                    UlongRow{"-99999999999", 10, -1, UINT32_MAX},
                    UlongRow{"-18446744073709551615", 10, -1, UINT32_MAX},
                    UlongRow{"-18446744073709551616", 10, -1, UINT32_MAX}));

INSTANTIATE_TEST_SUITE_P(OutOf32Bits, StrToUlong,
                         testing::Values(UlongRow{"4294967296", 10, -1, UINT32_MAX},
                                         UlongRow{"99999999999", 10, -1, UINT32_MAX},
                                         UlongRow{"99999999999x", 10, -1, UINT32_MAX},
                                         UlongRow{"100000000", 16, -1, UINT32_MAX},
                                         UlongRow{"18446744073709551615", 10, -1, UINT32_MAX},
                                         UlongRow{"18446744073709551616", 10, -1, UINT32_MAX}));

INSTANTIATE_TEST_SUITE_P(
    NoNumber, StrToUlong,
    testing::Values(UlongRow{"", 10, -EINVAL, sentinel}, UlongRow{"  ", 10, -EINVAL, sentinel},
                    UlongRow{"abc", 10, -EINVAL, sentinel}, UlongRow{"-", 10, -EINVAL, sentinel},
                    UlongRow{"-x", 10, -EINVAL, sentinel}, UlongRow{"12", 1, -EINVAL, sentinel},
                    UlongRow{"12", 37, -EINVAL, sentinel}));

TEST(StrToUlongErrno, LeftOverErrnoIsNoFailure)
{
    for (const int before : {EINVAL, ERANGE, EIO}) {
        uint32_t value = sentinel;
        errno = before;
        EXPECT_EQ(str_to_ulong("12", &value, 10), 0) << "errno was " << before;
        EXPECT_EQ(value, 12U);
    }
}

} // namespace
