#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "pair/photometric_term.h"
#include "pair/projective_association.h"
#include "support/holey_maps.h"
#include "support/rgbd_maps.h"

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

    // Which of the three forms accept the source point (u, v, 1) with normal (0, 0, -1). Nine
    // copies run as well, eight in vector lanes and one in the scalar tail; all must agree.
    std::vector<bool> accepted(float u, float v) const {
        std::vector<bool> out;
        for (int form = 0; form < 3; ++form) {
            std::vector<uint8_t> flags;
            for (int n : {1, 9}) {
                CompactSource s;
                s.points.assign(size_t(n), Float3{u, v, 1});
                s.normals.assign(size_t(n), Float3{0, 0, -1});
                s.gray.assign(size_t(n), 0.5f);
                s.count = n;
                const RT_<float> id = RT_<float>::identity();
                PairArrays pairs;
                pairs.resizeColored(n);
                NormalEquations ne{};
                ResidualStats stats{};
                if (form == 0) associatePoint(k, target(), s, id, limits, pairs, 0, n, ne);
                if (form == 1) associatePlane(k, target(), s, id, limits, pairs, 0, n, ne);
                if (form == 2)
                    associateColored(k, target(), s.points.data(), s.normals.data(),
                                     s.gray.data(), limits, pairs, 0, n, stats);
                flags.insert(flags.end(), pairs.matchFlags.begin(), pairs.matchFlags.end());
            }
            for (uint8_t f : flags) EXPECT_EQ(f, flags[0]) << "form " << form << " at " << u << ", " << v;
            out.push_back(flags[0] != 0);
        }
        return out;
    }
};

using Forms = std::vector<bool>;  // point, plane, coloured

}  // namespace

TEST(ProjectiveAssociation, BorderVertexNormalDistanceAndAngleGates) {
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
    // Vertex, normal, distance and angle gates.
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
    EXPECT_EQ(std::vector<float>(s.gray.begin(), s.gray.begin() + s.size()), (std::vector<float>{0.3f, 0.4f}));
}

// The kept pixels come out whole and in row order, in the vector blocks and in the tail, and a
// workspace that held a larger image reports only the new count.
TEST(ProjectiveAssociation, CompactionKeepsValidPixelsInRowOrderAcrossBlocksAndReuse) {
    const kestor_test::HoleyMaps m;
    std::vector<int> plane, point;
    for (int i = 0; i < m.W * m.H; ++i) {
        if (!(m.vmap[size_t(i)].z > 0.0f)) continue;
        point.push_back(i);
        if (!m.zeroNormal(i)) plane.push_back(i);
    }
    CompactSource s;
    compactWithNormals(m.vertices(), m.normals(), m.grays(), s);
    ASSERT_EQ(s.size(), int(plane.size()));
    for (size_t e = 0; e < plane.size(); ++e) {
        const size_t i = size_t(plane[e]);
        EXPECT_EQ(std::memcmp(&s.points[e], &m.vmap[i], sizeof(Float3)), 0) << "element " << e;
        EXPECT_EQ(std::memcmp(&s.normals[e], &m.nmap[i], sizeof(Float3)), 0) << "element " << e;
        EXPECT_EQ(s.gray[e], m.gray[i]) << "element " << e;
    }
    compactPoints(m.vertices(), s);
    ASSERT_EQ(s.size(), int(point.size()));
    for (size_t e = 0; e < point.size(); ++e) EXPECT_EQ(s.points[e].x, m.vmap[size_t(point[e])].x) << "element " << e;
    compactWithNormals(m.vertices(1), m.normals(1), ImageView<const float>{}, s);
    EXPECT_EQ(s.size(), int(std::count_if(plane.begin(), plane.end(), [&](int i) { return i < m.W; })));
}

namespace {

// Two rendered 160x120 frames of the textured room, the second moved by a few centimetres and a
// degree, with the source compacted as the coloured solver does.
struct RoomPair {
    kestor_test::Camera camera = kestor_test::Camera().scaled(160, 120);
    std::vector<kestor_test::LevelMaps> target, source;
    CompactSource compact;
    RT_<float> pose = RT_<float>::identity();
    Intrinsics k = kestor_test::intrinsicsOf(camera);
    AssociationLimits limits{0.1 * 0.1, std::cos(1.2)};

