#include "share/text_buffer.h"

#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <string>

TEST(TextBuffer, GrowsAtItsEnd)
{
    TextBuffer buffer = {};
    const TextBufferGuard held(&buffer);
    std::string wanted;
    for (int i = 0; i < 3000; i++) {
        text_buffer_add(&buffer, "%d,%s", i, "x");
        wanted += std::to_string(i) + ",x";
    }
    EXPECT_EQ(buffer.text, wanted);
    EXPECT_EQ(buffer.size, wanted.size());
    EXPECT_FALSE(buffer.failed);
}

TEST(TextBuffer, OnePieceMayBeOfAnySize)
{
    for (const size_t size : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 100000U}) {
        TextBuffer buffer = {};
        const TextBufferGuard held(&buffer);
        const std::string piece(size, 'x');
        text_buffer_add(&buffer, "%s", piece.c_str());
        EXPECT_EQ(buffer.text, piece);
    }
}

TEST(TextBuffer, WithoutMemoryItKeepsWhatItHasAndSaysSo)
{
    TextBuffer buffer = {};
    const TextBufferGuard held(&buffer);
    text_buffer_add(&buffer, "a");
    memory_fail(1);
    text_buffer_add(&buffer, "%s", std::string(4000, 'x').c_str());
    EXPECT_TRUE(memory_failed());
    text_buffer_add(&buffer, "b");
    EXPECT_STREQ(buffer.text, "a");
    EXPECT_TRUE(buffer.failed);
}
