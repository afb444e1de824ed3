#include "common/array.h"

#include "lib/guard.h"

#include <gtest/gtest.h>

TEST(ArrayRoom, KeepsWhatIsInItAndMovesOnlyWhenItIsFull)
{
    MemGuard<int> array;
    MemGuard<void> behind[100]; // so that it cannot grow where it is
    for (int count = 0; count < 100; count++) {
        int* held = array.take();
        auto* room = static_cast<int*>(array_room(held, static_cast<size_t>(count), sizeof(int)));
        array.reset(room != nullptr ? room : held);
        ASSERT_NE(room, nullptr);
        const bool full = count == 0 || count == 16 || count == 32 || count == 64;
        EXPECT_TRUE(full || room == held) << count;
        room[count] = count;
        behind[count].reset(malloc(sizeof(int)));
    }
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(array.get()[i], i);
}

TEST(ArrayRoom, IsNoneWhereTheSizeIsTooLargeToBeSaid)
{
    const MemGuard<void> array(array_room(nullptr, 0, 1)); // stays as it is
    EXPECT_EQ(array_room(array.get(), 16, SIZE_MAX / 16), nullptr);
}
