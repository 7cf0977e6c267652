#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "kestor.h"
#include "support/synthetic_scene.h"

namespace {

struct Received {
    int calls = 0;
    int count = -1;
    bool nullPoints = false, nullNormals = false, nullColors = false;
    std::vector<float> points, normals;
    std::vector<uint8_t> colors;
};

void receive(const float* points, const float* normals, const uint8_t* colors, int count,
             void* user) {
    Received& r = *static_cast<Received*>(user);
    ++r.calls;
    r.count = count;
    r.nullPoints = points == nullptr;
    r.nullNormals = normals == nullptr;
    r.nullColors = colors == nullptr;
    if (points) r.points.assign(points, points + 3 * count);
    if (normals) r.normals.assign(normals, normals + 3 * count);
    if (colors) r.colors.assign(colors, colors + 3 * count);
}

struct Maps {
    std::vector<float> vmap, nmap;
};

Maps depthMaps(const std::vector<double>& K, const std::vector<float>& depth, const uint8_t* mask,
               int w, int h) {
    Maps m{std::vector<float>(depth.size() * 3), std::vector<float>(depth.size() * 3)};
    EXPECT_EQ(KESTORDepthToVmapNmap(K.data(), depth.data(), mask, m.vmap.data(), m.nmap.data(), w, h), 0);
    return m;
}

bool kept(const Maps& m, size_t i) {
    return m.vmap[i * 3 + 2] > 0 &&
           !(m.nmap[i * 3] == 0 && m.nmap[i * 3 + 1] == 0 && m.nmap[i * 3 + 2] == 0);
}

struct Fixture {
    kestor_test::Camera cam = kestor_test::Camera().scaled(80, 60);
    kestor_test::Frame frame;
    std::vector<double> K;
    Fixture() {
        kestor_test::Scene scene;
        scene.addPlane({0, 0, 3.0}, Eigen::Vector3d(0.2, 0.1, -1).normalized());
        scene.addBox({-0.3, -0.2, 1.5}, {0.1, 0.3, 1.9});
        frame = scene.render(cam, kestor_test::Pose());
        // A hole, so that some vertices lose all their triangles.
        for (int x = 30; x < 36; ++x) frame.depth[size_t(20 * cam.width + x)] = 0.0f;
        frame.depth[size_t(40 * cam.width + 40)] = 0.0f;
        frame.depth[size_t(40 * cam.width + 42)] = 0.0f;
        frame.depth[size_t(41 * cam.width + 41)] = 0.0f;
        frame.depth[size_t(39 * cam.width + 41)] = 0.0f;
        K = cam.matrix();
    }
};

}  // namespace

TEST(ColorDepthToPoints, KeepsPixelsWithVertexAndNormalInRowOrderAndAppliesThePose) {
    Fixture f;
    const int w = f.cam.width, h = f.cam.height;
    const Maps m = depthMaps(f.K, f.frame.depth, nullptr, w, h);
    const kestor_test::Pose pose =
        kestor_test::Pose::fromAxisAngle(Eigen::Vector3d(1, 2, -1).normalized(), 0.4, {0.5, -1, 2});
    for (bool identity : {true, false}) {
        const std::vector<double> rt = identity ? kestor_test::Pose().matrix() : pose.matrix();
        Received r;
        ASSERT_EQ(KESTORColorDepthToPoints(f.frame.depth.data(), f.frame.color.data(), nullptr, w,
                                           h, f.K.data(), rt.data(), receive, &r), 0);
        ASSERT_EQ(r.calls, 1);
        size_t j = 0;
        bool lone = false;
        for (size_t i = 0; i < size_t(w * h); ++i) {
            if (!kept(m, i)) {
                lone = lone || m.vmap[i * 3 + 2] > 0;  // a vertex without a triangle
                continue;
            }
            ASSERT_LT(int(j), r.count);
            const Eigen::Vector3d v(m.vmap[i * 3], m.vmap[i * 3 + 1], m.vmap[i * 3 + 2]);
            const Eigen::Vector3d n(m.nmap[i * 3], m.nmap[i * 3 + 1], m.nmap[i * 3 + 2]);
            const Eigen::Vector3d p = pose.R * v + pose.t, q = pose.R * n;
            for (int c = 0; c < 3; ++c) {
                if (identity) {
                    EXPECT_EQ(r.points[j * 3 + c], m.vmap[i * 3 + c]);
                    EXPECT_EQ(r.normals[j * 3 + c], m.nmap[i * 3 + c]);
                } else {
                    EXPECT_NEAR(r.points[j * 3 + c], p[c], 1e-5);
                    EXPECT_NEAR(r.normals[j * 3 + c], q[c], 1e-6);
                }
                EXPECT_EQ(r.colors[j * 3 + c], f.frame.color[i * 3 + c]);
            }
            ++j;
        }
        EXPECT_TRUE(lone);
        EXPECT_EQ(int(j), r.count);
        EXPECT_TRUE(kept(m, 0));  // corner pixels stay where their triangles survive
        EXPECT_TRUE(kept(m, size_t(w * h - 1)));
    }
}

