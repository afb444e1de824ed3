// Time-of-day text. The scripted clock and a time zone of each test's own decide what is written.
#include "lib/vytime.h"

#include "fake/fake_world.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <ostream>
#include <random>
#include <string>

namespace {

constexpr uint64_t second = 1000000;
constexpr uint64_t minute = 60 * second;
constexpr uint64_t hour = 60 * minute;
constexpr uint64_t day = 24 * hour;
constexpr uint64_t midnight = 19675 * day; // in November, universal time

constexpr uint32_t H = VYTIME_FMT_HOUR;
constexpr uint32_t M = VYTIME_FMT_MIN;
constexpr uint32_t S = VYTIME_FMT_SEC;
constexpr uint32_t MS = VYTIME_FMT_MSEC;
constexpr uint32_t US = VYTIME_FMT_USEC;
constexpr uint32_t LOCAL = VYTIME_FMT_LOCAL;

struct Row {
    uint32_t flags;
    const char* text;
};

void PrintTo(const Row& row, std::ostream* out)
{
    *out << "flags " << row.flags << " -> \"" << row.text << '"';
}

// Buffer whose unused part can be told from what was written.
struct Text {
    char bytes[32];

    Text() { memset(bytes, '~', sizeof bytes); }
    bool clean_from(size_t at) const
    {
        for (size_t i = at; i < sizeof bytes; i++) {
            if (bytes[i] != '~')
                return false;
        }
        return true;
    }
};

void set_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

class FormatTest : public testing::TestWithParam<Row> {
  protected:
    FormatTest()
    {
        fake_world_reset();
        set_zone("UTC0");
        at(midnight + 14 * hour + 5 * minute + 9 * second + 12345);
    }
    ~FormatTest() override
    {
        unsetenv("TZ");
        tzset();
    }
    static void at(uint64_t usec) { fake_world().realtime_usec = usec; }
    static std::string now(uint32_t flags)
    {
        Text text;
        const int length = vytime_format_now(text.bytes, sizeof text.bytes, flags);
        EXPECT_EQ(length, static_cast<int>(strlen(text.bytes)));
        return text.bytes;
    }
    static std::string of(uint64_t usec, uint32_t flags)
    {
        Text text;
        const vytime value = vytime_make(usec);
        const int length = vytime_format(&value, text.bytes, sizeof text.bytes, flags);
        EXPECT_EQ(length, static_cast<int>(strlen(text.bytes)));
        return text.bytes;
    }
};

TEST(FormatFlags, HaveTheirNumbers)
{
    EXPECT_EQ(VYTIME_FMT_USEC, 1U);
    EXPECT_EQ(VYTIME_FMT_MSEC, 2U);
    EXPECT_EQ(VYTIME_FMT_SEC, 4U);
    EXPECT_EQ(VYTIME_FMT_MIN, 8U);
    EXPECT_EQ(VYTIME_FMT_HOUR, 16U);
    EXPECT_EQ(VYTIME_FMT_LOCAL, 256U);
}

// ---- the present time: 14:05:09.012345 ----

class FormatNow : public FormatTest {};

TEST_P(FormatNow, WritesTheFieldsThatAreAskedFor)
{
    EXPECT_EQ(now(GetParam().flags), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Fields, FormatNow,
                         testing::Values(Row{H, "14"}, Row{H | M, "14:05"},
                                         Row{H | M | S, "14:05.09"}, Row{M, "05"},
                                         Row{M | S, "05.09"}, Row{S, "09"}));

INSTANTIATE_TEST_SUITE_P(Fractions, FormatNow,
                         testing::Values(Row{H | M | S | US, "14:05.09.012345"},
                                         Row{M | S | US, "05.09.012345"}, Row{S | US, "09.012345"},
                                         Row{US, "012345"}));

// The last three digits of the microseconds, not the milliseconds: kept.
INSTANTIATE_TEST_SUITE_P(ThreeDigits, FormatNow,
                         testing::Values(Row{H | M | S | MS, "14:05.09.345"},
                                         Row{M | S | MS, "05.09.345"}, Row{S | MS, "09.345"},
                                         Row{MS, "345"}));

INSTANTIATE_TEST_SUITE_P(SixDigitsWin, FormatNow,
                         testing::Values(Row{H | M | S | US | MS, "14:05.09.012345"},
                                         Row{US | MS, "012345"}));

INSTANTIATE_TEST_SUITE_P(StopsAtAGap, FormatNow,
                         testing::Values(Row{H | S, "14"}, Row{H | US, "14"}, Row{H | MS, "14"},
                                         Row{H | S | US, "14"}, Row{H | M | US, "14:05"},
                                         Row{H | M | MS, "14:05"}, Row{M | US, "05"},
                                         Row{M | MS, "05"}));

INSTANTIATE_TEST_SUITE_P(NothingAsked, FormatNow, testing::Values(Row{0, ""}, Row{LOCAL, ""}));

TEST_F(FormatNow, PadsEveryField)
{
    at(midnight + 1 * hour + 2 * minute + 3 * second + 4);
    EXPECT_EQ(now(H | M | S | US), "01:02.03.000004");
    EXPECT_EQ(now(H | M | S | MS), "01:02.03.004");
    at(midnight);
    EXPECT_EQ(now(H | M | S | US), "00:00.00.000000");
    at(midnight - 1);
    EXPECT_EQ(now(H | M | S | US), "23:59.59.999999");
}

TEST_F(FormatNow, LocalTimeAddsTheOffset)
{
    set_zone("<+01>-1");
    EXPECT_EQ(now(H | M | S | LOCAL), "15:05.09");
    EXPECT_EQ(now(H | M | S), "14:05.09");
    set_zone("<+0530>-5:30");
    EXPECT_EQ(now(H | M | S | LOCAL), "19:35.09");
    set_zone("<-0330>3:30");
    EXPECT_EQ(now(H | M | S | LOCAL), "10:35.09");
}

TEST_F(FormatNow, LocalTimePastMidnightHasHoursOf24AndMore)
{
    set_zone("<+01>-1");
    at(midnight + 23 * hour + 30 * minute);
    EXPECT_EQ(now(H | M | LOCAL), "46:30"); // the offset is 1380 minutes there
    set_zone("<+05>-5");
    at(midnight + 22 * hour);
    EXPECT_EQ(now(H | M | LOCAL), "41:00");
}

TEST_F(FormatNow, LocalTimeBeforeMidnightHasAVeryLargeHour)
{
    set_zone("<-01>1");
    at(midnight + 30 * minute); // 30 minutes - 1380 minutes
    EXPECT_EQ(now(H | M | S | LOCAL), "1193023:58.16");
}

TEST_F(FormatNow, WithoutAnOffsetLocalTimeIsUniversalTime)
{
    set_zone("<+01>-1");
    fake_world().fail("time", 1, EFAULT);
    EXPECT_EQ(now(H | M | LOCAL), "14:05");
}

TEST_F(FormatNow, TimeThatCannotBeReadIsItsErrno)
{
    fake_world().fail("gettimeofday", 1, EFAULT);
    Text text;
    EXPECT_EQ(vytime_format_now(text.bytes, sizeof text.bytes, H), -EFAULT);
}

TEST_F(FormatNow, EveryBufferThatIsTooSmallStaysEmpty)
{
    const uint32_t all = H | M | S | MS | US | LOCAL;
    for (int32_t size = 1; size <= 15; size++) {
        Text text;
        EXPECT_EQ(vytime_format_now(text.bytes, size, all), -1) << size;
        EXPECT_STREQ(text.bytes, "") << size;
        EXPECT_TRUE(text.clean_from(static_cast<size_t>(size))) << "written behind " << size;
    }
}

TEST_F(FormatNow, BufferThatJustFitsIsEnough)
{
    Text text;
    EXPECT_EQ(vytime_format_now(text.bytes, 16, H | M | S | US), 15);
    EXPECT_STREQ(text.bytes, "14:05.09.012345");
    EXPECT_TRUE(text.clean_from(16));
    Text hours;
    EXPECT_EQ(vytime_format_now(hours.bytes, 3, H), 2);
    EXPECT_STREQ(hours.bytes, "14");
    EXPECT_EQ(vytime_format_now(hours.bytes, 2, H), -1);
    EXPECT_STREQ(hours.bytes, "");
}

TEST_F(FormatNow, BufferWithoutRoomIsLeftAlone)
{
    for (const int32_t size : {0, -1, INT32_MIN}) {
        Text text;
        EXPECT_EQ(vytime_format_now(text.bytes, size, H), -1) << size;
        EXPECT_TRUE(text.clean_from(0)) << size;
    }
}

// ---- a given value ----

class Format : public FormatTest {};

TEST_P(Format, WritesTheFieldsThatAreAskedFor)
{
    EXPECT_EQ(of(midnight + 14 * hour + 5 * minute + 9 * second + 12345, GetParam().flags),
              GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Fields, Format,
                         testing::Values(Row{H, "14"}, Row{H | M, "14:05"},
                                         Row{H | M | S, "14:05.09"}, Row{M, "05"},
                                         Row{M | S, "05.09"}, Row{S, "09"}));

INSTANTIATE_TEST_SUITE_P(StopsAtAGap, Format,
                         testing::Values(Row{H | S, "14"}, Row{H | US, "14"},
                                         Row{H | M | US, "14:05"}, Row{M | MS, "05"}));

// Three digits are the milliseconds here.
INSTANTIATE_TEST_SUITE_P(ThreeDigits, Format,
                         testing::Values(Row{H | M | S | MS, "14:05.09.012"},
                                         Row{S | MS, "09.012"}));

// Six digits and more count from the minute: kept.
INSTANTIATE_TEST_SUITE_P(SixDigits, Format,
                         testing::Values(Row{H | M | S | US, "14:05.09.9012345"},
                                         Row{S | US, "09.9012345"},
                                         Row{S | US | MS, "09.9012345"}));

INSTANTIATE_TEST_SUITE_P(NoFlagsAreAllFlags, Format, testing::Values(Row{0, "14:05.09.9012345"}));
INSTANTIATE_TEST_SUITE_P(LocalAloneIsNoField, Format, testing::Values(Row{LOCAL, ""}));

TEST_F(Format, NoFlagsMeanLocalTime)
{
    set_zone("<+01>-1");
    const uint64_t value = midnight + 14 * hour + 5 * minute;
    EXPECT_EQ(of(value, 0), "15:05.00.000000");
    EXPECT_EQ(of(value, H | M | S | US), "14:05.00.000000");
}

TEST_F(Format, FractionCountsMicrosecondsOfTheMinute)
{
    const uint64_t value = midnight + 14 * hour + 5 * minute;
    EXPECT_EQ(of(value + 42, S | US), "00.000042");
    EXPECT_EQ(of(value + 999999, S | US), "00.999999");
    EXPECT_EQ(of(value + second, S | US), "01.1000000");
    EXPECT_EQ(of(value + 59 * second + 999999, H | M | S | US), "14:05.59.59999999");
}

TEST_F(Format, WorkInUnitsOf32MicrosecondsLosesNone)
{
    for (const uint64_t usec : {1U, 31U, 32U, 33U, 63U, 64U, 999U}) {
        char expected[16];
        snprintf(expected, sizeof expected, "00.%06u", static_cast<unsigned>(usec));
        EXPECT_EQ(of(usec, S | US), expected);
    }
    EXPECT_EQ(of(999, S | MS), "00.000");
    EXPECT_EQ(of(1000, S | MS), "00.001"); // 31 whole units would be 992 microseconds
    EXPECT_EQ(of(5000, S | MS), "00.005");
    EXPECT_EQ(of(59 * second + 999999, S | MS), "59.999");
}

TEST_F(Format, TakesTheValueModuloOneDay)
{
    EXPECT_EQ(of(0, H | M | S | US), "00:00.00.000000");
    EXPECT_EQ(of(day - 1, H | M | S | US), "23:59.59.59999999");
    EXPECT_EQ(of(day, H | M | S | US), "00:00.00.000000");
    EXPECT_EQ(of(day + 1, H | M | S | US), "00:00.00.000001");
}

// From 2^37 microseconds on the units no longer fit one word.
TEST_F(Format, TakesValuesBeyondOneWordOfUnits)
{
    EXPECT_EQ(of(0x1FFFFFFFFFU, H | M | S | US), "14:10.38.38953471");
    EXPECT_EQ(of(0x2000000000U, H | M | S | US), "14:10.38.38953472");
}

TEST_F(Format, AgreesWithPlainArithmeticOnAnyValue)
{
    std::mt19937_64 random(20231114); // the same numbers each time
    for (int i = 0; i < 20000; i++) {
        const uint64_t value = i == 0 ? UINT64_MAX : random() >> (random() % 64);
        const uint64_t of_day = value % day;
        char expected[32];
        snprintf(expected, sizeof expected, "%02u:%02u.%02u.%03u",
                 static_cast<unsigned>(of_day / hour),
                 static_cast<unsigned>(of_day % hour / minute),
                 static_cast<unsigned>(of_day % minute / second),
                 static_cast<unsigned>(of_day % second / 1000));
        ASSERT_EQ(of(value, H | M | S | MS), expected) << value;
        snprintf(expected, sizeof expected, "%06u", static_cast<unsigned>(of_day % minute));
        ASSERT_EQ(of(value, S | US).substr(3), expected) << value;
    }
}

TEST_F(Format, LocalTimePastMidnightHasHoursOf24AndMore)
{
    set_zone("<+10>-10");
    at(midnight + 14 * hour + 30 * minute); // the offset is 840 minutes there
    EXPECT_EQ(of(midnight + 14 * hour + 30 * minute, H | M | LOCAL), "28:30");
}

TEST_F(Format, LocalTimeIsThatOfThePresentTimesText)
{
    set_zone("<+01>-1");
    at(midnight + 23 * hour + 30 * minute); // 1380 minutes more: above 32 bits
    EXPECT_EQ(of(midnight + 23 * hour + 30 * minute, H | M | LOCAL), "08:19");
    set_zone("<-01>1");
    at(midnight + 30 * minute); // and -1380 here, wrapped below zero
    EXPECT_EQ(of(midnight + 30 * minute + 5000, H | M | S | MS | LOCAL), "15:40.38.958");
}

TEST_F(Format, OffsetIsThatOfThePresentTime)
{
    set_zone("<+01>-1");
    at(midnight + 12 * hour);
    EXPECT_EQ(of(midnight + 23 * hour + 30 * minute, H | M | LOCAL), "24:30");
}

TEST_F(Format, EveryBufferThatIsTooSmallStaysEmpty)
{
    const vytime value = vytime_make(midnight + 14 * hour + 5 * minute + 9 * second + 12345);
    for (int32_t size = 1; size <= 16; size++) {
        Text text;
        EXPECT_EQ(vytime_format(&value, text.bytes, size, 0), -1) << size;
        EXPECT_STREQ(text.bytes, "") << size;
        EXPECT_TRUE(text.clean_from(static_cast<size_t>(size))) << "written behind " << size;
    }
    Text text;
    EXPECT_EQ(vytime_format(&value, text.bytes, 17, 0), 16);
    EXPECT_TRUE(text.clean_from(17));
}

TEST_F(Format, DoesNotReadTheTimeOfDayForUniversalTime)
{
    (void)of(midnight, H | M | S);
    EXPECT_TRUE(fake_world().journal.empty());
}

} // namespace
