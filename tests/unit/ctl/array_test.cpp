#include "ctl/array.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>

TEST(Array, WhatIsInItStaysAndTheNextIsZero)
{
    int* numbers = nullptr;
    for (size_t count = 0; count < 100; count++) {
        for (const int value :
             {-1, static_cast<int>(count) + 1}) { // one that is dropped, one that stays
            void* grown = array_grow(numbers, count, sizeof(int));
            ASSERT_NE(grown, nullptr);
            numbers = static_cast<int*>(grown);
            EXPECT_EQ(numbers[count], 0);
            for (size_t i = 0; i < count; i++)
                ASSERT_EQ(numbers[i], static_cast<int>(i) + 1);
            numbers[count] = value;
        }
    }
    free(numbers);
}

TEST(Array, OneThatIsTooLargeStaysAsItWas)
{
    void* one = array_grow(nullptr, 0, 1);
    EXPECT_EQ(array_grow(one, 16, SIZE_MAX / 16), nullptr);
    free(one);
}
