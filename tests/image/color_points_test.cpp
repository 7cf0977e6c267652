#include <gtest/gtest.h>

#include <vector>

#include "kestor.h"
#include "support/synthetic_scene.h"

namespace {

struct Received {
    int calls = 0, count = -1;
    bool nulls = false;  // points, normals and colours all null
    std::vector<float> points, normals;
    std::vector<uint8_t> colors;
};

void receive(const float* p, const float* n, const uint8_t* c, int count, void* user) {
    Received& r = *static_cast<Received*>(user);
    ++r.calls, r.count = count, r.nulls = !p && !n && !c;
    if (p) r.points.assign(p, p + 3 * count);
    if (n) r.normals.assign(n, n + 3 * count);
    if (c) r.colors.assign(c, c + 3 * count);
}

// A tilted plane behind a box, with holes so that some vertices lose all their triangles.
struct Input {
    kestor_test::Camera cam = kestor_test::Camera().scaled(80, 60);
    kestor_test::Frame frame;
    std::vector<double> K = cam.matrix(), identity = kestor_test::Pose().matrix();
    Input() {
        kestor_test::Scene scene;
        scene.addPlane({0, 0, 3.0}, Eigen::Vector3d(0.2, 0.1, -1).normalized());
        scene.addBox({-0.3, -0.2, 1.5}, {0.1, 0.3, 1.9});
        frame = scene.render(cam, kestor_test::Pose());
        for (int i : {20 * 80 + 30, 20 * 80 + 31, 20 * 80 + 32, 40 * 80 + 40, 40 * 80 + 42, 41 * 80 + 41, 39 * 80 + 41})
            frame.depth[size_t(i)] = 0.0f;
    }
    int run(const uint8_t* color, const uint8_t* mask, const std::vector<double>& rt, Received& r) const {
        return KESTORColorDepthToPoints(frame.depth.data(), color, mask, 80, 60, K.data(), rt.data(), receive, &r);
    }
};

}  // namespace

TEST(ColorDepthToPoints, KeepsPixelsWithVertexAndNormalInRowOrderAndAppliesThePose) {
    const Input in;
    std::vector<float> vmap(80 * 60 * 3), nmap(vmap.size());
    ASSERT_EQ(KESTORDepthToVmapNmap(in.K.data(), in.frame.depth.data(), nullptr, vmap.data(), nmap.data(), 80, 60), 0);
    const kestor_test::Pose pose = kestor_test::Pose::fromAxisAngle(Eigen::Vector3d(1, 2, -1).normalized(), 0.4, {0.5, -1, 2});
    for (bool identity : {true, false}) {
        Received r;
        ASSERT_EQ(in.run(in.frame.color.data(), nullptr, identity ? in.identity : pose.matrix(), r), 0);
        ASSERT_EQ(r.calls, 1);
        size_t j = 0, lone = 0;
        for (size_t i = 0; i < 80 * 60; ++i) {
            const Eigen::Vector3d v(vmap[i * 3], vmap[i * 3 + 1], vmap[i * 3 + 2]);
            const Eigen::Vector3d n(nmap[i * 3], nmap[i * 3 + 1], nmap[i * 3 + 2]);
            if (v.z() == 0 || n.isZero(0)) {  // no vertex, or a vertex without a triangle
                lone += v.z() != 0;
                continue;
            }
            ASSERT_LT(int(j), r.count);
            const Eigen::Vector3d p = identity ? v : pose.R * v + pose.t, q = identity ? n : pose.R * n;
            for (int c = 0; c < 3; ++c) {
                EXPECT_NEAR(r.points[j * 3 + c], p[c], identity ? 0 : 1e-5);
                EXPECT_NEAR(r.normals[j * 3 + c], q[c], identity ? 0 : 1e-6);
                EXPECT_EQ(r.colors[j * 3 + c], in.frame.color[i * 3 + c]);
            }
            ++j;
        }
        EXPECT_GT(lone, 0u);
        EXPECT_EQ(int(j), r.count);
    }
    // A mask byte of 0 drops that pixel (and changes its neighbours' normals); no colour, no colours.
    std::vector<uint8_t> mask(80 * 60, 1);
    mask[10 * 80 + 10] = 0;
    Received plain, masked;
    ASSERT_EQ(in.run(nullptr, nullptr, in.identity, plain), 0);
    ASSERT_EQ(in.run(nullptr, mask.data(), in.identity, masked), 0);
    EXPECT_TRUE(plain.colors.empty() && masked.colors.empty());
    EXPECT_EQ(masked.count, plain.count - 1);
}

TEST(ColorDepthToPoints, NothingKeptCallsOnceWithNulls) {
    const double K[9] = {10, 0, 3, 0, 10, 2, 0, 0, 1};
    const std::vector<double> rt = kestor_test::Pose().matrix();
    const std::vector<float> none(48, 0.0f);
    const std::vector<uint8_t> color(48 * 3, 9);
    Received r;
    ASSERT_EQ(KESTORColorDepthToPoints(none.data(), color.data(), nullptr, 8, 6, K, rt.data(), receive, &r), 0);
    EXPECT_TRUE(r.calls == 1 && r.count == 0 && r.nulls);
}
