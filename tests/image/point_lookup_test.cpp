#include <gtest/gtest.h>

#include <Eigen/Eigenvalues>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "image/eigen_sym3.h"
#include "kestor.h"
#include "support/image_compare.h"
#include "support/synthetic_scene.h"

using namespace kestor;

namespace {

bool allOnes(const float* v) {
    uint32_t bits[3];
    std::memcpy(bits, v, sizeof(bits));
    return bits[0] == 0xFFFFFFFFu && bits[1] == 0xFFFFFFFFu && bits[2] == 0xFFFFFFFFu;
}

struct Lookup {
    std::vector<float> points, normals;
};

Lookup lookup(const std::vector<double>& K, const std::vector<float>& depth, int w, int h,
              const std::vector<float>& uv, bool parallel) {
    const int count = int(uv.size() / 2);
    Lookup r{std::vector<float>(size_t(count) * 3, 0.0f), std::vector<float>(size_t(count) * 3, 0.0f)};
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(K.data(), depth.data(), w, h, uv.data(), r.points.data(),
                                          r.normals.data(), count, parallel),
              0);
    return r;
}

}  // namespace

TEST(EigenSym3, MatchesAnIterativeSolverSortedByFallingMagnitude) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    for (int trial = 0; trial < 200; ++trial) {
        Eigen::Matrix3f A;
        for (int i = 0; i < 9; ++i) A(i / 3, i % 3) = dist(rng);
        Eigen::Matrix3f M = (A + A.transpose()) * 0.5f;
        float m[9];
        for (int i = 0; i < 9; ++i) m[i] = M(i / 3, i % 3);
        float values[3], vectors[9];
        eigenSym3(m, values, vectors);
        Eigen::SelfAdjointEigenSolver<Eigen::Matrix3f> solver(M);
        Eigen::Vector3f expect = solver.eigenvalues();
        std::sort(expect.data(), expect.data() + 3,
                  [](float a, float b) { return std::abs(a) > std::abs(b); });
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(values[i], expect[i], 2e-5f) << trial;
            const Eigen::Vector3f v(vectors[i * 3], vectors[i * 3 + 1], vectors[i * 3 + 2]);
            EXPECT_NEAR(v.norm(), 1.0f, 1e-5f);
            // Eigenvectors are only defined well when their eigenvalue stands apart.
            const float gap = std::min(std::abs(expect[i] - expect[(i + 1) % 3]),
                                       std::abs(expect[i] - expect[(i + 2) % 3]));
            if (gap > 0.05f) {
                EXPECT_LT((M * v - values[i] * v).norm(), 2e-3f) << trial << " " << i;
            }
        }
    }
}

TEST(CvtUVToPoint, FrontoParallelPlaneGivesPointsAndNormalAwayFromTheCamera) {
    const int w = 40, h = 30;
    const std::vector<double> K{50, 0, 19.5, 0, 45, 14.5, 0, 0, 1};
    const std::vector<float> depth(size_t(w * h), 2.0f);
    const std::vector<float> uv{10.3f, 7.7f, 0.25f, 28.5f, 38.9f, 0.1f, 20.0f, 15.0f};
    const Lookup r = lookup(K, depth, w, h, uv, false);
    for (size_t i = 0; i < uv.size() / 2; ++i) {
        EXPECT_FLOAT_EQ(r.points[i * 3 + 0], (uv[i * 2] - 19.5f) / 50.0f * 2.0f);
        EXPECT_FLOAT_EQ(r.points[i * 3 + 1], (uv[i * 2 + 1] - 14.5f) / 45.0f * 2.0f);
        EXPECT_EQ(r.points[i * 3 + 2], 2.0f);
        EXPECT_NEAR(r.normals[i * 3 + 0], 0.0f, 1e-5f) << i;
        EXPECT_NEAR(r.normals[i * 3 + 1], 0.0f, 1e-5f) << i;
        EXPECT_NEAR(r.normals[i * 3 + 2], 1.0f, 1e-5f) << i;
    }
}

TEST(CvtUVToPoint, TiltedPlaneGivesItsTrueNormalAwayFromTheCamera) {
    kestor_test::Camera cam = kestor_test::Camera().scaled(160, 120);
    kestor_test::Scene scene;
    const Eigen::Vector3d n = Eigen::Vector3d(0.4, -0.3, -1.0).normalized();  // faces the camera
    scene.addPlane({0, 0, 2.5}, n);
    const kestor_test::Frame frame = scene.render(cam, kestor_test::Pose());
    std::vector<float> uv;
    for (float v = 3.3f; v < 115.0f; v += 9.7f)
        for (float u = 2.6f; u < 155.0f; u += 11.3f) uv.insert(uv.end(), {u, v});
    const Lookup r = lookup(cam.matrix(), frame.depth, cam.width, cam.height, uv, true);
    for (size_t i = 0; i < uv.size() / 2; ++i) {
        const Eigen::Vector3d p(r.points[i * 3], r.points[i * 3 + 1], r.points[i * 3 + 2]);
        EXPECT_NEAR(n.dot(p - Eigen::Vector3d(0, 0, 2.5)), 0.0, 1e-3) << i;
        const Eigen::Vector3d got(r.normals[i * 3], r.normals[i * 3 + 1], r.normals[i * 3 + 2]);
        EXPECT_GT(got.dot(-n), 0.9999) << i;  // the plane's normal turned away from the camera
    }
}

