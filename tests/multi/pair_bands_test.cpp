// How the bands of a joint-alignment pass are shared out between threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "multi/pair_bands.h"

namespace kestor {
namespace {

TEST(BalancedCuts, RunsOfNeighbouringBandsWithAboutEqualCost) {
    struct Case {
        std::vector<int64_t> costs;
        int parts;
        std::vector<int> cuts;
    };
    const Case cases[] = {
        {{1, 1, 1, 1}, 2, {0, 2, 4}},
        {{1, 1, 1, 5}, 2, {0, 3, 4}},           // the dense bottom band alone
        {{5, 1, 1, 1}, 2, {0, 1, 4}},           // the same at the top
        // The band that crosses the half goes to the side it is mostly on.
        {{2, 1, 4, 1}, 2, {0, 2, 4}},
        {{1, 5, 1, 1}, 2, {0, 2, 4}},
        {{0, 0, 0, 10}, 2, {0, 3, 4}},
        {{0, 0, 0}, 2, {0, 3, 3}},              // nothing to share: every band to the first run
        {{3, 3, 3, 3, 3, 3}, 3, {0, 2, 4, 6}},
        {{1, 2, 3}, 1, {0, 3}},
        {{}, 2, {0, 0, 0}},
    };
    for (const Case& c : cases) EXPECT_EQ(balancedCuts(c.costs, c.parts), c.cuts);
}

TEST(BalancedCuts, NoRunExceedsItsShareByMoreThanOneBand) {
    std::vector<int64_t> costs;
    for (int b = 0; b < 60; ++b) costs.push_back((b * 37) % 11 + (b > 40 ? 30 : 0));
    int64_t total = 0, largest = 0;
    for (int64_t c : costs) total += c, largest = std::max(largest, c);
    for (int parts = 1; parts <= 5; ++parts) {
        const std::vector<int> cuts = balancedCuts(costs, parts);
        ASSERT_EQ(cuts.size(), size_t(parts) + 1);
        EXPECT_EQ(cuts.front(), 0);
        EXPECT_EQ(cuts.back(), int(costs.size()));
        for (int s = 0; s < parts; ++s) {
            ASSERT_LE(cuts[size_t(s)], cuts[size_t(s) + 1]);
            int64_t run = 0;
            for (int b = cuts[size_t(s)]; b < cuts[size_t(s) + 1]; ++b) run += costs[size_t(b)];
            EXPECT_LE(run, total / parts + largest) << parts << " parts, run " << s;
        }
    }
}

}  // namespace
}  // namespace kestor
