#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <random>
#include <vector>

#include "kestor.h"
#include "keypoint/absolute_orientation.h"
#include "keypoint_problem.h"

using kestor_test::Pose;

namespace {

Pose poseOf(const double* m) { return Pose::fromMatrix(m); }

std::vector<float> carried(const Pose& pose, const std::vector<float>& points) {
    std::vector<float> out(points.size());
    for (size_t k = 0; k < points.size(); k += 3) {
        const Eigen::Vector3d p(points[k], points[k + 1], points[k + 2]);
        const Eigen::Vector3d q = pose.R * p + pose.t;
        for (int i = 0; i < 3; ++i) out[k + size_t(i)] = float(q[i]);
    }
    return out;
}

}  // namespace

TEST(AbsoluteOrientation, RecoversRandomRigidMotionsToFloatAccuracy) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> uni(-1, 1);
    for (int trial = 0; trial < 50; ++trial) {
        const Pose truth = kestor_test::randomMotion(rng);
        const int count = 3 + trial * 7;
        std::vector<float> source;
        for (int k = 0; k < 3 * count; ++k) source.push_back(float(uni(rng)));
        const std::vector<float> target = carried(truth, source);
        double result[12];
        ASSERT_EQ(KESTORAbsoluteOrientation(target.data(), source.data(), count, result),
                  KESTOR_STATUS_OK);
        const Pose found = poseOf(result);
        // Element-wise: the angle read back through acos is blunt near zero.
        EXPECT_LT((found.R - truth.R).norm(), 2e-5) << trial;
        EXPECT_LT(kestor_test::translationError(found, truth), 2e-5) << trial;
        EXPECT_NEAR(found.R.determinant(), 1.0, 1e-5);
    }
}

TEST(AbsoluteOrientation, IdenticalListsGiveTheIdentity) {
    const std::vector<float> points = {0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 1, 1, 1};
    float rt[12];
    kestor::calcAbsoluteOrientation(points.data(), points.data(), 5, rt);
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(rt[i], i % 4 == 0 ? 1.0f : 0.0f, 1e-6f) << i;
    for (int i = 9; i < 12; ++i) EXPECT_NEAR(rt[i], 0.0f, 1e-6f);
}

TEST(AbsoluteOrientation, MirroredTargetStillGivesAProperRotation) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> uni(-1, 1);
    std::vector<float> source, target;
    for (int k = 0; k < 30; ++k) {
        const float x = uni(rng), y = uni(rng), z = uni(rng);
        source.insert(source.end(), {x, y, z});
        target.insert(target.end(), {-x, y, z});  // a reflection, no rotation can do it
    }
    float rt[12];
    kestor::calcAbsoluteOrientation(target.data(), source.data(), 30, rt);
    Eigen::Matrix3d R;
    for (int i = 0; i < 9; ++i) R(i / 3, i % 3) = rt[i];
    EXPECT_NEAR(R.determinant(), 1.0, 1e-5);
    EXPECT_LT((R * R.transpose() - Eigen::Matrix3d::Identity()).norm(), 1e-5);
}

TEST(AbsoluteOrientation, OnePointGivesARotationAndTheMatchingTranslation) {
    const float source[3] = {1, 2, 3};
    const float target[3] = {-4, 0.5f, 7};
    double result[12];
    ASSERT_EQ(KESTORAbsoluteOrientation(target, source, 1, result), KESTOR_STATUS_OK);
    const Pose found = poseOf(result);
    EXPECT_NEAR(found.R.determinant(), 1.0, 1e-5);
    const Eigen::Vector3d moved = found.R * Eigen::Vector3d(1, 2, 3) + found.t;
    EXPECT_LT((moved - Eigen::Vector3d(-4, 0.5, 7)).norm(), 1e-5);
}

TEST(AbsoluteOrientation, CollinearPointsStillFitTheLine) {
    // The turn about the line is free; the line itself must land on its image.
    const Pose truth = Pose::fromAxisAngle(Eigen::Vector3d(0, 0, 1), 0.7, Eigen::Vector3d(1, 2, 3));
    std::vector<float> source;
    for (int k = 0; k < 3; ++k) source.insert(source.end(), {float(k), float(2 * k), 0.5f});
    const std::vector<float> target = carried(truth, source);
    double result[12];
    ASSERT_EQ(KESTORAbsoluteOrientation(target.data(), source.data(), 3, result), KESTOR_STATUS_OK);
    const Pose found = poseOf(result);
    for (int k = 0; k < 3; ++k) {
        const Eigen::Vector3d p(source[size_t(k) * 3], source[size_t(k) * 3 + 1], 0.5);
        EXPECT_LT((found.R * p + found.t - truth.R * p - truth.t).norm(), 1e-4) << k;
    }
}
