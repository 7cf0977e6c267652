#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

#include "kestor.h"
#include "support/rgbd_maps.h"

using namespace kestor_test;

namespace {

constexpr int kLevels = 3;
enum Entry { MapsEntry, DepthEntry, VmapEntry, PyramidEntry };
enum Path { PointPath, PlanePath, ColoredPath };
const Pose kRoomBase = Pose::fromAxisAngle({0, 1, 0}, 0.2, {0.2, -0.1, -0.3});

Pose motion(Eigen::Vector3d axis, double degrees, Eigen::Vector3d t) {
    return Pose::fromAxisAngle(axis.normalized(), degrees * M_PI / 180.0, t);
}

// Frames of a scene at 160x120 from a base pose and from the base moved by `truth` (frame 2
// into frame 1), with depth, colour and the level maps.
struct Fixture {
    Camera camera = Camera().scaled(160, 120);
    int w = camera.width, h = camera.height;
    Pose truth;
    Frame frame1, frame2;
    std::vector<LevelMaps> maps1, maps2;
    std::vector<double> K = camera.matrix();
    std::vector<const float*> v1, n1, g1, gx1, gy1, v2, n2, g2;  // per level, for the pyramid

    Fixture(const Scene& scene, const Pose& base, const Pose& motion, int levels = kLevels)
        : truth(motion), frame1(scene.render(camera, base)), frame2(scene.render(camera, base * truth)) {
        maps1 = buildLevels(camera, frame1, levels);
        maps2 = buildLevels(camera, frame2, levels);
        for (int l = 0; l < levels; ++l) {
            const LevelMaps &a = maps1[size_t(l)], &b = maps2[size_t(l)];
            v1.push_back(&a.vmap[0].x), n1.push_back(&a.nmap[0].x), g1.push_back(a.gray.data());
            gx1.push_back(a.gradX.data()), gy1.push_back(a.gradY.data());
            v2.push_back(&b.vmap[0].x), n2.push_back(&b.nmap[0].x), g2.push_back(b.gray.data());
        }
    }
    double rotationDeg(const std::vector<double>& rt) const {
        return rotationError(Pose::fromMatrix(rt.data()), truth) * 180 / M_PI;
    }
    double translationMm(const std::vector<double>& rt) const {
        return translationError(Pose::fromMatrix(rt.data()), truth) * 1000;
    }

    // One entry with the arrays that pick the path. The pyramid runs `iterations` on each level,
    // with a third, two thirds and all of maxDistance from the finest level up.
    int run(Entry e, Path p, std::vector<double>& rt, bool parallel, int iterations = 30,
            double* info = nullptr, double maxDistance = 0.3, double colorWeight = 0.5,
            KESTORProgressFunc progress = nullptr, void* user = nullptr) const {
        const bool normals = p != PointPath, color = p == ColoredPath;
        const int sizes[2] = {w, h};
        const int its[kLevels] = {iterations, iterations, iterations};
        const double dist[kLevels] = {maxDistance / 3, 2 * maxDistance / 3, maxDistance};
        const auto pick = [](bool on, const auto* x) { return on ? x : nullptr; };
        const auto& a = maps1[0];
        switch (e) {
            case MapsEntry:  // gradients made inside from gray 1
                return KESTORMatchPair(v1[0], pick(normals, n1[0]), pick(color, g1[0]), v2[0],
                                       pick(normals, n2[0]), pick(color, g2[0]), sizes, K.data(),
                                       rt.data(), info, iterations, maxDistance, 1.57, 0.3,
                                       colorWeight, parallel, false, progress, user);
            case DepthEntry:  // no point path: depth always gives normals
                return KESTORMatchPairDepth(frame1.depth.data(), pick(color, frame1.color.data()),
                                            nullptr, frame2.depth.data(),
                                            pick(color, frame2.color.data()), nullptr, w, h,
                                            K.data(), rt.data(), info, iterations, maxDistance,
                                            1.57, 0.3, colorWeight, parallel, false, progress, user);
            case VmapEntry:
                return KESTORMatchPairVmapNmap(v1[0], pick(normals, n1[0]), pick(color, g1[0]),
                                               pick(color, a.gradX.data()), pick(color, a.gradY.data()),
                                               v2[0], pick(normals, n2[0]), pick(color, g2[0]), w, h,
                                               K.data(), rt.data(), info, iterations, maxDistance,
                                               1.57, 0.3, colorWeight, parallel, false, progress, user);
            case PyramidEntry:
                return KESTORMatchPairVmapNmapPyramid(
                    v1.data(), pick(normals, n1.data()), pick(color, g1.data()),
                    pick(color, gx1.data()), pick(color, gy1.data()), v2.data(),
                    pick(normals, n2.data()), pick(color, g2.data()), w, h, K.data(), rt.data(),
                    info, its, dist, kLevels, 1.57, 0.3, colorWeight, parallel, false, progress, user);
        }
        return -1;
    }
};

int calls = 0;
void countCalls(int, bool*, void* user) {
    ++calls;
    if (user) ++*static_cast<int*>(user);
}

}  // namespace

