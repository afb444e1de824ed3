#include "lib/vytime.h"

#include "fake/fake_world.h"
#include "support/failing_calls.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>

#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Journal = std::vector<std::string>;

class Vytime : public testing::Test {
  protected:
    Vytime() { fake_world_reset(); }
    FakeWorld& world = fake_world();
};

// ---- the value ----

TEST(VytimeLayout, LowWordStandsFirst)
{
    EXPECT_EQ(sizeof(vytime), 8U);
    EXPECT_EQ(offsetof(vytime, low), 0U);
    EXPECT_EQ(offsetof(vytime, high), 4U);
}

TEST(VytimeLayout, CountAndWordsBelongTogether)
{
    const vytime value = vytime_make(0x123456789ABCDEF0U);
    EXPECT_EQ(value.low, 0x9ABCDEF0U);
    EXPECT_EQ(value.high, 0x12345678U);
    EXPECT_EQ(vytime_count(value), 0x123456789ABCDEF0U);
}

// ---- vytime_get ----

TEST_F(Vytime, GetCountsMicroseconds)
{
    world.monotonic_usec = 12345678901234; // more than one word
    vytime now;
    EXPECT_EQ(vytime_get(&now, CLOCK_MONOTONIC), 0);
    EXPECT_EQ(vytime_count(now), 12345678901234U);
}

TEST_F(Vytime, GetReadsTheClockThatIsNamed)
{
    world.monotonic_usec = 1;
    world.realtime_usec = 2;
    vytime now;
    EXPECT_EQ(vytime_get(&now, 1), 0);
    EXPECT_EQ(vytime_count(now), 1U);
    EXPECT_EQ(vytime_get(&now, 0), 0);
    EXPECT_EQ(vytime_count(now), 2U);
    EXPECT_EQ(world.journal, (Journal{"clock_gettime 1", "clock_gettime 0"}));
}

TEST_F(Vytime, GetThatFailsLeavesTheValue)
{
    world.fail("clock_gettime", 1, EINVAL);
    vytime now = vytime_make(77);
    EXPECT_EQ(vytime_get(&now, CLOCK_MONOTONIC), -EINVAL);
    EXPECT_EQ(vytime_count(now), 77U);
}

// ---- vytime_cmp ----

TEST(VytimeCmp, ComparesBothWordsAsOneSignedNumber)
{
    const uint64_t top = 0x8000000000000000U;
    const struct {
        uint64_t a;
        uint64_t b;
        int result;
    } rows[] = {
        {5, 5, 0},
        {6, 5, 1},
        {5, 6, -1},
        {0, 0, 0},
        {0x100000000, 0xFFFFFFFF, 1}, // the high word counts more
        {0xFFFFFFFF, 0x100000000, -1},
        {0xFFFFFFFF, 1, 1}, // the low word has no sign
        {top, 1, -1},       // the whole number has one
        {1, top, 1},
        {top, top, 0},
        {top, top - 1, -1},
        {UINT64_MAX, 0, -1},
        {UINT64_MAX, top, 1},
    };
    for (const auto& row : rows)
        EXPECT_EQ(vytime_cmp(vytime_make(row.a), vytime_make(row.b)), row.result)
            << row.a << " and " << row.b;
}

// ---- vytime_pending ----

TEST_F(Vytime, PendingEndsWhenTheTimeIsReached)
{
    world.realtime_usec = 10000000;
    const vytime start = vytime_make(9000000);
    EXPECT_EQ(vytime_pending(start, vytime_make(1000001)), 1) << "one microsecond to go";
    EXPECT_EQ(vytime_pending(start, vytime_make(1000000)), 0) << "reached";
    EXPECT_EQ(vytime_pending(start, vytime_make(999999)), 0) << "passed";
}

TEST_F(Vytime, PendingCarriesIntoTheHighWord)
{
    world.realtime_usec = 0x100000000;
    EXPECT_EQ(vytime_pending(vytime_make(0xFFFFFFFF), vytime_make(2)), 1);
    EXPECT_EQ(vytime_pending(vytime_make(0xFFFFFFFF), vytime_make(1)), 0);
}

