#include <gtest/gtest.h>

#include <vector>

#include "kestor.h"
#include "support/synthetic_pose_graph.h"

using kestor_test::Pose12;

namespace {

std::vector<int> groupsOf(const std::vector<int>& pairs, int nodeCount) {
    std::vector<int> groups(size_t(nodeCount), 99);
    EXPECT_EQ(KESTORFindConnectedGroups(pairs.data(), int(pairs.size() / 2), groups.data(),
                                        nodeCount),
              0);
    return groups;
}

void expectPose(const double* got, const Pose12& want) {
    for (int e = 0; e < 12; ++e) EXPECT_NEAR(got[e], want.m[e], 1e-12) << e;
}

// Which node the tree reached second, from the "next-from" lines.
std::string treeLog(const std::vector<int>& pairs, const std::vector<double>& scores,
                    int nodeCount, bool preferNeighbours) {
    std::vector<double> transforms;
    for (size_t e = 0; e < scores.size(); ++e) {
        const Pose12 id = Pose12::identity();
        transforms.insert(transforms.end(), id.m, id.m + 12);
    }
    std::vector<double> poses(size_t(nodeCount) * 12);
    testing::internal::CaptureStdout();
    KESTORFindInitRTsFromPairMatch(pairs.data(), transforms.data(), scores.data(),
                                   int(scores.size()), poses.data(), nodeCount, preferNeighbours);
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(ConnectedGroups, NumberedBySizeLargestFirst) {
    EXPECT_EQ(groupsOf({0, 1}, 3), (std::vector<int>{0, 0, 1}));
    EXPECT_EQ(groupsOf({0, 1, 2, 3, 3, 4}, 5), (std::vector<int>{1, 1, 0, 0, 0}));
    // Self pairs and indices out of range change nothing; ties keep the order of the lowest node.
    EXPECT_EQ(groupsOf({2, 2, 0, 9, -1, 3}, 5), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(groupsOf({3, 4, 0, 1}, 5), (std::vector<int>{0, 0, 2, 1, 1}));
}

TEST(ConnectedGroups, BadArgumentsGiveOneAndWriteNothing) {
    const int pairs[2] = {0, 1};
    int groups[3] = {7, 7, 7};
    EXPECT_EQ(KESTORFindConnectedGroups(nullptr, 1, groups, 3), 1);
    EXPECT_EQ(KESTORFindConnectedGroups(pairs, 0, groups, 3), 1);
    EXPECT_EQ(KESTORFindConnectedGroups(pairs, 1, nullptr, 3), 1);
    EXPECT_EQ(KESTORFindConnectedGroups(pairs, 1, groups, 0), 1);
    EXPECT_EQ(groups[0] + groups[1] + groups[2], 21);
}

TEST(InitialPoses, PairDirectionDecidesWhetherTheTransformIsInverted) {
    const Pose12 M = Pose12::fromEuler(0.2, -0.1, 0.4, 1, 2, 3);
    std::vector<double> poses(24, 5.0);
    const double score = 1.0;
    const int forward[2] = {1, 0};
    ASSERT_EQ(KESTORFindInitRTsFromPairMatch(forward, M.m, &score, 1, poses.data(), 2, false), 0);
    expectPose(poses.data(), Pose12::identity());
    expectPose(poses.data() + 12, M);
    const int backward[2] = {0, 1};
    ASSERT_EQ(KESTORFindInitRTsFromPairMatch(backward, M.m, &score, 1, poses.data(), 2, false), 0);
    expectPose(poses.data() + 12, M.inverse());
}

TEST(InitialPoses, TreeRecoversTheTruthOfEachComponent) {
    // Two components (0..3 and 4..5) and a lonely node 6; each root comes out as the identity.
    std::vector<Pose12> truth;
    for (int k = 0; k < 7; ++k) truth.push_back(Pose12::fromEuler(0.1 * k, -0.05 * k, 0.3 * k, k, 0.5 * k, 1));
    const std::vector<int> pairs = {1, 0, 2, 1, 0, 3, 3, 2, 5, 4, 4, 6 + 10};
    std::vector<double> transforms, scores = {0.5, 0.9, 0.2, 0.7, 0.4, 0.9};
    for (size_t e = 0; e < pairs.size() / 2; ++e) {
        const int i = pairs[2 * e], j = pairs[2 * e + 1] % 10;
        const Pose12 z = truth[j].inverse() * truth[i];  // pose[first] = pose[second] * RT
        transforms.insert(transforms.end(), z.m, z.m + 12);
    }
    std::vector<double> poses(7 * 12, 5.0);
    testing::internal::CaptureStdout();
    ASSERT_EQ(KESTORFindInitRTsFromPairMatch(pairs.data(), transforms.data(), scores.data(), 6,
                                             poses.data(), 7, false),
              0);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(log, "[KESTOR INFO] 1-0\n[KESTOR INFO] 2-1\n[KESTOR INFO] 3-2\n[KESTOR INFO] 5-4\n");
    for (int k = 0; k < 4; ++k) expectPose(&poses[12 * k], truth[0].inverse() * truth[k]);
    expectPose(&poses[12 * 5], truth[4].inverse() * truth[5]);
    expectPose(&poses[12 * 4], Pose12::identity());
    expectPose(&poses[12 * 6], Pose12::identity());
}

TEST(InitialPoses, NeighboursOrScoresChooseTheNextNode) {
    const std::vector<int> pairs = {0, 1, 0, 5};
    EXPECT_EQ(treeLog(pairs, {0.1, 0.9}, 6, true).substr(0, 18), "[KESTOR INFO] 1-0\n");
    EXPECT_EQ(treeLog(pairs, {0.1, 0.9}, 6, false).substr(0, 18), "[KESTOR INFO] 5-0\n");
    EXPECT_EQ(treeLog(pairs, {0.5, 0.5}, 6, false).substr(0, 18), "[KESTOR INFO] 1-0\n");
}

TEST(InitialPoses, RepeatedPairTakesTheLaterTransform) {
    const Pose12 first = Pose12::fromEuler(0, 0, 0, 1, 0, 0);
    const Pose12 later = Pose12::fromEuler(0, 0, 0, 2, 0, 0);
    const int pairs[4] = {1, 0, 1, 0};
    double transforms[24];
    std::copy(first.m, first.m + 12, transforms);
    std::copy(later.m, later.m + 12, transforms + 12);
    const double scores[2] = {0.9, 0.1};
    std::vector<double> poses(24);
    testing::internal::CaptureStdout();
    KESTORFindInitRTsFromPairMatch(pairs, transforms, scores, 2, poses.data(), 2, false);
    testing::internal::GetCapturedStdout();
    expectPose(poses.data() + 12, later);
}

TEST(InitialPoses, BadArgumentsGiveOneAndWriteNothing) {
    const int pairs[2] = {1, 0};
    const Pose12 M = Pose12::identity();
    const double score = 1;
    std::vector<double> poses(24, 7.0);
    double* p = poses.data();
    EXPECT_EQ(KESTORFindInitRTsFromPairMatch(nullptr, M.m, &score, 1, p, 2, false), 1);
    EXPECT_EQ(KESTORFindInitRTsFromPairMatch(pairs, nullptr, &score, 1, p, 2, false), 1);
    EXPECT_EQ(KESTORFindInitRTsFromPairMatch(pairs, M.m, nullptr, 1, p, 2, false), 1);
    EXPECT_EQ(KESTORFindInitRTsFromPairMatch(pairs, M.m, &score, 0, p, 2, false), 1);
    EXPECT_EQ(KESTORFindInitRTsFromPairMatch(pairs, M.m, &score, 1, nullptr, 2, false), 1);
    EXPECT_EQ(KESTORFindInitRTsFromPairMatch(pairs, M.m, &score, 1, p, 0, false), 1);
    for (double v : poses) EXPECT_EQ(v, 7.0);
}