// Motions of 0 to 5 degrees and 5 cm in the textured room, through every entry, on the plane and
// coloured paths, in parallel, and serially too for the largest motion. At 160x120 a pixel is
// about 2 cm on the far wall: the plane path lands within a millimetre or two; the coloured one,
// whose texture is smooth, within several.
TEST(PairEntries, RecoverKnownMotionsOnEveryEntryAndPath) {
    const Scene room = Scene::texturedRoom();
    const Pose motions[] = {motion({0, 1, 0}, 0.0, {0, 0, 0}),
                            motion({1, 2, 0.5}, 2.3, {0.03, -0.02, 0.015}),
                            motion({1, -1, 0.5}, 5.0, {0.035, 0.025, -0.025})};
    for (const Pose& m : motions) {
        const Fixture f(room, kRoomBase, m);
        for (Entry e : {MapsEntry, DepthEntry, VmapEntry, PyramidEntry}) {
            for (Path p : {PlanePath, ColoredPath}) {
                std::vector<double> first;  // the parallel result, which the serial one must match
                for (bool parallel : {true, false}) {
                    if (!parallel && &m != &motions[2]) continue;  // serial on the largest only
                    SCOPED_TRACE(testing::Message() << "motion " << &m - motions << ", entry " << e
                                                    << ", path " << p << ", parallel " << parallel);
                    std::vector<double> rt = Pose().matrix(), info(36, -1.0);
                    ASSERT_EQ(f.run(e, p, rt, parallel, e == PyramidEntry ? 10 : 30, info.data()), 0);
                    EXPECT_LT(f.rotationDeg(rt), p == PlanePath ? 0.05 : 0.1);
                    EXPECT_LT(f.translationMm(rt), p == PlanePath ? 1.5 : 8.0);
                    EXPECT_GT(info[21], 1000.0);  // the translation block counts the matches
                    for (size_t i = 0; i < first.size(); ++i) EXPECT_NEAR(rt[i], first[i], 1e-4);
                    first = rt;
                }
            }
        }
    }
}

// A slide along a textured wall leaves the plane residuals unchanged: that system is singular
// and the run fails or ends far off. The image term sees the slide.
TEST(PairEntries, ColoredRecoversASlideAlongATexturedWallThatThePlanePathCannotSee) {
    Scene wall;
    wall.addPlane({0, 0, 2.5}, {0, 0, -1});
    const Fixture f(wall, Pose(), motion({0, 1, 0}, 0.0, {0.03, -0.02, 0.0}), 1);
    std::vector<double> plane = Pose().matrix(), colored = Pose().matrix();
    const int planeStatus = f.run(VmapEntry, PlanePath, plane, false, 30, nullptr, 0.2);
    EXPECT_TRUE(planeStatus != KESTOR_STATUS_OK || f.translationMm(plane) > 30.0);
    ASSERT_EQ(f.run(VmapEntry, ColoredPath, colored, true, 30, nullptr, 0.2, 0.9), KESTOR_STATUS_OK);
    EXPECT_LT(f.translationMm(colored), 8.0);  // from 36 mm
}

