// LargePageBlock: aligned, writable blocks that are kept while large enough.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "LargePageBlock.h"

namespace {

using vyra::detail::LargePageBlock;

bool aligned(const unsigned char* p) {
    return reinterpret_cast<std::uintptr_t>(p) % LargePageBlock::kAlignment == 0;
}

TEST(LargePageBlock, BlocksAreAlignedWholeLargePagesAndWritable) {
    EXPECT_EQ(LargePageBlock::kAlignment, size_t(2) << 20);
    LargePageBlock block;
    EXPECT_EQ(block.capacity(), 0u);
    unsigned char* p = block.Reserve(5 * 1000 * 1000);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(aligned(p));
    EXPECT_EQ(block.capacity(), 3 * LargePageBlock::kAlignment);  // 5 MB rounded up to whole 2 MiB pages
    std::memset(p, 0xA5, block.capacity());
    EXPECT_EQ(p[0], 0xA5);
    EXPECT_EQ(p[block.capacity() - 1], 0xA5);
}

TEST(LargePageBlock, KeptWhileLargeEnoughAndReplacedWhenNot) {
    LargePageBlock block;
    unsigned char* first = block.Reserve(LargePageBlock::kAlignment);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(block.capacity(), LargePageBlock::kAlignment);
    first[100] = 7;
    // Smaller and equal requests keep the block and its contents.
    EXPECT_EQ(block.Reserve(10), first);
    EXPECT_EQ(block.Reserve(LargePageBlock::kAlignment), first);
    EXPECT_EQ(first[100], 7);
    // One byte more needs a second large page: a new, fresh block.
    unsigned char* second = block.Reserve(LargePageBlock::kAlignment + 1);
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(aligned(second));
    EXPECT_EQ(block.capacity(), 2 * LargePageBlock::kAlignment);
    second[block.capacity() - 1] = 1;  // the whole capacity is usable
    EXPECT_EQ(second[100], 0);         // anonymous memory starts zeroed
}

}  // namespace
