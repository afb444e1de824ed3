// Disks whose medium was changed: what the kernel is asked, and when again.
#include "agent/medium.h"

#include "fake_medium.h"

#include <errno.h>
#include <gtest/gtest.h>

class Medium : public testing::Test {
  protected:
    static BlockName disk(int number) { return {BLOCK_SD, number, 0}; }

    // Asks again at the time that is due.
    uint32_t read_again() { return changed_read_again(&changed_, changed_.due, read_); }

    FakeMedium medium_;
    ChangedDisks changed_ = {};
    BlockName read_[agent_changed_limit];
};

TEST_F(Medium, KeepsNoDiskThatTheKernelReads)
{
    medium_.add_node("sda");
    EXPECT_TRUE(changed_read(&changed_, disk(1), 1000));
    EXPECT_EQ(medium_.requests(), 1);
    EXPECT_EQ(changed_.count, 0U);
    EXPECT_FALSE(changed_keeps(&changed_, disk(1)));
}

TEST_F(Medium, KeepsADiskThatIsInUseUntilItIsNot)
{
    medium_.add_node("sda");
    medium_.answer(EBUSY);
    EXPECT_FALSE(changed_read(&changed_, disk(1), 1000));
    EXPECT_TRUE(changed_keeps(&changed_, disk(1)));
    EXPECT_TRUE(changed_keeps(&changed_, {BLOCK_SD, 1, 3})); // with its partitions
    EXPECT_FALSE(changed_keeps(&changed_, disk(2)));
    EXPECT_FALSE(changed_keeps(&changed_, {BLOCK_MMC, 1, 0}));
    EXPECT_FALSE(changed_read(&changed_, disk(1), 1100)); // changed once more
    EXPECT_EQ(changed_.count, 1U);
    EXPECT_EQ(read_again(), 0U);
    medium_.answer(0);
    EXPECT_EQ(read_again(), 1U);
    EXPECT_EQ(block_name_compare(read_[0], disk(1)), 0);
    EXPECT_EQ(changed_.count, 0U);
    EXPECT_EQ(read_again(), 0U);
}

TEST_F(Medium, AsksAgainAfterPausesThatGrow)
{
    medium_.add_node("sda");
    medium_.answer(EBUSY);
    uint64_t now = 1000;
    EXPECT_FALSE(changed_read(&changed_, disk(1), now));
    for (const uint32_t pause : {250U, 500U, 1000U, 2000U, 2000U}) {
        const int requests = medium_.requests();
        EXPECT_EQ(changed_read_again(&changed_, now + pause - 1, read_), 0U);
        EXPECT_EQ(medium_.requests(), requests);
        now += pause;
        EXPECT_EQ(changed_read_again(&changed_, now, read_), 0U);
        EXPECT_EQ(medium_.requests(), requests + 1);
    }
}

TEST_F(Medium, BelievesSysfsWhereTheKernelCannotBeAsked)
{
    EXPECT_TRUE(changed_read(&changed_, disk(1), 1000)); // no node
    medium_.add_node("sda");
    for (const int error : {EACCES, EINVAL, EIO, ENOTTY}) {
        medium_.answer(error);
        EXPECT_TRUE(changed_read(&changed_, disk(1), 1000)) << error;
    }
    EXPECT_EQ(changed_.count, 0U);
}

TEST_F(Medium, KeepsNoMoreDisksThanFit)
{
    medium_.answer(EBUSY);
    for (int number = 1; number <= static_cast<int>(agent_changed_limit) + 1; number++) {
        medium_.add_node(std::string("sd") + static_cast<char>('a' + number - 1));
        EXPECT_EQ(changed_read(&changed_, disk(number), 1000),
                  number > static_cast<int>(agent_changed_limit));
    }
    EXPECT_EQ(changed_.count, agent_changed_limit);
    medium_.answer(0);
    EXPECT_EQ(read_again(), agent_changed_limit);
}

TEST_F(Medium, ForgetsADiskThatHasGone)
{
    medium_.answer(EBUSY);
    for (const char* name : {"sda", "sdb", "sdc"})
        medium_.add_node(name);
    for (const int number : {1, 2, 3})
        EXPECT_FALSE(changed_read(&changed_, disk(number), 1000));
    changed_drop(&changed_, disk(1));
    changed_drop(&changed_, disk(4)); // never kept
    EXPECT_FALSE(changed_keeps(&changed_, disk(1)));
    EXPECT_TRUE(changed_keeps(&changed_, disk(2)));
    EXPECT_TRUE(changed_keeps(&changed_, disk(3)));
    medium_.answer(0);
    EXPECT_TRUE(changed_read(&changed_, disk(2), 1000)); // another medium yet, not in use
    EXPECT_FALSE(changed_keeps(&changed_, disk(2)));
    EXPECT_EQ(read_again(), 1U);
}