// The point path pairs each point with the vertex at the nearest pixel. While points move by less
// than half a pixel that is the vertex of the same pixel, so a 6 mm step along the viewing rays is
// recovered. A rotation of one degree (over two pixels here) is not: the run ends further off.
TEST(PairEntries, PointPathRecoversOnlySubPixelMotion) {
    const Scene room = Scene::texturedRoom();
    const Fixture forward(room, kRoomBase, motion({0, 1, 0}, 0.0, {0.0, 0.0, 0.006}), 1);
    const Fixture turned(room, kRoomBase, motion({0, 1, 0}, 1.0, {0.0, 0.0, 0.0}), 1);
    for (bool parallel : {false, true}) {
        std::vector<double> rt = Pose().matrix();
        ASSERT_EQ(forward.run(VmapEntry, PointPath, rt, parallel), KESTOR_STATUS_OK);
        EXPECT_LT(forward.rotationDeg(rt), 0.05);
        EXPECT_LT(forward.translationMm(rt), 3.0);
        rt = Pose().matrix();
        ASSERT_EQ(turned.run(MapsEntry, PointPath, rt, parallel), KESTOR_STATUS_OK);
        EXPECT_GT(turned.rotationDeg(rt), 1.0);
    }
}

// Which path runs is told by the pose it leaves: five iterations of the point and plane paths
// end at different poses, and each odd set of arrays must give one of them exactly.
TEST(PairEntries, ThePathFollowsWhichArraysAreGiven) {
    const Fixture s(Scene::texturedRoom(), kRoomBase, motion({1, 2, 0.5}, 2.3, {0.03, -0.02, 0.015}), 1);
    std::vector<double> plane = Pose().matrix(), point = plane, rt = plane, depth = plane;
    ASSERT_EQ(s.run(VmapEntry, PlanePath, plane, false, 5), 0);
    ASSERT_EQ(s.run(VmapEntry, PointPath, point, false, 5), 0);
    ASSERT_NE(plane, point);
    const auto matchPair = [&](const float* n1, const float* gray2) {
        std::vector<double> pose = Pose().matrix();
        const int sizes[2] = {s.w, s.h};
        EXPECT_EQ(KESTORMatchPair(s.v1[0], n1, s.g1[0], s.v2[0], s.n2[0], gray2, sizes, s.K.data(),
                                  pose.data(), nullptr, 5, 0.3, 1.57, 0.3, 0.5, false, false,
                                  nullptr, nullptr), 0);
        return pose;
    };
    EXPECT_EQ(matchPair(s.n1[0], nullptr), plane);  // gray 2 missing: plane
    EXPECT_EQ(matchPair(nullptr, s.g2[0]), point);  // normals 1 missing: point, no gradients
    EXPECT_EQ(KESTORMatchPairVmapNmap(s.v1[0], s.n1[0], s.g1[0], s.gx1[0], nullptr, s.v2[0], s.n2[0],
                                      s.g2[0], s.w, s.h, s.K.data(), rt.data(), nullptr, 5, 0.3,
                                      1.57, 0.3, 0.5, false, false, nullptr, nullptr), 0);
    EXPECT_EQ(rt, plane);  // everything but gradY1: plane
    // Colour of frame 1 only: the depth-only path, masks ignored (all-off masks change nothing).
    const std::vector<uint8_t> off(size_t(s.w) * size_t(s.h), 0);
    rt = Pose().matrix();
    EXPECT_EQ(KESTORMatchPairDepth(s.frame1.depth.data(), s.frame1.color.data(), off.data(),
                                   s.frame2.depth.data(), nullptr, off.data(), s.w, s.h, s.K.data(),
                                   rt.data(), nullptr, 5, 0.3, 1.57, 0.3, 0.5, false, false,
                                   nullptr, nullptr), 0);
    EXPECT_EQ(s.run(DepthEntry, PlanePath, depth, false, 5), 0);
    EXPECT_EQ(rt, depth);
}