TEST(ColorDepthToPoints, MaskedPixelIsDroppedAndWeakensItsNeighbours) {
    Fixture f;
    const int w = f.cam.width, h = f.cam.height;
    std::vector<uint8_t> mask(size_t(w * h), 1);
    const size_t masked = size_t(10 * w + 10);
    mask[masked] = 0;
    const std::vector<double> rt = kestor_test::Pose().matrix();
    Received plain, withMask;
    KESTORColorDepthToPoints(f.frame.depth.data(), nullptr, nullptr, w, h, f.K.data(), rt.data(), receive, &plain);
    KESTORColorDepthToPoints(f.frame.depth.data(), nullptr, mask.data(), w, h, f.K.data(), rt.data(), receive, &withMask);
    EXPECT_TRUE(plain.nullColors);
    EXPECT_EQ(withMask.count, plain.count - 1);
    const Maps m = depthMaps(f.K, f.frame.depth, mask.data(), w, h);
    EXPECT_FALSE(kept(m, masked));
    // The normal of a neighbour is that of the masked run, not of the full one.
    const Maps full = depthMaps(f.K, f.frame.depth, nullptr, w, h);
    const size_t right = masked + 1;
    EXPECT_NE(m.nmap[right * 3], full.nmap[right * 3]);
}

TEST(ColorDepthToPoints, NothingKeptStillCallsOnceWithNulls) {
    const double K[9] = {10, 0, 3, 0, 10, 2, 0, 0, 1};
    const std::vector<double> rt = kestor_test::Pose().matrix();
    const std::vector<float> depth(48, 0.0f);
    const std::vector<uint8_t> color(48 * 3, 9);
    Received r;
    ASSERT_EQ(KESTORColorDepthToPoints(depth.data(), color.data(), nullptr, 8, 6, K, rt.data(), receive, &r), 0);
    EXPECT_EQ(r.calls, 1);
    EXPECT_EQ(r.count, 0);
    EXPECT_TRUE(r.nullPoints && r.nullNormals && r.nullColors);
}

TEST(ColorDepthToPoints, BadArgumentsReturnFourWithoutACall) {
    const double K[9] = {10, 0, 3, 0, 10, 2, 0, 0, 1};
    const std::vector<double> rt = kestor_test::Pose().matrix();
    const std::vector<float> depth(48, 1.0f);
    Received r;
    EXPECT_EQ(KESTORColorDepthToPoints(nullptr, nullptr, nullptr, 8, 6, K, rt.data(), receive, &r), 4);
    EXPECT_EQ(KESTORColorDepthToPoints(depth.data(), nullptr, nullptr, 8, 6, K, rt.data(), nullptr, &r), 4);
    EXPECT_EQ(KESTORColorDepthToPoints(depth.data(), nullptr, nullptr, 0, 6, K, rt.data(), receive, &r), 4);
    EXPECT_EQ(KESTORColorDepthToPoints(depth.data(), nullptr, nullptr, 8, 0, K, rt.data(), receive, &r), 4);
    EXPECT_EQ(r.calls, 0);
}
