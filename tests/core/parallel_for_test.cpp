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

// How a range is cut into blocks: one per thread of ceil(n / threads) items, threads whose lower
// bound reaches the end get nothing; small, empty and reversed ranges, one thread and the serial
// form run the whole range once in slot 0.
TEST(ParallelFor, BlocksPerThreadCount) {
    const struct Case { int threads; bool parallel; int begin, end; std::vector<Block> blocks; } cases[] = {
        {4, true, 0, 10, {{0, 3, 0}, {3, 6, 1}, {6, 9, 2}, {9, 10, 3}}},
        {4, true, 100, 105, {{100, 102, 0}, {102, 104, 1}, {104, 105, 2}}},
        {4, true, 7, 8, {{7, 8, 0}}},
        {4, true, 5, 5, {{5, 5, 0}}},
        {1, true, 0, 10, {{0, 10, 0}}},
        {4, false, 0, 10, {{0, 10, 0}}},
    };
    for (const Case& c : cases) {
        ThreadCount threads(c.threads);
        EXPECT_EQ(blocksOf(c.parallel, c.begin, c.end), c.blocks) << c.threads << " " << c.begin << " " << c.end;
        EXPECT_EQ(loopSlots(c.parallel), c.parallel ? c.threads : 1);
    }
    ThreadCount threads(4);
    const auto caller = std::this_thread::get_id();
    std::thread::id seen;
    parallelFor(7, 8, [&](int, int, int) { seen = std::this_thread::get_id(); });
    EXPECT_EQ(seen, caller) << "a one-item range runs on the caller";
}

TEST(ParallelFor, EmptyBodyDoesNothing) {
    LoopBody empty;
    EXPECT_NO_THROW(parallelFor(0, 10, empty));
    EXPECT_NO_THROW(serialFor(0, 10, empty));
}
