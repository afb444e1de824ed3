#include "lib/guard.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

int released = 0;

void count_release(int*)
{
    released++;
}

using CountingGuard = Guard<int, count_release>;

class GuardTest : public testing::Test {
  protected:
    GuardTest() { released = 0; }
    int thing = 1;
    int other = 2;
};

TEST_F(GuardTest, ReleasesOnceAtTheEndOfItsBlock)
{
    {
        const CountingGuard guard(&thing);
        EXPECT_EQ(guard.get(), &thing);
        EXPECT_TRUE(static_cast<bool>(guard));
        EXPECT_EQ(released, 0);
    }
    EXPECT_EQ(released, 1);
}

TEST_F(GuardTest, ReleasesNothingForNull)
{
    {
        const CountingGuard guard;
        EXPECT_FALSE(static_cast<bool>(guard));
    }
    EXPECT_EQ(released, 0);
}

TEST_F(GuardTest, ReleasesNothingThatWasTaken)
{
    {
        CountingGuard guard(&thing);
        EXPECT_EQ(guard.take(), &thing);
        EXPECT_EQ(guard.get(), nullptr);
    }
    EXPECT_EQ(released, 0);
}

TEST_F(GuardTest, ResetReleasesWhatWasHeldAndHoldsTheNext)
{
    {
        CountingGuard guard(&thing);
        guard.reset(&other);
        EXPECT_EQ(released, 1);
        EXPECT_EQ(guard.get(), &other);
    }
    EXPECT_EQ(released, 2);
}

TEST_F(GuardTest, HoldsWhatAFunctionStoresThroughIt)
{
    {
        CountingGuard guard;
        *guard.out() = &thing;
        EXPECT_EQ(*guard.get(), 1);
    }
    EXPECT_EQ(released, 1);
}

// What follows leaks under a leak checker, or is freed twice, where a guard is wrong.
TEST_F(GuardTest, MemoryIsFreed)
{
    const MemGuard<char> memory(static_cast<char*>(malloc(16)));
    ASSERT_TRUE(static_cast<bool>(memory));
}

TEST_F(GuardTest, ListIsDisposedOfWithoutItsElements)
{
    {
        const ListGuard list(vylist_create());
        ASSERT_NE(vylist_insert(list.get(), vylist_end(list.get()), &thing), nullptr);
        EXPECT_EQ(list->count, 1U);
    }
    EXPECT_EQ(thing, 1);
}

TEST_F(GuardTest, FileIsClosed)
{
    const int before = open_descriptors();
    {
        const FileGuard file(fopen("/dev/null", "r"));
        ASSERT_TRUE(static_cast<bool>(file));
        EXPECT_EQ(open_descriptors(), before + 1);
    }
    EXPECT_EQ(open_descriptors(), before);
}

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

int open_null()
{
    return open("/dev/null", O_RDONLY);
}

TEST(FdGuardTest, ClosesAtTheEndOfItsBlock)
{
    int fd = -1;
    {
        const FdGuard guard(open_null());
        fd = guard.get();
        EXPECT_TRUE(is_open(fd));
    }
    EXPECT_FALSE(is_open(fd));
}

TEST(FdGuardTest, LeavesOpenWhatWasTaken)
{
    int fd = -1;
    {
        FdGuard guard(open_null());
        fd = guard.take();
        EXPECT_EQ(guard.get(), -1);
    }
    EXPECT_TRUE(is_open(fd));
    close(fd);
}

TEST(FdGuardTest, ResetClosesWhatWasHeld)
{
    FdGuard guard(open_null());
    const int first = guard.get();
    const int second = open_null();
    guard.reset(second);
    EXPECT_FALSE(is_open(first));
    EXPECT_TRUE(is_open(second));
}

TEST(FdGuardTest, HoldsNothingByDefault)
{
    errno = 0;
    {
        const FdGuard guard;
        EXPECT_EQ(guard.get(), -1);
    }
    EXPECT_EQ(errno, 0) << "-1 was closed";
}

TEST(FdGuardTest, ClosesDescriptorZero)
{
    const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
    close(0);
    {
        const FdGuard guard(open_null());
        EXPECT_EQ(guard.get(), 0);
    }
    EXPECT_FALSE(is_open(0));
    if (saved >= 0) {
        dup2(saved, 0);
        close(saved);
    }
}

// trylock by another way: a mutex of this kind cannot be asked, so a lock that was kept would hang.
TEST(LockGuardTest, UnlocksAtTheEndOfItsBlock)
{
    Mutex mutex;
    ASSERT_EQ(mutex.init(), 0);
    {
        const LockGuard lock(mutex);
    }
    {
        const LockGuard lock(mutex);
    }
    mutex.term();
}

TEST(Flag, HoldsTheByteItWasSetTo)
{
    uint8_t flag = 0;
    flag_set(&flag, 1);
    EXPECT_EQ(flag_get(&flag), 1);
    flag_set(&flag, 0);
    EXPECT_EQ(flag_get(&flag), 0);
}

} // namespace
