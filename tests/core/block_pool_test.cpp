#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "core/block_pool.h"

using kestor::BlockPool;

namespace {

// Counts chunk traffic so the tests see exactly when the pool allocates.
struct CountingAllocator {
    std::vector<void*> live;
    int allocations = 0;
    std::vector<void*> freedOrder;
    BlockPool make(size_t blockBytes, size_t perChunk) {
        return BlockPool(
            blockBytes, perChunk,
            [this](size_t bytes) {
                ++allocations;
                live.push_back(std::malloc(bytes));
                return live.back();
            },
            [this](void* chunk) {
                freedOrder.push_back(chunk);
                std::free(chunk);
            });
    }
};

}  // namespace

// Free blocks go out most recently freed first, and only then does the pool carve a new chunk.
TEST(BlockPool, CarvesChunksInOrderAndReusesTheMostRecentlyFreedBlockFirst) {
    CountingAllocator counter;
    BlockPool pool = counter.make(16, 3);
    void* a = pool.take();
    void* b = pool.take();
    void* c = pool.take();
    EXPECT_EQ(static_cast<char*>(b) - static_cast<char*>(a), 16);
    EXPECT_EQ(static_cast<char*>(c) - static_cast<char*>(a), 32);
    pool.giveBack(a);
    pool.giveBack(c);
    pool.giveBack(b);
    EXPECT_EQ(pool.take(), b);
    EXPECT_EQ(pool.take(), c);
    EXPECT_EQ(pool.take(), a);
    EXPECT_EQ(counter.allocations, 1);
    void* d = pool.take();  // the first chunk is used up
    EXPECT_EQ(counter.allocations, 2);
    EXPECT_EQ(d, counter.live[1]);
}

TEST(BlockPool, ResetsOnlyWhenEveryBlockHandedOutIsBack) {
    CountingAllocator counter;
    BlockPool pool = counter.make(8, 2);
    EXPECT_FALSE(pool.resetIfComplete());  // an empty pool stays as it is
    std::vector<void*> blocks;
    for (int i = 0; i < 3; ++i) blocks.push_back(pool.take());  // two chunks, one block of the second
    pool.giveBack(blocks[0]);
    pool.giveBack(blocks[2]);
    EXPECT_FALSE(pool.resetIfComplete());
    EXPECT_EQ(pool.chunkCount(), 2u);
    pool.giveBack(blocks[1]);
    EXPECT_TRUE(pool.resetIfComplete());
    EXPECT_EQ(pool.chunkCount(), 0u);
    EXPECT_EQ(pool.freeCount(), 0u);
    ASSERT_EQ(counter.freedOrder.size(), 2u);  // newest chunk first
    EXPECT_EQ(counter.freedOrder[0], counter.live[1]);
    EXPECT_EQ(counter.freedOrder[1], counter.live[0]);
    pool.take();  // a released pool starts a new chunk
    EXPECT_EQ(counter.allocations, 3);
}

TEST(BlockPool, NullChunksGiveOffsetsFromNullAndZeroByteBlocksGiveNull) {
    BlockPool device(100, 4, [](size_t) { return nullptr; }, [](void*) {});
    EXPECT_EQ(device.take(), nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(device.take()), 100u);
    BlockPool empty(0, 4, [](size_t) -> void* { ADD_FAILURE() << "no chunk for empty blocks"; return nullptr; },
                    [](void*) {});
    EXPECT_EQ(empty.take(), nullptr);
    EXPECT_EQ(empty.chunkCount(), 0u);
}
