#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "kestor.h"
#include "keypoint/iterative_match.h"
#include "keypoint_problem.h"

using kestor_test::KeyPointProblem;
using kestor_test::Pose;
using kestor_test::ReportedPairs;

namespace {

// The truth turned a little further and shifted, as a start inside the kernel's basin.
std::vector<double> startNear(const Pose& truth, double angle, double shift) {
    const Pose nudge = Pose::fromAxisAngle(Eigen::Vector3d(1, 2, -1), angle,
                                           Eigen::Vector3d(shift, -shift, shift));
    return (nudge * truth).matrix();
}

int runIterative(const KeyPointProblem& p, double* result, int iterations, double initialScale,
                 double finalDistance, bool parallel, ReportedPairs* reported) {
    return KESTORMatchKeyPointsIterative(
        p.target.data(), p.targetDescriptors.data(), p.count, p.source.data(),
        p.sourceDescriptors.data(), p.count, p.dimension, result, iterations, initialScale,
        finalDistance, false, parallel, reported ? &ReportedPairs::collect : nullptr, reported);
}

}  // namespace

TEST(IterativeMatch, RecoversTheMotionWithHalfTheMatchesWrongTheSameEachRun) {
    for (unsigned seed : {1u, 2u, 3u}) {
        const KeyPointProblem p = kestor_test::makeKeyPointProblem(1000, 0.5, seed);
        std::vector<double> result = startNear(p.motion, 0.15, 0.1), again = result;
        ReportedPairs reported;
        ASSERT_EQ(runIterative(p, result.data(), 200, 1.0, 0.01, seed % 2 == 0, &reported),
                  KESTOR_STATUS_OK);
        const Pose found = Pose::fromMatrix(result.data());
        EXPECT_LT((found.R - p.motion.R).norm(), 1e-3) << seed;
        EXPECT_LT(kestor_test::translationError(found, p.motion), 1e-3) << seed;
        EXPECT_EQ(reported.calls, 1);
        EXPECT_EQ(reported.pairs, p.truePairs) << seed;
        // No random numbers: the other runner gives the same pose, bit for bit.
        runIterative(p, again.data(), 200, 1.0, 0.01, seed % 2 != 0, nullptr);
        EXPECT_EQ(std::memcmp(result.data(), again.data(), sizeof(double) * 12), 0);
    }
}

TEST(IterativeMatch, ScaleHalvesAfterEveryEighthIteration) {
    // Scale 1 up to iteration 8, 0.5 to 16, 0.25 to 24, 0.125 after: with a limit of 0.25 the
    // loop stops at iteration 25 unless the iteration count ends it first.
    const KeyPointProblem p = kestor_test::makeKeyPointProblem(50, 0.0, 5);
    kestor::RT_<float> pose = kestor::RT_<float>::identity();
    const auto refine = [&](int iterations, float scale, const float* source) {
        return kestor::refineGemanMcClure(source, p.target.data(), p.count, pose, iterations, scale, 0.5f);
    };
    EXPECT_EQ(refine(1000, 1.0f, p.source.data()), 25);
    EXPECT_EQ(refine(10, 1.0f, p.source.data()), 10);
    // A scale below the final radius squared stops before the first iteration; with a perfect
    // start and perfect matches the pose stays.
    const kestor::RT_<float> before = pose;
    EXPECT_EQ(refine(1000, 0.2f, p.source.data()), 0);
    EXPECT_EQ(std::memcmp(&before, &pose, sizeof(pose)), 0);
    const kestor::RT_<float> identity = pose = kestor::RT_<float>::identity();
    refine(30, 1.0f, p.target.data());
    EXPECT_EQ(std::memcmp(&identity, &pose, sizeof(pose)), 0);
}

TEST(IterativeMatch, NoIterationsKeepsTheStartAndPrunesAgainstIt) {
    const KeyPointProblem p = kestor_test::makeKeyPointProblem(300, 0.4, 6);
    // The truth rounded to float, so the round trip through float leaves it unchanged.
    std::vector<double> result = p.motion.matrix();
    for (double& v : result) v = double(float(v));
    const std::vector<double> start = result;
    ReportedPairs reported;
    ASSERT_EQ(runIterative(p, result.data(), 0, 1.0, 0.01, false, &reported), KESTOR_STATUS_OK);
    EXPECT_EQ(result, start);
    EXPECT_EQ(reported.pairs, p.truePairs);
    // Far from the truth nothing survives the pruning, yet the callback runs.
    std::vector<double> off = startNear(p.motion, 0.5, 0.5);
    ASSERT_EQ(runIterative(p, off.data(), 0, 1.0, 0.01, true, &reported), KESTOR_STATUS_OK);
    EXPECT_EQ(reported.calls, 2);
    EXPECT_TRUE(reported.pairs.empty());
}
