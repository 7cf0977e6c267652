#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cstring>

#include "core/aligned_image.h"
#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/rigid_transform.h"

using namespace kestor;

namespace {

RT_<double> someTransform() {
    RT_<double> rt{{}, {0.5, -1.25, 2.0}};
    eulerToRotation(0.3, -0.7, 1.9, rt.rotation);
    return rt;
}

Eigen::Matrix3d matrixOf(const double* r) {
    Eigen::Matrix3d m;
    for (int i = 0; i < 9; ++i) m(i / 3, i % 3) = r[i];
    return m;
}

}  // namespace

TEST(ImageView, RowOfHonoursStrideAndRejectsEmptyViews) {
    float data[12] = {};
    const ImageView<float> packed{data, 0, 3, 4};
    const ImageView<float> negative{data, -5, 3, 4};
    const ImageView<float> strided{data, 16, 3, 3};
    EXPECT_EQ(rowOf(packed, 2), data + 6);
    EXPECT_EQ(rowOf(negative, 2), data + 6);
    EXPECT_EQ(rowOf(strided, 2), data + 8);
    for (int y : {0, 1, 5}) {
        EXPECT_EQ(rowOf(ImageView<float>{data, 12, 0, 4}, y), nullptr);
        EXPECT_EQ(rowOf(ImageView<float>{data, 12, 3, 0}, y), nullptr);
        EXPECT_EQ(rowOf(ImageView<float>{nullptr, 12, 3, 4}, y), nullptr);
    }
    Float3 points[6];
    EXPECT_EQ(rowOf(ImageView<Float3>{points, 0, 2, 3}, 1), points + 2);
}

TEST(RigidTransform, ComposeAppliesTheRightOperandFirst) {
    const RT_<double> a = someTransform();
    RT_<double> b = a;
    eulerToRotation(-0.2, 0.4, 0.1, b.rotation);
    RT_<double> ab;
    composeRT(a, b, ab);
    const Eigen::Vector3d p(0.3, -2.0, 5.0);
    const Eigen::Vector3d viaB = matrixOf(b.rotation) * p + Eigen::Vector3d(b.translation);
    const Eigen::Vector3d expected = matrixOf(a.rotation) * viaB + Eigen::Vector3d(a.translation);
    const Eigen::Vector3d got = matrixOf(ab.rotation) * p + Eigen::Vector3d(ab.translation);
    EXPECT_LT((got - expected).norm(), 1e-12);
}

TEST(RigidTransform, InvertIsTheTrueInverseNotTheTranspose) {
    RT_<double> a = someTransform();
    for (double& r : a.rotation) r *= 1.5;  // a drifted, scaled rotation
    RT_<double> inv, product;
    invertRT(a, inv);
    composeRT(a, inv, product);
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(product.rotation[i], (i % 4 == 0) ? 1.0 : 0.0, 1e-12);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(product.translation[i], 0.0, 1e-12);
    EXPECT_NEAR(inv.rotation[0], matrixOf(a.rotation).inverse()(0, 0), 1e-12);
}

TEST(RigidTransform, EulerIsRzRyRx) {
    const double a = 0.4, b = -1.1, c = 2.5;
    double r[9];
    eulerToRotation(a, b, c, r);
    const Eigen::Matrix3d expected = (Eigen::AngleAxisd(c, Eigen::Vector3d::UnitZ()) *
                                      Eigen::AngleAxisd(b, Eigen::Vector3d::UnitY()) *
                                      Eigen::AngleAxisd(a, Eigen::Vector3d::UnitX()))
                                         .toRotationMatrix();
    EXPECT_LT((matrixOf(r) - expected).norm(), 1e-12);
}

TEST(RigidTransform, InterfacePoseLayout) {
    double pose[12] = {1, 2, 3, 10, 4, 5, 6, 20, 7, 8, 9, 30};
    // The reader takes twelve packed values whatever the stride says.
    const RT_<float> rt = poseToFloat(ImageView<double>{pose, 64, 4, 3});
    const float rotation[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const float translation[3] = {10, 20, 30};
    EXPECT_EQ(std::memcmp(rt.rotation, rotation, sizeof(rotation)), 0);
    EXPECT_EQ(std::memcmp(rt.translation, translation, sizeof(translation)), 0);

    // The writers go row by row through the stride: here rows 48 bytes apart.
    double wide[18];
    std::fill(std::begin(wide), std::end(wide), -1.0);
    poseFromFloat(rt, ImageView<double>{wide, 48, 4, 3});
    const double expected[18] = {1, 2, 3, 10, -1, -1, 4, 5, 6, 20, -1, -1, 7, 8, 9, 30, -1, -1};
    EXPECT_EQ(std::memcmp(wide, expected, sizeof(expected)), 0);

    double back[12];
    poseFromDouble(poseToDouble(poseView(pose)), poseView(back));
    EXPECT_EQ(std::memcmp(back, pose, sizeof(pose)), 0);
}

TEST(Intrinsics, ReadsFourElementsAndScalesPerLevel) {
    const double K[9] = {500, 99, 320, 99, 510, 240, 99, 99, 99};
    const Intrinsics k = intrinsicsFromMatrix(K);
    EXPECT_TRUE(k.fx == 500.0f && k.fy == 510.0f && k.cx == 320.0f && k.cy == 240.0f);
    const Intrinsics k2 = scaledIntrinsics(k, 2);
    EXPECT_TRUE(k2.fx == 125.0f && k2.cx == 80.0f);  // no half-pixel correction
}

TEST(AlignedImage, RowsStartOn32ByteBoundaries) {
    for (int width : {1, 7, 8, 33, 641}) {
        AlignedImage image(width, 5, 12);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(image.data()) % 32, 0u);
        EXPECT_EQ(image.stride() % 32, 0);
        EXPECT_GE(image.stride(), width * 12);
        EXPECT_LT(image.stride(), width * 12 + 32);
        std::memset(image.data(), 0xAB, size_t(image.stride()) * 5);  // all rows writable
        EXPECT_EQ(rowOf(image.view<Float3>(), 4),
                  reinterpret_cast<Float3*>(image.data() + 4 * image.stride()));
    }
}
