#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kestor.h"

// Each row breaks one argument of a pose-graph export: the optimiser answers 4, the two helpers
// 1, and no pose, weight or group is written. Counts whose products do not fit an int are refused
// although the buffers are far too small for what they claim: 60 million edges hold more
// information values (36 each) than an int counts, 2^28 poses more pose values (12 each), 2^30
// pairs more indices (2 each) and transform values.
TEST(GraphExports, BadArgumentsAndOverflowingCountsWriteNothing) {
    const std::vector<int> pairs = {0, 1, 1, 2, 2, 0};
    const std::vector<double> transforms(36, 0.5), information(108, 1.0), scores(3, 1.0);
    std::vector<double> poses(36, 7.0), weights(3, 7.0);
    std::vector<int> groups(3, -5);
    const int* p = pairs.data();
    const double *z = transforms.data(), *info = information.data(), *s = scores.data();
    double *out = poses.data(), *w = weights.data();
    int* g = groups.data();
    const auto optimize = [&](const int* p, const double* z, const double* info, double* out, int edges, int nodes) {
        return KESTOROptimizePoseGraph(p, z, info, nullptr, w, edges, out, nodes, 5, 1.0, 1.0, 0.25, false, false, nullptr, nullptr);
    };
    const struct Row { const char* broken; std::function<int()> call; int status; } rows[] = {
        {"Optimize pairs", [&] { return optimize(nullptr, z, info, out, 3, 3); }, 4},
        {"Optimize transforms", [&] { return optimize(p, nullptr, info, out, 3, 3); }, 4},
        {"Optimize information", [&] { return optimize(p, z, nullptr, out, 3, 3); }, 4},
        {"Optimize poses", [&] { return optimize(p, z, info, nullptr, 3, 3); }, 4},
        {"Optimize no edge", [&] { return optimize(p, z, info, out, 0, 3); }, 4},
        {"Optimize one pose", [&] { return optimize(p, z, info, out, 3, 1); }, 4},
        {"Optimize information values", [&] { return optimize(p, z, info, out, 60000000, 3); }, 4},
        {"Optimize pose values", [&] { return optimize(p, z, info, out, 3, 1 << 28); }, 4},
        {"Optimize pair indices", [&] { return optimize(p, z, info, out, 1 << 30, 3); }, 4},
        {"Groups pairs", [&] { return KESTORFindConnectedGroups(nullptr, 3, g, 3); }, 1},
        {"Groups no pair", [&] { return KESTORFindConnectedGroups(p, 0, g, 3); }, 1},
        {"Groups groups", [&] { return KESTORFindConnectedGroups(p, 3, nullptr, 3); }, 1},
        {"Groups no node", [&] { return KESTORFindConnectedGroups(p, 3, g, 0); }, 1},
        {"Groups pair indices", [&] { return KESTORFindConnectedGroups(p, 1 << 30, g, 3); }, 1},
        {"InitRTs pairs", [&] { return KESTORFindInitRTsFromPairMatch(nullptr, z, s, 3, out, 3, false); }, 1},
        {"InitRTs transforms", [&] { return KESTORFindInitRTsFromPairMatch(p, nullptr, s, 3, out, 3, false); }, 1},
        {"InitRTs scores", [&] { return KESTORFindInitRTsFromPairMatch(p, z, nullptr, 3, out, 3, false); }, 1},
        {"InitRTs no pair", [&] { return KESTORFindInitRTsFromPairMatch(p, z, s, 0, out, 3, false); }, 1},
        {"InitRTs poses", [&] { return KESTORFindInitRTsFromPairMatch(p, z, s, 3, nullptr, 3, false); }, 1},
        {"InitRTs no node", [&] { return KESTORFindInitRTsFromPairMatch(p, z, s, 3, out, 0, false); }, 1},
        {"InitRTs transform values", [&] { return KESTORFindInitRTsFromPairMatch(p, z, s, 1 << 30, out, 3, true); }, 1},
        {"InitRTs pose values", [&] { return KESTORFindInitRTsFromPairMatch(p, z, s, 3, out, 1 << 28, true); }, 1},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.call(), r.status) << r.broken;
        EXPECT_EQ(poses, std::vector<double>(36, 7.0)) << r.broken;
        EXPECT_EQ(weights, std::vector<double>(3, 7.0)) << r.broken;
        EXPECT_EQ(groups, std::vector<int>(3, -5)) << r.broken;
    }
}