// Status 1 with the pose untouched when nothing pairs or the first progress call cancels; the
// final score test only when `info` is given; the progress calls of a pyramid.
TEST(PairEntries, StopRulesAndStatuses) {
    const Fixture s(Scene::texturedRoom(), kRoomBase, motion({1, 2, 0.5}, 2.3, {0.03, -0.02, 0.015}));
    const auto cancelAtZero = [](int percent, bool* cancel, void*) { *cancel = percent == 0; };
    for (Entry e : {MapsEntry, DepthEntry, VmapEntry, PyramidEntry}) {
        for (Path p : {PointPath, PlanePath, ColoredPath}) {
            if (e == DepthEntry && p == PointPath) continue;
            SCOPED_TRACE(testing::Message() << "entry " << e << ", path " << p);
            std::vector<double> rt = Pose().matrix();
            rt[3] = 3.0;  // nothing pairs within the gates
            const std::vector<double> before = rt;
            EXPECT_EQ(s.run(e, p, rt, true, 10), KESTOR_STATUS_FAILED);
            EXPECT_EQ(rt, before);
            rt = Pose().matrix();
            EXPECT_EQ(s.run(e, p, rt, false, 10, nullptr, 0.3, 0.5, cancelAtZero), KESTOR_STATUS_FAILED);
            EXPECT_EQ(rt, Pose().matrix());
        }
    }
    // Zero iterations: the pose is only rewritten in float rounding, and the outcome is the score
    // at the start, where most points pair within 30 cm but not within 5 mm.
    std::vector<double> info(36, -1.0);
    for (double* i : {static_cast<double*>(nullptr), info.data()}) {
        for (double maxDistance : {0.005, 0.3}) {
            std::vector<double> rt = Pose().matrix();
            rt[3] = 0.1;
            const bool fails = i && maxDistance < 0.1;
            EXPECT_EQ(s.run(VmapEntry, PlanePath, rt, false, 0, i, maxDistance), fails ? 1 : 0);
            EXPECT_EQ(rt[3], double(0.1f));  // written although the test failed
        }
    }
    EXPECT_NE(info[0], -1.0);
    // Each level reports 0 twice and 100 once: three levels of one iteration make 9 calls.
    int perCall = 0;
    calls = 0;
    std::vector<double> rt = Pose().matrix();
    EXPECT_EQ(s.run(PyramidEntry, PlanePath, rt, false, 1, nullptr, 0.3, 0.5, countCalls, &perCall), 0);
    EXPECT_EQ(calls, 9);
    EXPECT_EQ(perCall, 9);
    // A null progress with a user argument is harmless.
    EXPECT_EQ(s.run(VmapEntry, PlanePath, rt, false, 1, nullptr, 0.3, 0.5, nullptr, &perCall), 0);
}