TEST(CvtUVToPoint, BordersAndInvalidDepthLeaveAllBytesSet) {
    const int w = 12, h = 10;
    const std::vector<double> K{10, 0, 5.5, 0, 10, 4.5, 0, 0, 1};
    std::vector<float> depth(size_t(w * h), 1.5f);
    depth[size_t(5 * w + 8)] = 0.0f;                                       // right of (7, 5)
    depth[size_t(5 * w + 2)] = std::numeric_limits<float>::quiet_NaN();   // left of (3, 5)
    const std::vector<float> uv{
        0.0f,  3.5f,   // u exactly 0
        4.5f,  0.0f,   // v exactly 0
        0.01f, 0.01f,  // just inside
        10.9f, 4.0f,   // last block of columns
        11.0f, 4.0f,   // on the last column
        5.0f,  9.0f,   // on the last row
        7.0f,  5.0f,   // whole pixel whose right neighbour is invalid
        3.0f,  5.0f,   // whole pixel whose left neighbour is invalid: not read
        7.5f,  4.2f,   // block with the invalid pixel at its lower right
        8.2f,  5.5f,   // block with the invalid pixel at its upper left
        6.9f,  5.5f,   // next to it, all valid
        -1.0f, 2.0f, std::numeric_limits<float>::quiet_NaN(), 2.0f, 1e30f, 2.0f};
    const bool ok[] = {false, false, true, true, false, false, false, true, false, false, true,
                       false, false, false};
    for (bool parallel : {false, true}) {
        const Lookup r = lookup(K, depth, w, h, uv, parallel);
        for (size_t i = 0; i < sizeof(ok); ++i) {
            EXPECT_EQ(allOnes(&r.points[i * 3]), !ok[i]) << i;
            EXPECT_EQ(allOnes(&r.normals[i * 3]), !ok[i]) << i;
        }
    }
}

TEST(CvtUVToPoint, SerialAndParallelAreBitwiseEqual) {
    kestor_test::Camera cam = kestor_test::Camera().scaled(160, 120);
    const kestor_test::Frame frame = kestor_test::Scene::texturedRoom().render(cam, kestor_test::Pose());
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> du(-1.0f, 161.0f), dv(-1.0f, 121.0f);
    std::vector<float> uv;
    for (int i = 0; i < 3001; ++i) uv.insert(uv.end(), {du(rng), dv(rng)});
    kestor_test::ThreadScope two(2);
    const Lookup a = lookup(cam.matrix(), frame.depth, cam.width, cam.height, uv, false);
    const Lookup b = lookup(cam.matrix(), frame.depth, cam.width, cam.height, uv, true);
    EXPECT_EQ(std::memcmp(a.points.data(), b.points.data(), a.points.size() * 4), 0);
    EXPECT_EQ(std::memcmp(a.normals.data(), b.normals.data(), a.normals.size() * 4), 0);
}

TEST(CvtUVToPoint, BadArgumentsReturnFourAndWriteNothing) {
    const double K[9] = {10, 0, 2, 0, 10, 2, 0, 0, 1};
    const std::vector<float> depth(25, 1.0f);
    const float uv[2] = {1.5f, 1.5f};
    float p[3] = {7, 7, 7}, n[3] = {7, 7, 7};
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(nullptr, depth.data(), 5, 5, uv, p, n, 1, false), 4);
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(K, nullptr, 5, 5, uv, p, n, 1, false), 4);
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(K, depth.data(), 0, 5, uv, p, n, 1, false), 4);
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(K, depth.data(), 5, 0, uv, p, n, 1, false), 4);
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(K, depth.data(), 5, 5, nullptr, p, n, 1, false), 4);
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(K, depth.data(), 5, 5, uv, nullptr, n, 1, false), 4);
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(K, depth.data(), 5, 5, uv, p, nullptr, 1, false), 4);
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(K, depth.data(), 5, 5, uv, p, n, 0, false), 4);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(p[i] == 7.0f && n[i] == 7.0f);
}

TEST(DepthToMask, PositiveDepthOnlyAndBadArguments) {
    const float depth[6] = {1.0f, 0.0f, -2.0f, std::numeric_limits<float>::quiet_NaN(), 1e-30f,
                            std::numeric_limits<float>::infinity()};
    uint8_t mask[6];
    std::memset(mask, 7, sizeof(mask));
    EXPECT_EQ(KESTORDepthToMask(depth, nullptr, 3, 2), 4);
    EXPECT_EQ(KESTORDepthToMask(nullptr, mask, 3, 2), 4);
    EXPECT_EQ(KESTORDepthToMask(depth, mask, 0, 2), 4);
    EXPECT_EQ(KESTORDepthToMask(depth, mask, 3, 0), 4);
    for (uint8_t m : mask) EXPECT_EQ(m, 7);
    ASSERT_EQ(KESTORDepthToMask(depth, mask, 3, 2), 0);
    const uint8_t expect[6] = {255, 0, 0, 0, 255, 255};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(mask[i], expect[i]) << i;
}
