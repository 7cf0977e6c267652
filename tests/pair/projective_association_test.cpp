#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "pair/projective_association.h"

using namespace kestor;

namespace {

// A 4x3 target whose every pixel holds the vertex (0, 0, 1) with normal (0, 0, -1), seen through
// fx = fy = 1, cx = cy = 0, so a source point (u, v, 1) projects exactly to (u, v).
struct Gates {
    static constexpr int W = 4, H = 3;
    std::vector<Float3> vmap = std::vector<Float3>(W * H, Float3{0, 0, 1});
    std::vector<Float3> nmap = std::vector<Float3>(W * H, Float3{0, 0, -1});
    std::vector<float> gray = std::vector<float>(W * H, 0.5f);
    std::vector<float> grad = std::vector<float>(W * H, 0.0f);
    Intrinsics k{1, 1, 0, 0};
    AssociationLimits limits{100.0, std::cos(1.57)};

    TargetMaps target() const {
        return TargetMaps{packedView(vmap.data(), W, H), packedView(nmap.data(), W, H),
                          packedView(gray.data(), W, H), packedView(grad.data(), W, H),
                          packedView(grad.data(), W, H)};
    }

    // Which of the three forms accept the source point (u, v, 1) with normal (0, 0, -1).
    std::vector<bool> accepted(float u, float v) const {
        CompactSource s;
        s.points = {Float3{u, v, 1}};
        s.normals = {Float3{0, 0, -1}};
        s.gray = {0.5f};
        const RT_<float> id = RT_<float>::identity();
        PairArrays pairs;
        pairs.resizeColored(1);
        NormalEquations ne{};
        associatePoint(k, target(), s, id, limits, pairs, 0, 1, ne);
        std::vector<bool> out{pairs.matchFlags[0] != 0};
        pairs.resizeColored(1);
        associatePlane(k, target(), s, id, limits, pairs, 0, 1, ne);
        out.push_back(pairs.matchFlags[0] != 0);
        pairs.resizeColored(1);
        ResidualStats stats{};
        associateColored(k, target(), s.points.data(), s.normals.data(), s.gray.data(), limits,
                         pairs, 0, 1, stats);
        out.push_back(pairs.matchFlags[0] != 0);
        return out;
    }
};

using Forms = std::vector<bool>;  // point, plane, coloured

}  // namespace

TEST(ProjectiveAssociation, ColumnAndRowGatesAtTheImageBorders) {
    Gates g;
    EXPECT_EQ(g.accepted(1.0f, 1.0f), (Forms{true, true, true}));
    EXPECT_EQ(g.accepted(-0.3f, 1.0f), (Forms{false, false, false}));  // would round to 0
    EXPECT_EQ(g.accepted(0.0f, 1.0f), (Forms{true, false, true}));     // the plane form wants u > 0
    EXPECT_EQ(g.accepted(1.0f, 0.0f), (Forms{true, false, true}));
    EXPECT_EQ(g.accepted(Gates::W - 0.4f, 1.0f), (Forms{false, false, false}));  // rounds to W
    EXPECT_EQ(g.accepted(Gates::W - 0.6f, 1.0f), (Forms{true, true, true}));
    EXPECT_EQ(g.accepted(1.0f, Gates::H - 0.4f), (Forms{false, false, false}));
    EXPECT_EQ(g.accepted(NAN, 1.0f), (Forms{false, false, false}));
    EXPECT_EQ(g.accepted(1e30f, 1.0f), (Forms{false, false, false}));
}

TEST(ProjectiveAssociation, VertexNormalDistanceAndAngleGates) {
    Gates g;
    g.nmap[1 * Gates::W + 1] = Float3{0, 0, 0};  // a valid vertex without a normal
    EXPECT_EQ(g.accepted(1.0f, 1.0f), (Forms{true, false, false}));
    g.vmap[1 * Gates::W + 2] = Float3{0, 0, 0};
    EXPECT_EQ(g.accepted(2.0f, 1.0f), (Forms{false, false, false}));
    // The source point is at (u, v, 1) and the target vertex at (0, 0, 1): distance sqrt(u^2+v^2).
    g.limits.maxDistanceSquared = 2.0;  // (3, 1) is sqrt(10) away
    EXPECT_EQ(g.accepted(3.0f, 1.0f), (Forms{false, false, false}));
    g.nmap = std::vector<Float3>(Gates::W * Gates::H, Float3{0, 0, 1});  // facing away
    g.limits.maxDistanceSquared = 100.0;
    EXPECT_EQ(g.accepted(3.0f, 1.0f), (Forms{true, false, false}));
    g.limits.cosMaxAngle = -1.0;  // -1 > -1 fails: equality does not pass
    EXPECT_EQ(g.accepted(3.0f, 1.0f), (Forms{true, false, false}));
}

TEST(ProjectiveAssociation, CompactionSkipsZeroNormalsButKeepsAZeroComponent) {
    const std::vector<Float3> v = {{0, 0, 1}, {0, 0, 0}, {1, 0, 2}, {0, 1, 3}};
    const std::vector<Float3> n = {{0, 0, 0}, {0, 0, -1}, {0, 0, -1}, {1, 0, 0}};
    const std::vector<float> gray = {0.1f, 0.2f, 0.3f, 0.4f};
    EXPECT_EQ(compactPoints(packedView(v.data(), 2, 2)).size(), 3);
    const CompactSource s =
        compactWithNormals(packedView(v.data(), 2, 2), packedView(n.data(), 2, 2),
                           packedView(gray.data(), 2, 2));
    ASSERT_EQ(s.size(), 2);
    EXPECT_EQ(s.points[0].z, 2.0f);
    EXPECT_EQ(s.gray, (std::vector<float>{0.3f, 0.4f}));
}

TEST(ProjectiveAssociation, ColoredResidualTakesTheImageToTheExactProjection) {
    Gates g;
    for (int i = 0; i < Gates::W * Gates::H; ++i) g.gray[size_t(i)] = 0.1f * float(i % Gates::W);
    std::fill(g.grad.begin(), g.grad.end(), 0.2f);  // gradient x and y share the map
    CompactSource s;
    s.points = {Float3{1.3f, 0.8f, 1.0f}};
    s.normals = {Float3{0, 0, -1}};
    s.gray = {0.05f};
    PairArrays pairs;
    pairs.resizeColored(1);
    ResidualStats stats{};
    associateColored(g.k, g.target(), s.points.data(), s.normals.data(), s.gray.data(), g.limits,
                     pairs, 0, 1, stats);
    ASSERT_EQ(pairs.matchFlags[0], 1);
    // Pixel (1, 1): gray 0.1, plus 0.3 * 0.2 and -0.2 * 0.2, minus the source 0.05.
    EXPECT_NEAR(pairs.residualC[0], 0.1f + 0.06f - 0.04f - 0.05f, 1e-6);
    EXPECT_NEAR(pairs.residualG[0], -(1.0f - 1.0f), 1e-6);
    EXPECT_EQ(stats.count, 1);
}
