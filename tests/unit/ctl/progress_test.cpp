#include "ctl/progress.h"

#include "support/child.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

// What is written to standard error meanwhile.
static std::string told(const std::function<void()>& act)
{
    testing::internal::CaptureStderr();
    act();
    return testing::internal::GetCapturedStderr();
}

TEST(Progress, IsToldOnceASecondFromTheSecondOn)
{
    Progress progress = {.what = "waiting", .terminal = true, .told_s = 0};
    const auto tick = [&progress](int msec) {
        return told([&progress, msec] { progress_tick(&progress, msec); });
    };
    EXPECT_EQ(tick(0), "");
    EXPECT_EQ(tick(1999), "");
    EXPECT_EQ(tick(2000), "\rwaiting, 2 s ");
    EXPECT_EQ(tick(2999), "");
    EXPECT_EQ(tick(3000), "\rwaiting, 3 s ");
}

TEST(Progress, TheLineIsTakenOffWhereThereIsOne)
{
    Progress progress = {.what = "waiting", .terminal = true, .told_s = 0};
    const auto end = [&progress] { progress_end(&progress); };
    EXPECT_EQ(told(end), "");
    progress.told_s = 1;
    EXPECT_EQ(told(end), "\r\033[K");
    EXPECT_EQ(told(end), "") << "it is gone";
}

TEST(Progress, IsNotToldInAFile)
{
    const ChildResult child = run_child([] {
        Progress progress = progress_begin("waiting");
        progress_tick(&progress, 60000);
        progress_end(&progress);
        return progress.told_s;
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, "");
}