TEST_F(Vytime, PendingAsksTheWallClock)
{
    EXPECT_EQ(vytime_pending(vytime_make(0), vytime_make(0)), 0);
    EXPECT_EQ(world.journal, Journal{"clock_gettime 0"});
}

TEST_F(Vytime, PendingWithoutAClockFails)
{
    world.fail("clock_gettime", 1, EINVAL);
    EXPECT_EQ(vytime_pending(vytime_make(0), vytime_make(0)), -1);
}

// ---- sleeping ----

TEST_F(Vytime, SleepsTurnTheirUnitIntoOneInterval)
{
    EXPECT_EQ(vytime_usleep(1), 0);
    EXPECT_EQ(vytime_usleep(1200000), 0);
    EXPECT_EQ(vytime_usleep(4294967295U), 0);
    EXPECT_EQ(vytime_msleep(1), 0);
    EXPECT_EQ(vytime_msleep(200), 0);
    EXPECT_EQ(vytime_msleep(1200), 0);
    EXPECT_EQ(vytime_msleep(4294967295U), 0);
    EXPECT_EQ(vytime_sleep(2), 0);
    EXPECT_EQ(vytime_sleep(2147483647U), 0);
    EXPECT_EQ(world.journal,
              (Journal{"nanosleep 1", "nanosleep 1200000", "nanosleep 4294967295", "nanosleep 1000",
                       "nanosleep 200000", "nanosleep 1200000", "nanosleep 4294967295000",
                       "nanosleep 2000000", "nanosleep 2147483647000000"}));
}

// More seconds than a time_t of 32 bits holds.
TEST_F(Vytime, SleepsThatAreTooLongForOneCallTakeSeveral)
{
    EXPECT_EQ(vytime_sleep(UINT32_MAX), 0);
    EXPECT_EQ(world.journal, (Journal{"nanosleep 2147483647000000", "nanosleep 2147483647000000",
                                      "nanosleep 1000000"}));
    fake_world_reset();
    world.fail("nanosleep", 1, EINVAL);
    EXPECT_EQ(vytime_sleep(3000000000U), -1);
    EXPECT_EQ(world.count("nanosleep"), 1);
}

TEST_F(Vytime, InterruptedSleepGoesOnForTheRest)
{
    world.fail("nanosleep", 1, EINTR); // an interrupted one has slept half of its time
    world.fail("nanosleep", 2, EINTR);
    EXPECT_EQ(vytime_msleep(200), 0);
    EXPECT_EQ(world.journal, (Journal{"nanosleep 200000", "nanosleep 100000", "nanosleep 50000"}));
    EXPECT_EQ(world.slept_usec, 200000U);
}

TEST_F(Vytime, EverySleepGoesOnAfterASignal)
{
    int (*const sleeps[])(uint32_t) = {vytime_usleep, vytime_msleep, vytime_sleep};
    for (const auto sleep : sleeps) {
        fake_world_reset();
        world.fail("nanosleep", 1, EINTR);
        EXPECT_EQ(sleep(4), 0);
        EXPECT_EQ(world.count("nanosleep"), 2);
    }
}

TEST_F(Vytime, SleepThatFailsOtherwiseIsMinusOne)
{
    int (*const sleeps[])(uint32_t) = {vytime_usleep, vytime_msleep, vytime_sleep};
    for (const auto sleep : sleeps) {
        fake_world_reset();
        world.fail("nanosleep", 1, EINVAL);
        EXPECT_EQ(sleep(4), -1);
        EXPECT_EQ(world.count("nanosleep"), 1) << "not tried again";
    }
}

TEST_F(Vytime, SleepThatFailsAfterASignalIsMinusOne)
{
    world.fail("nanosleep", 1, EINTR);
    world.fail("nanosleep", 2, EFAULT);
    EXPECT_EQ(vytime_msleep(200), -1);
}

// ---- the time zone ----

constexpr uint64_t winter_day = 1699920000; // midnight, universal time
constexpr uint64_t summer_day = 1689984000;

struct ZoneRow {
    const char* zone;
    uint64_t day;
    int hour; // universal time
    int minute;
    int offset; // minutes
};

