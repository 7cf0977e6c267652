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

void expectRecovered(const KeyPointProblem& p, const RansacRun& run) {
    ASSERT_EQ(run.status, KESTOR_STATUS_OK);
    ASSERT_FALSE(untouched(run.result));
    const Pose found = Pose::fromMatrix(run.result);
    EXPECT_LT((found.R - p.motion.R).norm(), 1e-3);
    EXPECT_LT(kestor_test::translationError(found, p.motion), 1e-3);
    EXPECT_EQ(run.reported.calls, 1);
    EXPECT_EQ(run.reported.pairs, p.truePairs);
}

// Nothing found: status 0, result unchanged, the callback run once with no pair.
void expectNothing(const RansacRun& run) {
    EXPECT_EQ(run.status, KESTOR_STATUS_OK);
    EXPECT_TRUE(untouched(run.result));
    EXPECT_EQ(run.reported.calls, 1);
    EXPECT_TRUE(run.reported.pairs.empty());
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
        Eigen::Matrix<float, 3, 3> s, t;  // one point a column
        for (int k = 0; k < 3; ++k) {
            const Eigen::Vector3d p(uni(rng), uni(rng), uni(rng));
            s.col(k) = p.cast<float>();
            t.col(k) = (truth.R * p + truth.t).cast<float>();
        }
        // Thin triangles are the search's business; check only well-shaped ones tightly.
        if ((s.col(1) - s.col(0)).cross(s.col(2) - s.col(0)).norm() < 0.1f) continue;
        const kestor::RT_<float> rt = kestor::alignTriangles(&s(0, 0), &s(0, 1), &s(0, 2), &t(0, 0), &t(0, 1), &t(0, 2));
        EXPECT_LT((rotationOf(rt) - truth.R).norm(), 1e-4) << trial;
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(rt.translation[i], truth.t[i], 1e-4) << trial;
    }
    // The target is the source's mirror image in its own plane: the normals oppose, the first
    // rotation is the identity, and the in-plane fit still yields a rotation.
    const float a[9] = {0, 0, 0, 1, 0, 0, 0, 2, 0}, b[9] = {0, 0, 0, 0, 2, 0, 1, 0, 0};
    const Eigen::Matrix3d R = rotationOf(kestor::alignTriangles(a, a + 3, a + 6, b, b + 3, b + 6));
    EXPECT_NEAR(R.determinant(), 1.0, 1e-5);
    EXPECT_LT((R * R.transpose() - Eigen::Matrix3d::Identity()).norm(), 1e-5);
}

TEST(RansacMatch, FindsTheMotionAndTheInliersAmongManyWrongMatches) {
    // Serial and parallel over many seeds; an edge ratio of 0 passes every length test.
    unsigned seed = 100;
    for (int count : {500, 2000, 5000}) {
        for (double wrong : {0.3, 0.5, 0.7}) {
            for (bool parallel : {false, true}) {
                const KeyPointProblem p = kestor_test::makeKeyPointProblem(count, wrong, ++seed);
                SCOPED_TRACE(std::to_string(count) + " " + std::to_string(wrong) + " " + std::to_string(seed));
                expectRecovered(p, runRansac(p, 2000, seed % 3 == 0 ? 0.0 : 0.9, parallel));
            }
        }
    }
}

TEST(RansacMatch, NormalsCountOnlyWhenBothListsAreGiven) {
    KeyPointProblem p = kestor_test::makeKeyPointProblem(300, 0.5, 77);
    expectRecovered(p, runRansac(p, 1000, 0.9, true, true, true));
    // Flipped target normals: every true pair fails the normal test, so the motion is not found.
    // A chance hypothesis may still gather a few wrong pairs: the draw is random.
    for (float& n : p.targetNormals) n = -n;
    const RansacRun flipped = runRansac(p, 1000, 0.9, true, true, true);
    EXPECT_EQ(flipped.status, KESTOR_STATUS_OK);
    EXPECT_EQ(flipped.reported.calls, 1);
    EXPECT_LT(flipped.reported.pairs.size(), p.truePairs.size() / 10);
    // With one list missing the other is ignored.
    expectRecovered(p, runRansac(p, 1000, 0.9, true, true, false));
    expectRecovered(p, runRansac(p, 1000, 0.9, true, false, true));
}

TEST(RansacMatch, RejectionCasesFourPointsAndTheEarlyStop) {
    const KeyPointProblem p = kestor_test::makeKeyPointProblem(200, 0.0, 4);
    for (bool parallel : {false, true}) {
        expectNothing(runRansac(p, 0, 0.9, parallel));                 // no iterations
        expectNothing(runRansac(p, 500, 1.0, parallel));               // every sample rejected
        expectNothing(runRansac(p, 500, 0.9, parallel, false, false, 2));  // two pairs: no search
        // A billion hypotheses would take minutes; the first good one explains every pair, more
        // than three quarters, and ends the search.
        const auto start = std::chrono::steady_clock::now();
        expectRecovered(p, runRansac(p, INT_MAX / 2, 0.9, parallel));
        EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 5.0);
    }
    // Four pairs of a rigid motion: the whole of the iterations is drawn, all four are inliers.
    const KeyPointProblem four = kestor_test::makeKeyPointProblem(4, 0.0, 12);
    const RansacRun run = runRansac(four, 300, 0.0, false);
    expectRecovered(four, run);
    EXPECT_EQ(run.reported.pairs.size(), 4u);
}
