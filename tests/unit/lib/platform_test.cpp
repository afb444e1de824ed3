#include "lib/platform.h"

#include "lib/guard.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <algorithm>

// ---- stack_give_back ----

// Stores a place on the stack that a call has written to, far below its caller's.
[[gnu::noinline]] static void go_deep(uintptr_t* place)
{
    volatile char deep[40000];
    for (volatile char& byte : deep)
        byte = 1;
    *place = reinterpret_cast<uintptr_t>(&deep[4096]);
}

static bool is_resident(uintptr_t place)
{
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    unsigned char resident = 0;
    return mincore(reinterpret_cast<void*>(place & ~(page - 1)), 1, &resident) == 0 &&
           (resident & 1) != 0;
}

TEST(StackGiveBack, TakesWhatDeepCallsHaveLeft)
{
    uintptr_t place = 0;
    go_deep(&place);
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    if (place > here || here - place > 65536)
        GTEST_SKIP() << "calls do not have their variables on the stack in this build";
    ASSERT_TRUE(is_resident(place));
    stack_give_back();
    EXPECT_FALSE(is_resident(place));
}

TEST(StackGiveBack, LeavesWhatIsInUse)
{
    volatile char used[40000];
    for (volatile char& byte : used)
        byte = 1;
    stack_give_back();
    for (const volatile char& byte : used)
        ASSERT_EQ(byte, 1);
}