void PrintTo(const ZoneRow& row, std::ostream* out)
{
    *out << row.zone << " at " << row.hour << ":" << row.minute << " universal time";
}

class VytimeZone : public testing::TestWithParam<ZoneRow> {
  protected:
    VytimeZone() { fake_world_reset(); }
    ~VytimeZone() override
    {
        unsetenv("TZ");
        tzset();
    }
};

TEST_P(VytimeZone, GivesMinutesEast)
{
    const ZoneRow& row = GetParam();
    setenv("TZ", row.zone, 1);
    tzset();
    const auto minutes = static_cast<uint64_t>(row.hour * 60 + row.minute);
    fake_world().realtime_usec = (row.day + minutes * 60) * 1000000;
    EXPECT_EQ(vytime_get_timezone(), row.offset);
}

INSTANTIATE_TEST_SUITE_P(
    SameDay, VytimeZone,
    testing::Values(
        ZoneRow{"UTC0", winter_day, 12, 0, 0}, ZoneRow{"<+01>-1", winter_day, 11, 0, 60},
        ZoneRow{"<-08>8", winter_day, 12, 0, -480}, ZoneRow{"<+0530>-5:30", winter_day, 0, 0, 330},
        ZoneRow{"<+0530>-5:30", winter_day, 18, 15, 330},
        ZoneRow{"<+0545>-5:45", winter_day, 12, 30, 345},
        ZoneRow{"<-0330>3:30", winter_day, 12, 0, -210}, ZoneRow{"<+13>-13", winter_day, 0, 0, 780},
        ZoneRow{"CET-1CEST,M3.5.0,M10.5.0/3", winter_day, 12, 0, 60},
        ZoneRow{"CET-1CEST,M3.5.0,M10.5.0/3", summer_day, 12, 0, 120}));

// From 14 hours on the hours are taken to lie on different days, and then the sign is turned; below
// that nothing is mended, even where they do.
INSTANTIATE_TEST_SUITE_P(AcrossMidnight, VytimeZone,
                         testing::Values(ZoneRow{"<+01>-1", winter_day, 23, 30,
                                                 1380},                               // 00:30 there
                                         ZoneRow{"<+02>-2", winter_day, 23, 0, 1320}, // 01:00 there
                                         ZoneRow{"<-01>1", winter_day, 0, 30, -1380}, // 23:30 there
                                         ZoneRow{"<-08>8", winter_day, 1, 0, -960},
                                         ZoneRow{"<+0530>-5:30", winter_day, 18, 45, 1110},
                                         ZoneRow{"<-0330>3:30", winter_day, 0, 0, -1230},
                                         ZoneRow{"<+14>-14", winter_day, 0, 0, -840},
                                         ZoneRow{"<+10>-10", winter_day, 14, 0, 840},
                                         ZoneRow{"<+11>-11", winter_day, 13, 0, -780},
                                         ZoneRow{"<-11>11", winter_day, 10, 0, 780}));

TEST_F(VytimeZone, WithoutATimeIsZero)
{
    setenv("TZ", "<+01>-1", 1);
    tzset();
    fake_world().realtime_usec = (winter_day + 43200) * 1000000;
    fake_world().fail("time", 1, EFAULT);
    EXPECT_EQ(vytime_get_timezone(), 0);
}

TEST_F(VytimeZone, WithoutItsFieldsIsZero)
{
    setenv("TZ", "<+01>-1", 1);
    tzset();
    fake_world().realtime_usec = (winter_day + 43200) * 1000000;
    for (const char* call : {"gmtime_r", "localtime_r"}) {
        call_fail(call, 1, EOVERFLOW);
        EXPECT_EQ(vytime_get_timezone(), 0) << call;
        EXPECT_TRUE(call_failed()) << call;
    }
    EXPECT_EQ(vytime_get_timezone(), 60);
}

// ---- the stopwatch ----

using Watch = std::tuple<int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t>;

