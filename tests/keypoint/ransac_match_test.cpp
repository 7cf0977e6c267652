#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <chrono>
#include <climits>
#include <cmath>
#include <vector>

#include "kestor.h"
#include "keypoint/triangle_alignment.h"
#include "keypoint_problem.h"

using kestor_test::KeyPointProblem;
using kestor_test::Pose;
using kestor_test::ReportedPairs;

namespace {

struct RansacRun {
    int status = -1;
    double result[12];
    ReportedPairs reported;
};

constexpr double kUntouched = -123.0;

RansacRun runRansac(const KeyPointProblem& p, int iterations, double edgeRatio, bool parallel,
                    bool targetNormals = false, bool sourceNormals = false,
                    int sourceCount = -1) {
    RansacRun run;
    std::fill(run.result, run.result + 12, kUntouched);
    run.status = KESTORMatchKeyPointsRansac(
        p.target.data(), targetNormals ? p.targetNormals.data() : nullptr,
        p.targetDescriptors.data(), p.count, p.source.data(),
        sourceNormals ? p.sourceNormals.data() : nullptr, p.sourceDescriptors.data(),
        sourceCount < 0 ? p.count : sourceCount, p.dimension, run.result, iterations, edgeRatio,
        0.02, false, parallel, &ReportedPairs::collect, &run.reported);
    return run;
}

bool untouched(const double* result) {
    for (int i = 0; i < 12; ++i)
        if (result[i] != kUntouched) return false;
    return true;
}

void expectRecovered(const KeyPointProblem& p, const RansacRun& run, const char* what) {
    ASSERT_EQ(run.status, KESTOR_STATUS_OK);
    ASSERT_FALSE(untouched(run.result)) << what;
    const Pose found = Pose::fromMatrix(run.result);
    EXPECT_LT((found.R - p.motion.R).norm(), 1e-3) << what;
    EXPECT_LT(kestor_test::translationError(found, p.motion), 1e-3) << what;
    EXPECT_EQ(run.reported.calls, 1);
    EXPECT_EQ(run.reported.pairs, p.truePairs) << what;
}

Eigen::Matrix3d rotationOf(const kestor::RT_<float>& rt) {
    Eigen::Matrix3d R;
    for (int i = 0; i < 9; ++i) R(i / 3, i % 3) = rt.rotation[i];
    return R;
}

}  // namespace

TEST(TriangleAlignment, LaysARigidCopyOntoItsImage) {
    std::mt19937 rng(17);
    std::uniform_real_distribution<double> uni(-1, 1);
    for (int trial = 0; trial < 200; ++trial) {
        const Pose truth = kestor_test::randomMotion(rng);
        float s[9], t[9];
        for (int k = 0; k < 3; ++k) {
            const Eigen::Vector3d p(uni(rng), uni(rng), uni(rng));
            const Eigen::Vector3d q = truth.R * p + truth.t;
            for (int i = 0; i < 3; ++i) {
                s[k * 3 + i] = float(p[i]);
                t[k * 3 + i] = float(q[i]);
            }
        }
        const kestor::RT_<float> rt = kestor::alignTriangles(s, s + 3, s + 6, t, t + 3, t + 6);
        const Eigen::Matrix3d R = rotationOf(rt);
        // Thin triangles are the search's business; check only well-shaped ones tightly.
        const Eigen::Vector3d a(s[3] - s[0], s[4] - s[1], s[5] - s[2]);
        const Eigen::Vector3d b(s[6] - s[0], s[7] - s[1], s[8] - s[2]);
        if (a.cross(b).norm() < 0.1) continue;
        EXPECT_LT((R - truth.R).norm(), 1e-4) << trial;
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(rt.translation[i], truth.t[i], 1e-4) << trial;
    }
}

TEST(TriangleAlignment, OppositeNormalsStillGiveAProperRotation) {
    // The target is the source's mirror image in its own plane: the normals oppose, the first
    // rotation is the identity, and the in-plane fit still yields a rotation.
    const float s[9] = {0, 0, 0, 1, 0, 0, 0, 2, 0};
    const float t[9] = {0, 0, 0, 0, 2, 0, 1, 0, 0};
    const kestor::RT_<float> rt = kestor::alignTriangles(s, s + 3, s + 6, t, t + 3, t + 6);
    const Eigen::Matrix3d R = rotationOf(rt);
    EXPECT_NEAR(R.determinant(), 1.0, 1e-5);
    EXPECT_LT((R * R.transpose() - Eigen::Matrix3d::Identity()).norm(), 1e-5);
}

