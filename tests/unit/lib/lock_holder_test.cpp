#include "lib/lock_holder.h"

#include <gtest/gtest.h>

namespace {

TEST(LockLine, OfFlockIsRead)
{
    LockLine lock = {};
    ASSERT_TRUE(lock_line_parse("1: FLOCK  ADVISORY  WRITE 812 08:1f:131 0 EOF\n", &lock));
    EXPECT_EQ(lock.pid, 812);
    EXPECT_EQ(lock.major, 8U);
    EXPECT_EQ(lock.minor, 31U);
    EXPECT_EQ(lock.inode, 131U);
    ASSERT_TRUE(lock_line_parse(
        "99999: FLOCK  ADVISORY  READ  1 fe:00:18446744073709551615 0 EOF\n", &lock));
    EXPECT_EQ(lock.inode, UINT64_MAX);
}

TEST(LockLine, OfAnythingElseIsNone)
{
    LockLine lock = {};
    for (const char* line : {"", "\n", "1: POSIX  ADVISORY  WRITE 812 08:01:131 0 EOF",
                             "1: OFDLCK ADVISORY  WRITE -1 08:01:131 0 EOF",
                             "1: -> FLOCK  ADVISORY  WRITE 812 08:01:131 0 EOF",
                             "1: LEASE  ACTIVE    WRITE 812 08:01:131 0 EOF",
                             "1: FLOCK  ADVISORY  WRITE 812", "1: FLOCK  ADVISORY  WRITE x 08:01:1",
                             "1: FLOCKLONGERTHANANYKIND ADVISORY WRITE 812 08:01:131 0 EOF"})
        EXPECT_FALSE(lock_line_parse(line, &lock)) << line;
}

} // namespace