// total, runs, current run, start
Watch fields(const vytime_watch& watch)
{
    return {watch.total_sec, watch.total_nsec, watch.runs,      watch.run_sec,
            watch.run_nsec,  watch.start_sec,  watch.start_nsec};
}

class Stopwatch : public testing::Test {
  protected:
    Stopwatch() { fake_world_reset(); }
    void at(uint64_t milliseconds, uint32_t operation)
    {
        fake_world().monotonic_usec = milliseconds * 1000;
        EXPECT_EQ(vytime_stopwatch(&watch, operation), 0);
    }
    // What one run from start to pause adds up to.
    std::pair<int32_t, int32_t> stretch(uint64_t from, uint64_t to)
    {
        at(from, VYTIME_WATCH_START);
        at(to, VYTIME_WATCH_PAUSE);
        EXPECT_EQ(watch.start_sec, 0);
        EXPECT_EQ(watch.start_nsec, 0);
        return {watch.run_sec, watch.run_nsec};
    }

    vytime_watch watch = {};
    const vytime_watch filled = {.total_sec = 1,
                                 .total_nsec = 2,
                                 .runs = 3,
                                 .run_sec = 4,
                                 .run_nsec = 5,
                                 .start_sec = 6,
                                 .start_nsec = 7};
};

TEST_F(Stopwatch, HasSevenFieldsInOrder)
{
    EXPECT_EQ(sizeof(vytime_watch), 28U);
    EXPECT_EQ(offsetof(vytime_watch, total_sec), 0U);
    EXPECT_EQ(offsetof(vytime_watch, total_nsec), 4U);
    EXPECT_EQ(offsetof(vytime_watch, runs), 8U);
    EXPECT_EQ(offsetof(vytime_watch, run_sec), 12U);
    EXPECT_EQ(offsetof(vytime_watch, run_nsec), 16U);
    EXPECT_EQ(offsetof(vytime_watch, start_sec), 20U);
    EXPECT_EQ(offsetof(vytime_watch, start_nsec), 24U);
}

TEST_F(Stopwatch, OperationsHaveTheirNumbers)
{
    EXPECT_EQ(VYTIME_WATCH_RESET, 0U);
    EXPECT_EQ(VYTIME_WATCH_START, 1U);
    EXPECT_EQ(VYTIME_WATCH_PAUSE, 2U);
    EXPECT_EQ(VYTIME_WATCH_RESUME, 3U);
    EXPECT_EQ(VYTIME_WATCH_STOP, 4U);
}

TEST_F(Stopwatch, ResetClearsEveryField)
{
    watch = filled;
    at(100250, VYTIME_WATCH_RESET);
    EXPECT_EQ(fields(watch), Watch(0, 0, 0, 0, 0, 0, 0));
}

TEST_F(Stopwatch, StartNotesTheTimeAndForgetsTheCurrentRun)
{
    watch = filled;
    at(100250, VYTIME_WATCH_START);
    EXPECT_EQ(fields(watch), Watch(1, 2, 3, 0, 0, 100, 250000000));
}

TEST_F(Stopwatch, ResumeNotesTheTimeAndKeepsTheCurrentRun)
{
    watch = filled;
    at(100250, VYTIME_WATCH_RESUME);
    EXPECT_EQ(fields(watch), Watch(1, 2, 3, 4, 5, 100, 250000000));
}

TEST_F(Stopwatch, PauseAddsTheStretchToTheCurrentRun)
{
    watch = filled;
    at(100250, VYTIME_WATCH_RESUME);
    at(103750, VYTIME_WATCH_PAUSE);
    EXPECT_EQ(fields(watch), Watch(1, 2, 3, 7, 500000005, 0, 0));
}

TEST_F(Stopwatch, PauseOfOneThatDoesNotRunChangesNothing)
{
    watch = filled;
    watch.start_sec = 0;
    watch.start_nsec = 0;
    at(100250, VYTIME_WATCH_PAUSE);
    EXPECT_EQ(fields(watch), Watch(1, 2, 3, 4, 5, 0, 0));
}