    RoomPair() {
        using namespace kestor_test;
        const Scene scene = Scene::texturedRoom();
        const Pose base = Pose::fromAxisAngle({0, 1, 0}, 0.2, {0.2, -0.1, -0.3});
        target = buildLevels(camera, scene.render(camera, base), 1);
        source = buildLevels(camera, scene.render(camera, base * Pose::fromAxisAngle({1, 2, 0.5}, M_PI / 180, {0.03, -0.02, 0.01})), 1);
        compact = compactWithNormals(source[0].vertices(), source[0].normals(), source[0].grayView());
        // Not quite the truth, so that some pairs fail the distance gate.
        eulerToRotation(0.01f, -0.02f, 0.015f, pose.rotation);
        pose.translation[0] = 0.02f;
    }
    TargetMaps maps() const {
        return TargetMaps{target[0].vertices(), target[0].normals(), target[0].grayView(), target[0].gradXView(),
                          target[0].gradYView()};
    }
};

// The stored values of kept entries, bit for bit.
template <typename T>
void expectSameKept(const PairArrays& a, const PairArrays& b, std::vector<T> PairArrays::*member) {
    ASSERT_EQ(a.matchFlags, b.matchFlags);
    for (size_t i = 0; i < a.matchFlags.size(); ++i)
        EXPECT_TRUE(!a.matchFlags[i] || std::memcmp(&(a.*member)[i], &(b.*member)[i], sizeof(T)) == 0) << i;
}

void expectSameEquations(const NormalEquations& a, const NormalEquations& b) {
    EXPECT_EQ(a.matchCount, b.matchCount);
    for (int e = 0; e < 36; ++e) EXPECT_NEAR(a.hessian[e], b.hessian[e], 1e-9 * (1 + std::fabs(b.hessian[e])));
    for (int e = 0; e < 6; ++e) EXPECT_NEAR(a.gradient[e], b.gradient[e], 1e-9 * (1 + std::fabs(b.gradient[e])));
    EXPECT_NEAR(a.errorSum, b.errorSum, 1e-9 * (1 + b.errorSum));
}

}  // namespace

// The passes run eight entries at a time in vector lanes and the rest one by one. Run over the
// whole range and entry by entry, every stored value must have the same bits and every sum must
// agree to rounding.
TEST(ProjectiveAssociation, LanesAndSingleEntriesAgree) {
    RoomPair room;
    const int n = room.compact.size();
    ASSERT_GT(n, 1000);
    PairArrays whole, single;
    // pass(arrays, begin, end) over the whole range into `whole`, then entry by entry into `single`.
    const auto both = [&](auto pass) {
        pass(whole, 0, n);
        for (int i = 0; i < n; ++i) pass(single, i, i + 1);
    };
    whole.resizePlane(n);
    single.resizePlane(n);
    NormalEquations a{}, b{};
    both([&](PairArrays& p, int begin, int end) {
        associatePlane(room.k, room.maps(), room.compact, room.pose, room.limits, p, begin, end, &p == &whole ? a : b);
    });
    EXPECT_GT(a.matchCount, n / 2);
    EXPECT_LT(a.matchCount, n);
    expectSameEquations(a, b);
    expectSameKept(whole, single, &PairArrays::pairPoints);
    expectSameKept(whole, single, &PairArrays::pairNormals);

    // Coloured form, its rows and its trial error.
    std::vector<Float3> moved(static_cast<size_t>(n)), turned(static_cast<size_t>(n));
    transformPoints(room.pose, room.compact.points.data(), moved.data(), n);
    rotateNormals(room.pose, room.compact.normals.data(), turned.data(), n);
    whole.resizeColored(n);
    single.resizeColored(n);
    ResidualStats sa{}, sb{};
    both([&](PairArrays& p, int begin, int end) {
        associateColored(room.k, room.maps(), moved.data(), turned.data(), room.compact.gray.data(),
                         room.limits, p, begin, end, &p == &whole ? sa : sb);
    });
    EXPECT_EQ(sa.count, sb.count);
    EXPECT_NEAR(sa.sumG, sb.sumG, 1e-9);
    EXPECT_NEAR(sa.sumSquaresC, sb.sumSquaresC, 1e-9);
    for (auto member : {&PairArrays::residualG, &PairArrays::residualC, &PairArrays::pairGradX, &PairArrays::pairGray})
        expectSameKept(whole, single, member);
    const PhotometricScale scale = photometricScale(sa, colorBalance(0.3));
    RT_<float> delta = RT_<float>::identity();
    eulerToRotation(0.001f, 0.002f, -0.001f, delta.rotation);
    delta.translation[2] = 0.003f;
    NormalEquations ra{}, rb{};
    double ta = 0.0, tb = 0.0;
    both([&](PairArrays& p, int begin, int end) {  // both read the whole run's pairs
        addColoredRows(room.k, whole, moved.data(), scale, begin, end, &p == &whole ? ra : rb);
        (&p == &whole ? ta : tb) +=
            coloredTrialError(room.k, whole, moved.data(), room.compact.gray.data(), delta, scale, begin, end);
    });
    expectSameEquations(ra, rb);
    EXPECT_NEAR(ta, tb, 1e-9 * tb);
}
