// Counts whose products do not fit an int: refused before any buffer is touched, even though the
// buffers here are far too small for what the counts claim.
#include <gtest/gtest.h>

#include <vector>

#include "kestor.h"

TEST(PoseGraphExports, CountsWhoseProductsOverflowAreRefusedBeforeAnyWrite) {
    const std::vector<int> pairs = {0, 1, 1, 2, 2, 0};
    const std::vector<double> transforms(36, 0.5), information(108, 1.0), scores(3, 1.0);
    std::vector<double> poses(36, 7.0), weights(3, 7.0);
    std::vector<int> groups(3, -5);
    struct Case {
        const char* name;
        int edges, nodes;
    };
    // 60 million edges hold more information values (36 each) than an int counts, 2^28 poses
    // more pose values (12 each), 2^30 pairs more indices (2 each).
    const Case cases[] = {{"information values", 60000000, 3},
                          {"pose values", 3, 1 << 28},
                          {"pair indices", 1 << 30, 3}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(KESTOROptimizePoseGraph(pairs.data(), transforms.data(), information.data(), nullptr,
                                          weights.data(), c.edges, poses.data(), c.nodes, 5, 1.0,
                                          1.0, 0.25, false, false, nullptr, nullptr), 4);
        // These two answer bad arguments with 1. Sixty million pairs of 12 pose values each
        // would fit, so the first case is not theirs.
        if (c.edges == 60000000) continue;
        EXPECT_EQ(KESTORFindInitRTsFromPairMatch(pairs.data(), transforms.data(), scores.data(),
                                                 c.edges, poses.data(), c.nodes, true), 1);
        if (c.nodes == 3) {
            EXPECT_EQ(KESTORFindConnectedGroups(pairs.data(), c.edges, groups.data(), 3), 1);
        }
    }
    EXPECT_EQ(poses, std::vector<double>(36, 7.0));
    EXPECT_EQ(weights, std::vector<double>(3, 7.0));
    EXPECT_EQ(groups, std::vector<int>(3, -5));
}