TEST(TriangleAlignment, RodriguesFormTurnsAboutTheVector) {
    const double quarter[3] = {0, 0, M_PI / 2};
    float R[9];
    kestor::rodriguesRotation(quarter, R);
    const float expected[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(R[i], expected[i], 1e-7f) << i;
    // Below 1e-7 the series limits are used: I + [w] + [w]^2 / 2.
    const double tiny[3] = {5e-8, 0, 0};
    kestor::rodriguesRotation(tiny, R);
    EXPECT_EQ(R[7], 5e-8f);
    EXPECT_EQ(R[5], -5e-8f);
    EXPECT_EQ(R[0], 1.0f);
}

TEST(RansacMatch, FindsTheMotionAndTheInliersAmongManyWrongMatches) {
    unsigned seed = 100;
    for (int count : {500, 2000, 5000}) {
        for (double wrong : {0.3, 0.5, 0.7}) {
            const KeyPointProblem p = kestor_test::makeKeyPointProblem(count, wrong, ++seed);
            const bool parallel = seed % 2 == 0;
            const RansacRun run = runRansac(p, 2000, seed % 3 == 0 ? 0.0 : 0.9, parallel);
            expectRecovered(p, run, (std::to_string(count) + " " + std::to_string(wrong)).c_str());
        }
    }
}

TEST(RansacMatch, SerialAndParallelBothSucceedOverManySeeds) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
        const KeyPointProblem p = kestor_test::makeKeyPointProblem(600, 0.6, seed);
        expectRecovered(p, runRansac(p, 1500, 0.9, false), "serial");
        expectRecovered(p, runRansac(p, 1500, 0.9, true), "parallel");
    }
}

TEST(RansacMatch, NormalsCountOnlyWhenBothListsAreGiven) {
    KeyPointProblem p = kestor_test::makeKeyPointProblem(300, 0.5, 77);
    expectRecovered(p, runRansac(p, 1000, 0.9, true, true, true), "both normals");
    // Flipped target normals: no pair passes the normal test, so nothing is found.
    for (float& n : p.targetNormals) n = -n;
    const RansacRun flipped = runRansac(p, 1000, 0.9, true, true, true);
    EXPECT_EQ(flipped.status, KESTOR_STATUS_OK);
    EXPECT_TRUE(untouched(flipped.result));
    EXPECT_TRUE(flipped.reported.pairs.empty());
    // With one list missing the other is ignored.
    expectRecovered(p, runRansac(p, 1000, 0.9, true, true, false), "target normals only");
    expectRecovered(p, runRansac(p, 1000, 0.9, true, false, true), "source normals only");
}

TEST(RansacMatch, FindsNothingInItsRejectionCases) {
    const KeyPointProblem p = kestor_test::makeKeyPointProblem(200, 0.0, 4);
    struct Case {
        const char* what;
        int iterations;
        double edgeRatio;
        int sourceCount;
    };
    for (const Case c : {Case{"no iterations", 0, 0.9, -1},
                         Case{"edge ratio 1 rejects every sample", 500, 1.0, -1},
                         Case{"two correspondences", 500, 0.9, 2}}) {
        for (bool parallel : {false, true}) {
            const RansacRun run = runRansac(p, c.iterations, c.edgeRatio, parallel, false, false,
                                            c.sourceCount);
            EXPECT_EQ(run.status, KESTOR_STATUS_OK) << c.what;
            EXPECT_TRUE(untouched(run.result)) << c.what;
            EXPECT_EQ(run.reported.calls, 1) << c.what;
            EXPECT_TRUE(run.reported.pairs.empty()) << c.what;
        }
    }
}

TEST(RansacMatch, FourCorrespondencesOfARigidMotionAreAllInliers) {
    const KeyPointProblem p = kestor_test::makeKeyPointProblem(4, 0.0, 12);
    const RansacRun run = runRansac(p, 300, 0.0, false);
    expectRecovered(p, run, "four");
    EXPECT_EQ(run.reported.pairs.size(), 4u);
}

TEST(RansacMatch, StopsEarlyWhenMostPairsAgree) {
    // A billion hypotheses would take minutes; the first good one explains every pair, more
    // than three quarters, and ends the search.
    const KeyPointProblem p = kestor_test::makeKeyPointProblem(100, 0.0, 8);
    for (bool parallel : {false, true}) {
        const auto start = std::chrono::steady_clock::now();
        const RansacRun run = runRansac(p, INT_MAX / 2, 0.9, parallel);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        expectRecovered(p, run, "early stop");
        EXPECT_LT(seconds, 5.0);
    }
}