TEST_F(Stopwatch, StopMovesTheCurrentRunToTheTotal)
{
    at(100000, VYTIME_WATCH_START);
    at(103500, VYTIME_WATCH_PAUSE);
    at(200000, VYTIME_WATCH_STOP);
    EXPECT_EQ(fields(watch), Watch(3, 500000000, 1, 0, 0, 0, 0));
}

TEST_F(Stopwatch, StopCountsTheLastStretchsSecondsTwice)
{
    at(100250, VYTIME_WATCH_START);
    at(103750, VYTIME_WATCH_STOP);
    EXPECT_EQ(fields(watch), Watch(6, 500000000, 1, 0, 0, 0, 0));
}

TEST_F(Stopwatch, StopCountsOnlyTheLastStretchTwice)
{
    at(100250, VYTIME_WATCH_START);
    at(103350, VYTIME_WATCH_PAUSE); // 3.1 s
    at(200250, VYTIME_WATCH_RESUME);
    at(205350, VYTIME_WATCH_STOP); // 5.1 s
    EXPECT_EQ(fields(watch), Watch(13, 200000000, 1, 0, 0, 0, 0));
}

TEST_F(Stopwatch, StopCountsTwiceWhatALostSecondLeft)
{
    at(100750, VYTIME_WATCH_START);
    at(104250, VYTIME_WATCH_STOP); // 3.5 s, taken for 2.5 s
    EXPECT_EQ(fields(watch), Watch(4, 500000000, 1, 0, 0, 0, 0));
}

TEST_F(Stopwatch, StopOfOneThatDoesNotRunCountsARun)
{
    at(100250, VYTIME_WATCH_STOP);
    EXPECT_EQ(fields(watch), Watch(0, 0, 1, 0, 0, 0, 0));
}

TEST_F(Stopwatch, StopAddsToTheTotalBefore)
{
    watch.total_sec = 10;
    watch.total_nsec = 700000000;
    watch.runs = 2;
    at(100000, VYTIME_WATCH_START);
    at(101600, VYTIME_WATCH_STOP);
    EXPECT_EQ(fields(watch), Watch(13, 300000000, 3, 0, 0, 0, 0));
}

TEST_F(Stopwatch, StartOfExactlyZeroIsNotRunning)
{
    at(0, VYTIME_WATCH_START);
    at(5500, VYTIME_WATCH_STOP);
    EXPECT_EQ(fields(watch), Watch(0, 0, 1, 0, 0, 0, 0));
}

TEST_F(Stopwatch, StartWithinTheFirstSecondIsRunning)
{
    at(1, VYTIME_WATCH_START);
    at(5002, VYTIME_WATCH_PAUSE);
    EXPECT_EQ(fields(watch), Watch(0, 0, 0, 5, 1000000, 0, 0));
}

TEST_F(Stopwatch, StretchWithGrowingNanosecondsIsExact)
{
    EXPECT_EQ(stretch(100250, 103750), (std::pair{3, 500000000}));
}

TEST_F(Stopwatch, StretchWithShrinkingNanosecondsLosesASecond)
{
    EXPECT_EQ(stretch(100750, 103250), (std::pair{1, 500000000})) << "2.5 s have passed";
    EXPECT_EQ(stretch(100750, 101250), (std::pair{-1, 500000000})) << "0.5 s have passed";
}

TEST_F(Stopwatch, StretchWithEqualNanosecondsCountsAsOneThatShrinks)
{
    EXPECT_EQ(stretch(100500, 103500), (std::pair{1, 1000000000})) << "3 s have passed";
    EXPECT_EQ(stretch(100500, 100500), (std::pair{-2, 1000000000})) << "no time has passed";
}

TEST_F(Stopwatch, NanosecondsOfExactlyOneSecondAreNotCarried)
{
    (void)stretch(100000, 100400);
    at(200000, VYTIME_WATCH_RESUME);
    at(200600, VYTIME_WATCH_PAUSE);
    EXPECT_EQ(fields(watch), Watch(0, 0, 0, 0, 1000000000, 0, 0));
}

TEST_F(Stopwatch, NanosecondsAboveOneSecondAreCarried)
{
    (void)stretch(100000, 100700);
    at(200000, VYTIME_WATCH_RESUME);
    at(200600, VYTIME_WATCH_PAUSE);
    EXPECT_EQ(fields(watch), Watch(0, 0, 0, 1, 300000000, 0, 0));
}

