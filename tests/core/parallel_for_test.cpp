#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "core/parallel_for.h"
#include "kestor.h"

using namespace kestor;

namespace {

using Block = std::tuple<int, int, int>;  // begin, end, slot

std::vector<Block> blocksOf(bool parallel, int begin, int end) {
    std::vector<Block> blocks;
    std::mutex m;
    runLoop(parallel, begin, end, [&](int b, int e, int slot) {
        std::lock_guard<std::mutex> lock(m);
        blocks.emplace_back(b, e, slot);
    });
    std::sort(blocks.begin(), blocks.end());
    return blocks;
}

struct ThreadCount {
    explicit ThreadCount(int n) : saved(KESTORGetThreadNum()) { KESTORSetThreadNum(n); }
    ~ThreadCount() { KESTORSetThreadNum(saved); }
    int saved;
};

}  // namespace

TEST(ParallelFor, TenItemsOnFourThreadsGoInBlocksOfThree) {
    ThreadCount threads(4);
    const std::vector<Block> expected{{0, 3, 0}, {3, 6, 1}, {6, 9, 2}, {9, 10, 3}};
    EXPECT_EQ(blocksOf(true, 0, 10), expected);
}

TEST(ParallelFor, OffsetRangeAndThreadsThatGetNothing) {
    ThreadCount threads(4);
    // 5 items: chunk 2, the fourth thread's lower bound reaches the end.
    const std::vector<Block> expected{{100, 102, 0}, {102, 104, 1}, {104, 105, 2}};
    EXPECT_EQ(blocksOf(true, 100, 105), expected);
}

TEST(ParallelFor, SmallRangesAndOneThreadRunOnTheCaller) {
    ThreadCount threads(4);
    const auto caller = std::this_thread::get_id();
    std::thread::id seen;
    parallelFor(7, 8, [&](int, int, int) { seen = std::this_thread::get_id(); });
    EXPECT_EQ(seen, caller);
    EXPECT_EQ(blocksOf(true, 7, 8), (std::vector<Block>{{7, 8, 0}}));
    // An empty or reversed range still reaches the body once, on the caller.
    EXPECT_EQ(blocksOf(true, 5, 5), (std::vector<Block>{{5, 5, 0}}));
    KESTORSetThreadNum(1);
    EXPECT_EQ(blocksOf(true, 0, 10), (std::vector<Block>{{0, 10, 0}}));
}

TEST(ParallelFor, SerialRunsTheWholeRangeInSlotZero) {
    ThreadCount threads(4);
    EXPECT_EQ(blocksOf(false, 0, 10), (std::vector<Block>{{0, 10, 0}}));
    EXPECT_EQ(loopSlots(false), 1);
    EXPECT_EQ(loopSlots(true), 4);
}

TEST(ParallelFor, EmptyBodyDoesNothing) {
    LoopBody empty;
    EXPECT_NO_THROW(parallelFor(0, 10, empty));
    EXPECT_NO_THROW(serialFor(0, 10, empty));
}

TEST(ParallelFor, EveryItemOnceWithPerSlotAccumulators) {
    ThreadCount threads(3);
    const int n = 1000;
    std::vector<long> sums(size_t(loopSlots(true)), 0);
    std::vector<int> hits(n, 0);
    parallelFor(0, n, [&](int b, int e, int slot) {
        for (int i = b; i < e; ++i) {
            sums[size_t(slot)] += i;
            ++hits[size_t(i)];
        }
    });
    long total = 0;
    for (long s : sums) total += s;
    EXPECT_EQ(total, long(n) * (n - 1) / 2);
    EXPECT_TRUE(std::all_of(hits.begin(), hits.end(), [](int h) { return h == 1; }));
}
