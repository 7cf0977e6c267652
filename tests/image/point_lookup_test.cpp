#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <vector>

#include "kestor.h"
#include "support/image_compare.h"
#include "support/synthetic_scene.h"


namespace {

struct Lookup {
    std::vector<float> points, normals;
    bool allOnes(size_t i) const {  // both outputs of item i are the byte 0xFF throughout
        static const std::vector<uint8_t> ff(12, 0xFF);
        return !std::memcmp(&points[i * 3], ff.data(), 12) && !std::memcmp(&normals[i * 3], ff.data(), 12);
    }
};

Lookup lookup(const std::vector<double>& K, const std::vector<float>& depth, int w, int h,
              const std::vector<float>& uv, bool parallel) {
    const int count = int(uv.size() / 2);
    Lookup r{std::vector<float>(size_t(count) * 3, 0.0f), std::vector<float>(size_t(count) * 3, 0.0f)};
    EXPECT_EQ(KESTORCvtUVToPointFromDepth(K.data(), depth.data(), w, h, uv.data(), r.points.data(),
                                          r.normals.data(), count, parallel), 0);
    return r;
}

}  // namespace

TEST(CvtUVToPoint, PlanesGiveTheirPointsAndNormalsAwayFromTheCamera) {
    // Fronto-parallel at depth 2: exact points, normal (0, 0, 1).
    const std::vector<double> K{50, 0, 19.5, 0, 45, 14.5, 0, 0, 1};
    const std::vector<float> uv{10.3f, 7.7f, 0.25f, 28.5f, 38.9f, 0.1f, 20.0f, 15.0f};
    const Lookup r = lookup(K, std::vector<float>(40 * 30, 2.0f), 40, 30, uv, false);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_FLOAT_EQ(r.points[i * 3 + 0], (uv[i * 2] - 19.5f) / 50.0f * 2.0f);
        EXPECT_FLOAT_EQ(r.points[i * 3 + 1], (uv[i * 2 + 1] - 14.5f) / 45.0f * 2.0f);
        EXPECT_EQ(r.points[i * 3 + 2], 2.0f);
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(r.normals[i * 3 + c], c == 2 ? 1.0f : 0.0f, 1e-5f) << i;
    }
    // Tilted: points on the plane, the normal its own turned away from the camera.
    const kestor_test::Camera cam = kestor_test::Camera().scaled(160, 120);
    kestor_test::Scene scene;
    const Eigen::Vector3d n = Eigen::Vector3d(0.4, -0.3, -1.0).normalized();  // faces the camera
    scene.addPlane({0, 0, 2.5}, n);
    std::vector<float> uvs;
    for (float v = 3.3f; v < 115.0f; v += 9.7f)
        for (float u = 2.6f; u < 155.0f; u += 11.3f) uvs.insert(uvs.end(), {u, v});
    const kestor_test::ThreadScope two(2);  // every item checked against the truth, from either thread
    const Lookup t = lookup(cam.matrix(), scene.render(cam, kestor_test::Pose()).depth, 160, 120, uvs, true);
    for (size_t i = 0; i < uvs.size() / 2; ++i) {
        const Eigen::Vector3d p(t.points[i * 3], t.points[i * 3 + 1], t.points[i * 3 + 2]);
        EXPECT_NEAR(n.dot(p - Eigen::Vector3d(0, 0, 2.5)), 0.0, 1e-3) << i;
        EXPECT_GT(Eigen::Vector3d(t.normals[i * 3], t.normals[i * 3 + 1], t.normals[i * 3 + 2]).dot(-n), 0.9999) << i;
    }
}

TEST(CvtUVToPoint, BordersAndInvalidDepthLeaveAllBytesSet) {
    const int w = 12, h = 10;
    const std::vector<double> K{10, 0, 5.5, 0, 10, 4.5, 0, 0, 1};
    std::vector<float> depth(size_t(w * h), 1.5f);
    depth[size_t(5 * w + 8)] = 0.0f;                                     // right of (7, 5)
    depth[size_t(5 * w + 2)] = std::numeric_limits<float>::quiet_NaN();  // left of (3, 5)
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // u or v exactly 0; just inside; the last block of columns; on the last column; on the last
    // row; a whole pixel whose right neighbour is invalid; one whose left neighbour is (not read);
    // the blocks with the invalid pixel at their lower right, upper left, and the valid one next
    // to it; out of the image.
    const std::vector<float> uv{0, 3.5f, 4.5f, 0, 0.01f, 0.01f, 10.9f, 4, 11, 4, 5, 9, 7, 5, 3, 5,
                                7.5f, 4.2f, 8.2f, 5.5f, 6.9f, 5.5f, -1, 2, nan, 2, 1e30f, 2};
    const bool ok[] = {false, false, true, true, false, false, false, true, false, false, true, false, false, false};
    for (bool parallel : {false, true}) {
        const Lookup r = lookup(K, depth, w, h, uv, parallel);
        for (size_t i = 0; i < std::size(ok); ++i) EXPECT_EQ(r.allOnes(i), !ok[i]) << i;
    }
}

TEST(DepthToMask, SetOnlyForDepthAboveZero) {
    // The depth mask: 255 for depth above 0 only (NaN is not).
    const float depth[6] = {1.0f, 0.0f, -2.0f, std::numeric_limits<float>::quiet_NaN(), 1e-30f,
                            std::numeric_limits<float>::infinity()};
    uint8_t mask[6] = {7, 7, 7, 7, 7, 7};
    ASSERT_EQ(KESTORDepthToMask(depth, mask, 3, 2), 0);
    const uint8_t expect[6] = {255, 0, 0, 0, 255, 255};
    EXPECT_EQ(std::memcmp(mask, expect, 6), 0);
}