TEST_F(Stopwatch, TotalOfExactlyOneSecondIsNotCarried)
{
    watch.total_nsec = 600000000;
    at(100000, VYTIME_WATCH_START);
    at(100400, VYTIME_WATCH_STOP);
    EXPECT_EQ(fields(watch), Watch(0, 1000000000, 1, 0, 0, 0, 0));
}

TEST_F(Stopwatch, UnknownOperationsDoNothing)
{
    for (const uint32_t operation : {5U, 6U, UINT32_MAX}) {
        watch = filled;
        at(100250, operation);
        EXPECT_EQ(fields(watch), fields(filled)) << operation;
    }
}

TEST_F(Stopwatch, ReadsTheMonotonicClockForEveryOperation)
{
    for (const uint32_t operation : {0U, 1U, 2U, 3U, 4U, 5U}) {
        fake_world_reset();
        at(100250, operation);
        EXPECT_EQ(fake_world().journal, Journal{"clock_gettime 1"}) << operation;
    }
}

TEST_F(Stopwatch, WithoutAClockEveryOperationFailsAndChangesNothing)
{
    for (const uint32_t operation : {0U, 1U, 2U, 3U, 4U, 5U}) {
        fake_world_reset();
        fake_world().fail("clock_gettime", 1, EINVAL);
        watch = filled;
        EXPECT_EQ(vytime_stopwatch(&watch, operation), -EINVAL) << operation;
        EXPECT_EQ(fields(watch), fields(filled)) << operation;
    }
}

// ---- division ----

void expect_divides(uint64_t dividend, uint32_t divisor)
{
    uint32_t remainder = 0xDEADBEEF;
    ASSERT_EQ(vydiv64_32(dividend, divisor, &remainder), dividend / divisor)
        << dividend << " / " << divisor;
    ASSERT_EQ(remainder, dividend % divisor) << dividend << " % " << divisor;
}

TEST(Vydiv, AgreesWithTheMachineAtTheEdges)
{
    std::vector<uint64_t> dividends = {0, 1, 2, UINT64_MAX, UINT64_MAX - 1};
    for (int bit = 1; bit < 64; bit++) {
        for (const uint64_t power = uint64_t{1} << bit; const int step : {-1, 0, 1})
            dividends.push_back(power + static_cast<uint64_t>(step));
    }
    for (const uint32_t divisor :
         {1U, 2U, 3U, 10U, 0xFFFFU, 0x10000U, 1875000U, 2700000000U, 0x7FFFFFFFU, 0x80000000U,
          0x80000001U, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
        for (const uint64_t dividend : dividends)
            expect_divides(dividend, divisor);
        for (const uint64_t factor : {uint64_t{1}, uint64_t{2}, uint64_t{0xFFFFFFFF}}) {
            expect_divides(factor * divisor - 1, divisor);
            expect_divides(factor * divisor, divisor);
            expect_divides(factor * divisor + 1, divisor);
        }
    }
}

TEST(Vydiv, AgreesWithTheMachineOnRandomNumbersOfEverySize)
{
    std::mt19937_64 random(20231114); // the same numbers each time
    for (int i = 0; i < 200000; i++) {
        const uint64_t dividend = random() >> (random() % 64);
        const auto divisor = static_cast<uint32_t>((random() & UINT32_MAX) >> (random() % 32));
        if (divisor != 0)
            expect_divides(dividend, divisor);
        if (HasFatalFailure())
            return;
    }
}

TEST(Vydiv, RemainderMayBeLeftOut)
{
    EXPECT_EQ(vydiv64_32(1000000000007U, 10, nullptr), 100000000000U);
}

TEST(VydivDeathTest, DivisionByZeroStopsTheProcess)
{
    for (const uint64_t dividend : {uint64_t{0}, uint64_t{1}, UINT64_MAX})
        EXPECT_DEATH((void)vydiv64_32(dividend, 0, nullptr), "") << dividend;
}

} // namespace
