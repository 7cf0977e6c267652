#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kestor.h"
#include "support/synthetic_pose_graph.h"

using kestor_test::Pose12;

namespace {

void expectPose(const double* got, const Pose12& want) {
    for (int e = 0; e < 12; ++e) EXPECT_NEAR(got[e], want.m[e], 1e-12) << e;
}

// Runs the initial-pose tree on the given pairs and transforms; returns its "next-from" lines.
std::string initialPoses(const std::vector<int>& pairs, const std::vector<Pose12>& transforms,
                         const std::vector<double>& scores, std::vector<double>& poses,
                         bool preferNeighbours = false) {
    std::vector<double> flat;
    for (const Pose12& z : transforms) flat.insert(flat.end(), z.m, z.m + 12);
    testing::internal::CaptureStdout();
    EXPECT_EQ(KESTORFindInitRTsFromPairMatch(pairs.data(), flat.data(), scores.data(),
                                             int(scores.size()), poses.data(),
                                             int(poses.size() / 12), preferNeighbours),
              0);
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(ConnectedGroups, NumberedBySizeLargestFirst) {
    struct Case {
        std::vector<int> pairs, groups;
    };
    // Self pairs and indices out of range change nothing; ties keep the order of the lowest node.
    for (const Case& c : {Case{{0, 1}, {0, 0, 1}}, Case{{0, 1, 2, 3, 3, 4}, {1, 1, 0, 0, 0}},
                          Case{{2, 2, 0, 9, -1, 3}, {0, 1, 2, 3, 4}},
                          Case{{3, 4, 0, 1}, {0, 0, 2, 1, 1}}}) {
        std::vector<int> groups(c.groups.size(), 99);
        EXPECT_EQ(KESTORFindConnectedGroups(c.pairs.data(), int(c.pairs.size() / 2), groups.data(),
                                            int(groups.size())),
                  0);
        EXPECT_EQ(groups, c.groups);
    }
}

// A pair that names the new node second has its transform inverted (the tree below takes every
// pair the other way round); a pair given twice takes its later transform.
TEST(InitialPoses, PairDirectionDecidesWhetherTheTransformIsInverted) {
    const Pose12 M = Pose12::fromEuler(0.2, -0.1, 0.4, 1, 2, 3), later = Pose12::fromEuler(0, 0, 0, 2, 0, 0);
    std::vector<double> poses(24, 5.0);
    initialPoses({0, 1}, {M}, {1.0}, poses);
    expectPose(poses.data() + 12, M.inverse());
    initialPoses({1, 0, 1, 0}, {M, later}, {0.9, 0.1}, poses);
    expectPose(poses.data() + 12, later);
}

TEST(InitialPoses, TreeRecoversTheTruthOfEachComponent) {
    // Two components (0..3 and 4..5) and a lonely node 6; each root comes out as the identity.
    std::vector<Pose12> truth, transforms;
    for (int k = 0; k < 7; ++k) truth.push_back(Pose12::fromEuler(0.1 * k, -0.05 * k, 0.3 * k, k, 0.5 * k, 1));
    const std::vector<int> pairs = {1, 0, 2, 1, 0, 3, 3, 2, 5, 4, 4, 6 + 10};
    for (size_t e = 0; e < pairs.size() / 2; ++e)  // pose[first] = pose[second] * RT
        transforms.push_back(truth[size_t(pairs[2 * e + 1] % 10)].inverse() * truth[size_t(pairs[2 * e])]);
    std::vector<double> poses(7 * 12, 5.0);
    EXPECT_EQ(initialPoses(pairs, transforms, {0.5, 0.9, 0.2, 0.7, 0.4, 0.9}, poses),
              "[KESTOR INFO] 1-0\n[KESTOR INFO] 2-1\n[KESTOR INFO] 3-2\n[KESTOR INFO] 5-4\n");
    for (int k = 0; k < 4; ++k) expectPose(&poses[12 * k], truth[0].inverse() * truth[k]);
    expectPose(&poses[12 * 5], truth[4].inverse() * truth[5]);
    expectPose(&poses[12 * 4], Pose12::identity());
    expectPose(&poses[12 * 6], Pose12::identity());
}

TEST(InitialPoses, NeighboursOrScoresChooseTheNextNode) {
    std::vector<double> poses(6 * 12);
    const std::vector<Pose12> z(2, Pose12::identity());
    EXPECT_EQ(initialPoses({0, 1, 0, 5}, z, {0.1, 0.9}, poses, true).substr(0, 18), "[KESTOR INFO] 1-0\n");
    EXPECT_EQ(initialPoses({0, 1, 0, 5}, z, {0.1, 0.9}, poses).substr(0, 18), "[KESTOR INFO] 5-0\n");
    EXPECT_EQ(initialPoses({0, 1, 0, 5}, z, {0.5, 0.5}, poses).substr(0, 18), "[KESTOR INFO] 1-0\n");
}