// Case b breaks the b-th checked argument of each export (null, or a size below 1).
TEST(PairEntries, BadArgumentsReturnFourWithNothingWrittenAndNoProgress) {
    const Fixture s(Scene::texturedRoom(), kRoomBase, Pose());
    const float *v = s.v1[0], *d = s.frame1.depth.data();
    const double* K = s.K.data();
    std::vector<double> rt(12, 7.0), info(36, 7.0);
    double *r = rt.data(), *i = info.data();
    const int sizes[2] = {s.w, s.h}, zero[2] = {s.w, 0}, its[kLevels] = {5, 5, 5};
    const double dist[kLevels] = {0.1, 0.2, 0.3};
    const std::vector<const float*> holed = {s.v1[0], nullptr, s.v1[2]};
    const auto cut = [](int b, int k, auto x) { return b == k ? decltype(x){} : x; };
    calls = 0;
    for (int b = 0; b < 5; ++b)
        EXPECT_EQ(KESTORMatchPair(cut(b, 0, v), nullptr, nullptr, cut(b, 1, v), nullptr, nullptr,
                                  b == 3 ? zero : cut(b, 2, sizes), K, cut(b, 4, r), i, 5, 0.3, 1.57,
                                  0.3, 0.5, false, false, countCalls, nullptr), 4) << b;
    for (int b = 0; b < 6; ++b) {
        EXPECT_EQ(KESTORMatchPairDepth(cut(b, 0, d), nullptr, nullptr, cut(b, 1, d), nullptr, nullptr,
                                       cut(b, 2, s.w), cut(b, 3, s.h), cut(b, 4, K), cut(b, 5, r),
                                       i, 5, 0.3, 1.57, 0.3, 0.5, false, false, countCalls, nullptr), 4) << b;
        EXPECT_EQ(KESTORMatchPairVmapNmap(cut(b, 0, v), nullptr, nullptr, nullptr, nullptr,
                                          cut(b, 1, v), nullptr, nullptr, b == 2 ? -1 : s.w,
                                          cut(b, 3, s.h), cut(b, 4, K), cut(b, 5, r), i, 5, 0.3,
                                          1.57, 0.3, 0.5, false, false, countCalls, nullptr), 4) << b;
    }
    // Beyond the null and size checks: a missing level, a coarsest level without pixels (width
    // 3) and the final score without source normals.
    for (int b = 0; b < 10; ++b)
        EXPECT_EQ(KESTORMatchPairVmapNmapPyramid(
                      b == 7 ? holed.data() : cut(b, 0, s.v1.data()), s.n1.data(), nullptr,
                      nullptr, nullptr, s.v2.data(), cut(b, 9, s.n2.data()), nullptr,
                      b == 8 ? 3 : cut(b, 4, s.w), s.h, cut(b, 5, K), cut(b, 6, r), i,
                      cut(b, 1, its), cut(b, 2, dist), cut(b, 3, kLevels), 1.57, 0.3, 0.5, false,
                      false, countCalls, nullptr), 4) << b;
    // Sizes whose products overflow an int (pixels, pixels times three, a row's bytes) and, with
    // no camera, point counts whose floats do: refused although the buffers are far smaller.
    for (const std::array<int, 2>& size : std::vector<std::array<int, 2>>{
             {70000, 70000}, {30000, 30000}, {1 << 28, 1}, {1 << 30, 8}, {8, 1 << 30}}) {
        const int w = size[0], h = size[1];
        const bool points = w == 8 || h == 8;
        EXPECT_EQ(KESTORMatchPair(v, s.n1[0], s.g1[0], v, s.n2[0], s.g2[0], size.data(),
                                  points ? nullptr : K, r, i, 5, 0.3, 1.57, 0.3, 0.5, false, false,
                                  countCalls, nullptr), 4) << w << " x " << h;
        if (points) continue;
        EXPECT_EQ(KESTORMatchPairDepth(d, nullptr, nullptr, d, nullptr, nullptr, w, h, K, r, i, 5,
                                       0.3, 1.57, 0.3, 0.5, false, false, countCalls, nullptr), 4);
        EXPECT_EQ(KESTORMatchPairVmapNmap(v, s.n1[0], s.g1[0], s.gx1[0], s.gx1[0], v, s.n2[0],
                                          s.g2[0], w, h, K, r, i, 5, 0.3, 1.57, 0.3, 0.5, false,
                                          false, countCalls, nullptr), 4);
        EXPECT_EQ(KESTORMatchPairVmapNmapPyramid(s.v1.data(), s.n1.data(), nullptr, nullptr, nullptr,
                                                 s.v2.data(), s.n2.data(), nullptr, w, h, K, r, i,
                                                 its, dist, 1, 1.57, 0.3, 0.5, false, false,
                                                 countCalls, nullptr), 4);
    }
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(rt, std::vector<double>(12, 7.0));
    EXPECT_EQ(info, std::vector<double>(36, 7.0));
}
