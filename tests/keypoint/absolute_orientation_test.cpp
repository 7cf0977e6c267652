#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kestor.h"
#include "keypoint_problem.h"

using kestor_test::Pose;

namespace {

// Solves through the export; every source point must land on its target within `tolerance`,
// and the rotation must be proper.
Pose solveAndCheck(const std::vector<float>& source, const std::vector<float>& target,
                   double tolerance) {
    double result[12];
    EXPECT_EQ(KESTORAbsoluteOrientation(target.data(), source.data(), int(source.size() / 3), result),
              KESTOR_STATUS_OK);
    const Pose found = Pose::fromMatrix(result);
    EXPECT_NEAR(found.R.determinant(), 1.0, 1e-5);
    EXPECT_LT((found.R * found.R.transpose() - Eigen::Matrix3d::Identity()).norm(), 1e-5);
    for (size_t k = 0; tolerance > 0 && k < source.size(); k += 3) {
        const Eigen::Vector3d p(source[k], source[k + 1], source[k + 2]);
        const Eigen::Vector3d q(target[k], target[k + 1], target[k + 2]);
        EXPECT_LT((found.R * p + found.t - q).norm(), tolerance) << k / 3;
    }
    return found;
}

std::vector<float> carried(const Pose& pose, const std::vector<float>& points) {
    std::vector<float> out(points.size());
    for (size_t k = 0; k < points.size(); k += 3) {
        const Eigen::Vector3d q = pose.R * Eigen::Vector3d(points[k], points[k + 1], points[k + 2]) + pose.t;
        for (int i = 0; i < 3; ++i) out[k + size_t(i)] = float(q[i]);
    }
    return out;
}

}  // namespace

TEST(AbsoluteOrientation, RecoversRandomRigidMotionsToFloatAccuracy) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> uni(-1, 1);
    for (int trial = 0; trial < 50; ++trial) {
        const Pose truth = kestor_test::randomMotion(rng);
        std::vector<float> source(size_t(3 * (3 + trial * 7)));
        for (float& v : source) v = uni(rng);
        const Pose found = solveAndCheck(source, carried(truth, source), 1e-4);
        // Element-wise: the angle read back through acos is blunt near zero.
        EXPECT_LT((found.R - truth.R).norm(), 2e-5) << trial;
        EXPECT_LT(kestor_test::translationError(found, truth), 2e-5) << trial;
    }
}

TEST(AbsoluteOrientation, DegenerateInputs) {
    // Identical lists give the identity.
    const std::vector<float> points = {0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 1, 1, 1};
    const Pose same = solveAndCheck(points, points, 1e-6);
    EXPECT_LT((same.R - Eigen::Matrix3d::Identity()).norm() + same.t.norm(), 1e-6);
    // One point: some rotation, and the translation taking the point onto its image.
    solveAndCheck({1, 2, 3}, {-4, 0.5f, 7}, 1e-5);
    // Collinear points: the turn about the line is free, the line lands on its image.
    const Pose turn = Pose::fromAxisAngle(Eigen::Vector3d(0, 0, 1), 0.7, Eigen::Vector3d(1, 2, 3));
    const std::vector<float> line = {0, 0, 0.5f, 1, 2, 0.5f, 2, 4, 0.5f};
    solveAndCheck(line, carried(turn, line), 1e-4);
    // A reflection, which no rotation can do: still a proper rotation.
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> uni(-1, 1);
    std::vector<float> source(90), mirrored(90);
    for (size_t k = 0; k < source.size(); ++k) mirrored[k] = (k % 3 == 0 ? -1 : 1) * (source[k] = uni(rng));
    solveAndCheck(source, mirrored, 0);
    // A NaN or infinite point leaves no eigenvectors to read: the result is NaN, not an abort.
    for (const float bad : {std::nanf(""), std::numeric_limits<float>::infinity()}) {
        std::vector<float> broken = points;
        broken[4] = bad;
        double rt[12] = {};
        ASSERT_EQ(KESTORAbsoluteOrientation(points.data(), broken.data(), 5, rt), KESTOR_STATUS_OK);
        for (double v : rt) EXPECT_TRUE(std::isnan(v)) << bad;
    }
}
