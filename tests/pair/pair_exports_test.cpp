#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "kestor.h"
#include "pair/match_vmap.h"
#include "support/rgbd_maps.h"

using namespace kestor;
using kestor_test::Camera;
using kestor_test::LevelMaps;
using kestor_test::Pose;
using kestor_test::Scene;

namespace {

constexpr int kLevels = 3;

// A rendered pair of the textured room at 160x120, with depth, colour and the level maps.
struct Fixture {
    Camera camera = Camera().scaled(160, 120);
    Pose truth;
    kestor_test::Frame frame1, frame2;
    std::vector<LevelMaps> maps1, maps2;
    std::vector<double> K = camera.matrix();

    explicit Fixture(const Pose& motion) : truth(motion) {
        const Scene room = Scene::texturedRoom();
        const Pose base = Pose::fromAxisAngle({0, 1, 0}, 0.2, {0.2, -0.1, -0.3});
        frame1 = room.render(camera, base);
        frame2 = room.render(camera, base * truth);
        maps1 = kestor_test::buildLevels(camera, frame1, kLevels);
        maps2 = kestor_test::buildLevels(camera, frame2, kLevels);
    }
    const float* f(const std::vector<Float3>& v) const { return &v[0].x; }
    double rotationDeg(const std::vector<double>& rt) const {
        return kestor_test::rotationError(Pose::fromMatrix(rt.data()), truth) * 180 / M_PI;
    }
    double translationMm(const std::vector<double>& rt) const {
        return kestor_test::translationError(Pose::fromMatrix(rt.data()), truth) * 1000;
    }
};

const Pose kMotion = Pose::fromAxisAngle(Eigen::Vector3d(1, 2, 0.5).normalized(), 0.04,
                                         {0.03, -0.02, 0.015});  // 2.3 degrees, 4 cm

struct Pointers {
    std::vector<const float*> v1, n1, g1, gx1, gy1, v2, n2, g2;
    explicit Pointers(const Fixture& s) {
        for (int l = 0; l < kLevels; ++l) {
            const LevelMaps &a = s.maps1[size_t(l)], &b = s.maps2[size_t(l)];
            v1.push_back(s.f(a.vmap));
            n1.push_back(s.f(a.nmap));
            g1.push_back(a.gray.data());
            gx1.push_back(a.gradX.data());
            gy1.push_back(a.gradY.data());
            v2.push_back(s.f(b.vmap));
            n2.push_back(s.f(b.nmap));
            g2.push_back(b.gray.data());
        }
    }
};

const int kIterations[kLevels] = {10, 10, 10};
const double kDistances[kLevels] = {0.1, 0.2, 0.3};

int calls = 0;
void countCalls(int, bool*, void* user) {
    ++calls;
    if (user) ++*static_cast<int*>(user);
}

}  // namespace

TEST(PairEntries, PyramidEntryRecoversTheMotionOnPlaneAndColoredPathsSerialAndParallel) {
    const Fixture s(kMotion);
    const Pointers p(s);
    for (bool colored : {false, true}) {
        for (bool parallel : {false, true}) {
            std::vector<double> rt = Pose().matrix(), info(36, -1.0);
            const int status = KESTORMatchPairVmapNmapPyramid(
                p.v1.data(), p.n1.data(), colored ? p.g1.data() : nullptr,
                colored ? p.gx1.data() : nullptr, colored ? p.gy1.data() : nullptr, p.v2.data(),
                p.n2.data(), colored ? p.g2.data() : nullptr, s.camera.width, s.camera.height,
                s.K.data(), rt.data(), info.data(), kIterations, kDistances, kLevels, 1.57, 0.3,
                0.5, parallel, false, nullptr, nullptr);
            EXPECT_EQ(status, KESTOR_STATUS_OK);
            EXPECT_LT(s.rotationDeg(rt), colored ? 0.1 : 0.05);
            EXPECT_LT(s.translationMm(rt), colored ? 8.0 : 1.5);
            EXPECT_GT(info[21], 1000.0);  // the translation block counts the matched points
        }
    }
}

TEST(PairEntries, MapAndDepthEntriesRecoverTheMotion) {
    const Fixture s(kMotion);
    const LevelMaps &a = s.maps1[0], &b = s.maps2[0];
    const int w = s.camera.width, h = s.camera.height;
    const int sizes[2] = {w, h};
    for (bool parallel : {false, true}) {
        SCOPED_TRACE(parallel);
        std::vector<double> rt = Pose().matrix();
        EXPECT_EQ(KESTORMatchPairVmapNmap(s.f(a.vmap), s.f(a.nmap), nullptr, nullptr, nullptr,
                                          s.f(b.vmap), s.f(b.nmap), nullptr, w, h, s.K.data(),
                                          rt.data(), nullptr, 30, 0.3, 1.57, 0.3, 0.5, parallel,
                                          false, nullptr, nullptr),
                  0);
        EXPECT_LT(s.translationMm(rt), 1.5);
        rt = Pose().matrix();
        EXPECT_EQ(KESTORMatchPairVmapNmap(s.f(a.vmap), s.f(a.nmap), a.gray.data(), a.gradX.data(),
                                          a.gradY.data(), s.f(b.vmap), s.f(b.nmap), b.gray.data(),
                                          w, h, s.K.data(), rt.data(), nullptr, 30, 0.3, 1.57, 0.3,
                                          0.5, parallel, false, nullptr, nullptr),
                  0);
        EXPECT_LT(s.translationMm(rt), 8.0);
        // Maps with the gray of both frames: gradients made inside with sigma 1.6.
        rt = Pose().matrix();
        EXPECT_EQ(KESTORMatchPair(s.f(a.vmap), s.f(a.nmap), a.gray.data(), s.f(b.vmap),
                                  s.f(b.nmap), b.gray.data(), sizes, s.K.data(), rt.data(),
                                  nullptr, 30, 0.3, 1.57, 0.3, 0.5, parallel, false, nullptr,
                                  nullptr),
                  0);
        EXPECT_LT(s.translationMm(rt), 8.0);
        // Raw depth, with and without colour.
        for (bool color : {false, true}) {
            rt = Pose().matrix();
            std::vector<double> info(36);
            EXPECT_EQ(KESTORMatchPairDepth(s.frame1.depth.data(),
                                           color ? s.frame1.color.data() : nullptr, nullptr,
                                           s.frame2.depth.data(),
                                           color ? s.frame2.color.data() : nullptr, nullptr, w, h,
                                           s.K.data(), rt.data(), info.data(), 30, 0.3, 1.57, 0.3,
                                           0.3, parallel, false, nullptr, nullptr),
                      0);
            EXPECT_LT(s.rotationDeg(rt), 0.1);
            EXPECT_LT(s.translationMm(rt), color ? 8.0 : 1.5);
        }
    }
}

// Which solver runs is told by the pose it leaves: the same run through the worker gives it.
TEST(PairEntries, TheSolverFollowsWhichArraysAreGiven) {
    const Fixture s(kMotion);
    const LevelMaps &a = s.maps1[0], &b = s.maps2[0];
    const int w = s.camera.width, h = s.camera.height;
    const int sizes[2] = {w, h};
    const Intrinsics k = kestor_test::intrinsicsOf(s.camera);
    std::vector<double> plane = Pose().matrix(), point = Pose().matrix();
    ASSERT_TRUE(matchVmapPlane(k, a.vertices(), a.normals(), b.vertices(), b.normals(),
                               poseView(plane.data()), 5, 0.3, 1.57, 0.3, false, {}, false));
    ASSERT_TRUE(matchVmapPoint(k, a.vertices(), b.vertices(), poseView(point.data()), 5, 0.3, 0.3,
                               false, {}, false));
    ASSERT_NE(plane, point);

    std::vector<double> rt = Pose().matrix();
    // gray2 missing: plane.
    EXPECT_EQ(KESTORMatchPair(s.f(a.vmap), s.f(a.nmap), a.gray.data(), s.f(b.vmap), s.f(b.nmap),
                              nullptr, sizes, s.K.data(), rt.data(), nullptr, 5, 0.3, 1.57, 0.3,
                              0.5, false, false, nullptr, nullptr),
              0);
    EXPECT_EQ(rt, plane);
    // Normals missing, grays given: point, with no gradient step.
    rt = Pose().matrix();
    EXPECT_EQ(KESTORMatchPair(s.f(a.vmap), nullptr, a.gray.data(), s.f(b.vmap), s.f(b.nmap),
                              b.gray.data(), sizes, s.K.data(), rt.data(), nullptr, 5, 0.3, 1.57,
                              0.3, 0.5, false, false, nullptr, nullptr),
              0);
    EXPECT_EQ(rt, point);
    // Everything but gradY1: plane.
    rt = Pose().matrix();
    EXPECT_EQ(KESTORMatchPairVmapNmap(s.f(a.vmap), s.f(a.nmap), a.gray.data(), a.gradX.data(),
                                      nullptr, s.f(b.vmap), s.f(b.nmap), b.gray.data(), w, h,
                                      s.K.data(), rt.data(), nullptr, 5, 0.3, 1.57, 0.3, 0.5,
                                      false, false, nullptr, nullptr),
              0);
    EXPECT_EQ(rt, plane);
    // Colour of frame 1 only: depth-only path, masks ignored (an all-off mask changes nothing).
    std::vector<double> depthOnly = Pose().matrix(), masked = Pose().matrix();
    const std::vector<uint8_t> off(size_t(w) * size_t(h), 0);
    EXPECT_EQ(KESTORMatchPairDepth(s.frame1.depth.data(), nullptr, nullptr, s.frame2.depth.data(),
                                   nullptr, nullptr, w, h, s.K.data(), depthOnly.data(), nullptr, 5,
                                   0.3, 1.57, 0.3, 0.5, false, false, nullptr, nullptr),
              0);
    EXPECT_EQ(KESTORMatchPairDepth(s.frame1.depth.data(), s.frame1.color.data(), off.data(),
                                   s.frame2.depth.data(), nullptr, off.data(), w, h, s.K.data(),
                                   masked.data(), nullptr, 5, 0.3, 1.57, 0.3, 0.5, false, false,
                                   nullptr, nullptr),
              0);
    EXPECT_EQ(depthOnly, masked);
}

TEST(PairEntries, FinalScoreTestRunsOnlyWithInfo) {
    const Fixture s(kMotion);
    const LevelMaps &a = s.maps1[0], &b = s.maps2[0];
    const int w = s.camera.width, h = s.camera.height;
    // Zero iterations: the pose is only rewritten in float rounding, and the outcome is the score
    // at the start, where most points pair within 30 cm but not within 5 mm.
    auto run = [&](double* info, double maxDistance, std::vector<double>& rt) {
        rt = Pose().matrix();
        rt[3] = 0.1;
        return KESTORMatchPairVmapNmap(s.f(a.vmap), s.f(a.nmap), nullptr, nullptr, nullptr,
                                       s.f(b.vmap), s.f(b.nmap), nullptr, w, h, s.K.data(),
                                       rt.data(), info, 0, maxDistance, 1.57, 0.3, 0.5, false,
                                       false, nullptr, nullptr);
    };
    std::vector<double> rt, info(36, -1.0);
    EXPECT_EQ(run(nullptr, 0.005, rt), KESTOR_STATUS_OK);
    EXPECT_EQ(rt[3], double(0.1f));
    EXPECT_EQ(run(info.data(), 0.005, rt), KESTOR_STATUS_FAILED);
    EXPECT_EQ(rt[3], double(0.1f));  // pose and matrix written although the test failed
    EXPECT_NE(info[0], -1.0);
    EXPECT_EQ(run(info.data(), 0.3, rt), KESTOR_STATUS_OK);
}

TEST(PairEntries, LowRatioAndCancelGiveStatusOneWithThePoseUntouched) {
    const Fixture s(kMotion);
    const Pointers p(s);
    std::vector<double> rt = Pose().matrix();
    rt[3] = 3.0;  // nothing pairs within the gates
    const std::vector<double> before = rt;
    EXPECT_EQ(KESTORMatchPairVmapNmapPyramid(p.v1.data(), p.n1.data(), nullptr, nullptr, nullptr,
                                             p.v2.data(), p.n2.data(), nullptr, s.camera.width,
                                             s.camera.height, s.K.data(), rt.data(), nullptr,
                                             kIterations, kDistances, kLevels, 1.57, 0.3, 0.5,
                                             true, false, nullptr, nullptr),
              KESTOR_STATUS_FAILED);
    EXPECT_EQ(rt, before);
    auto cancelAtZero = [](int percent, bool* cancel, void*) { *cancel = percent == 0; };
    rt = Pose().matrix();
    EXPECT_EQ(KESTORMatchPairVmapNmapPyramid(p.v1.data(), p.n1.data(), p.g1.data(), p.gx1.data(),
                                             p.gy1.data(), p.v2.data(), p.n2.data(), p.g2.data(),
                                             s.camera.width, s.camera.height, s.K.data(),
                                             rt.data(), nullptr, kIterations, kDistances, kLevels,
                                             1.57, 0.3, 0.5, false, false, cancelAtZero, nullptr),
              KESTOR_STATUS_FAILED);
    EXPECT_EQ(rt, Pose().matrix());
    // Each level reports 0 twice and 100 once, so three levels of one iteration make 3 x 3 calls.
    int perCall = 0;
    const int one[kLevels] = {1, 1, 1};
    calls = 0;
    EXPECT_EQ(KESTORMatchPairVmapNmapPyramid(p.v1.data(), p.n1.data(), nullptr, nullptr, nullptr,
                                             p.v2.data(), p.n2.data(), nullptr, s.camera.width,
                                             s.camera.height, s.K.data(), rt.data(), nullptr, one,
                                             kDistances, kLevels, 1.57, 0.3, 0.5, false, false,
                                             countCalls, &perCall),
              0);
    EXPECT_EQ(calls, 9);
    EXPECT_EQ(perCall, 9);
    // A null progress with a user argument is harmless.
    EXPECT_EQ(KESTORMatchPairVmapNmap(p.v1[0], p.n1[0], nullptr, nullptr, nullptr, p.v2[0],
                                      p.n2[0], nullptr, s.camera.width, s.camera.height,
                                      s.K.data(), rt.data(), nullptr, 1, 0.3, 1.57, 0.3, 0.5,
                                      false, false, nullptr, &perCall),
              0);
}

TEST(PairEntries, BadArgumentsReturnFourWithNothingWrittenAndNoProgress) {
    const Fixture s(kMotion);
    const Pointers p(s);
    const int w = s.camera.width, h = s.camera.height;
    const float* v = p.v1[0];
    const float* d = s.frame1.depth.data();
    const double* K = s.K.data();
    std::vector<double> rt(12, 7.0), info(36, 7.0);
    double* r = rt.data();
    double* i = info.data();
    calls = 0;
    const KESTORProgressFunc cb = countCalls;
    const int sizes[2] = {w, h}, zero[2] = {w, 0};
    auto matchPair = [&](const float* v1, const float* v2, const int* sz, double* pose) {
        return KESTORMatchPair(v1, nullptr, nullptr, v2, nullptr, nullptr, sz, K, pose, i, 5, 0.3,
                               1.57, 0.3, 0.5, false, false, cb, nullptr);
    };
    EXPECT_EQ(matchPair(nullptr, v, sizes, r), 4);
    EXPECT_EQ(matchPair(v, nullptr, sizes, r), 4);
    EXPECT_EQ(matchPair(v, v, nullptr, r), 4);
    EXPECT_EQ(matchPair(v, v, zero, r), 4);
    EXPECT_EQ(matchPair(v, v, sizes, nullptr), 4);
    auto depth = [&](const float* d1, const float* d2, int ww, int hh, const double* k,
                     double* pose) {
        return KESTORMatchPairDepth(d1, nullptr, nullptr, d2, nullptr, nullptr, ww, hh, k, pose, i,
                                    5, 0.3, 1.57, 0.3, 0.5, false, false, cb, nullptr);
    };
    EXPECT_EQ(depth(nullptr, d, w, h, K, r), 4);
    EXPECT_EQ(depth(d, nullptr, w, h, K, r), 4);
    EXPECT_EQ(depth(d, d, 0, h, K, r), 4);
    EXPECT_EQ(depth(d, d, w, 0, K, r), 4);
    EXPECT_EQ(depth(d, d, w, h, nullptr, r), 4);
    EXPECT_EQ(depth(d, d, w, h, K, nullptr), 4);
    auto vmaps = [&](const float* v1, const float* v2, int ww, int hh, const double* k,
                     double* pose) {
        return KESTORMatchPairVmapNmap(v1, nullptr, nullptr, nullptr, nullptr, v2, nullptr,
                                       nullptr, ww, hh, k, pose, i, 5, 0.3, 1.57, 0.3, 0.5, false,
                                       false, cb, nullptr);
    };
    EXPECT_EQ(vmaps(nullptr, v, w, h, K, r), 4);
    EXPECT_EQ(vmaps(v, nullptr, w, h, K, r), 4);
    EXPECT_EQ(vmaps(v, v, -1, h, K, r), 4);
    EXPECT_EQ(vmaps(v, v, w, 0, K, r), 4);
    EXPECT_EQ(vmaps(v, v, w, h, nullptr, r), 4);
    EXPECT_EQ(vmaps(v, v, w, h, K, nullptr), 4);
    const std::vector<const float*> holed = {p.v1[0], nullptr, p.v1[2]};
    auto pyramid = [&](const float* const* v1, const float* const* n2, const int* its,
                       const double* dist, int levels, int ww, const double* k, double* pose,
                       double* inf) {
        return KESTORMatchPairVmapNmapPyramid(v1, p.n1.data(), nullptr, nullptr, nullptr,
                                              p.v2.data(), n2, nullptr, ww, h, k, pose, inf, its,
                                              dist, levels, 1.57, 0.3, 0.5, false, false, cb,
                                              nullptr);
    };
    const auto* v1 = p.v1.data();
    const auto* n2 = p.n2.data();
    EXPECT_EQ(pyramid(nullptr, n2, kIterations, kDistances, kLevels, w, K, r, i), 4);
    EXPECT_EQ(pyramid(v1, n2, nullptr, kDistances, kLevels, w, K, r, i), 4);
    EXPECT_EQ(pyramid(v1, n2, kIterations, nullptr, kLevels, w, K, r, i), 4);
    EXPECT_EQ(pyramid(v1, n2, kIterations, kDistances, 0, w, K, r, i), 4);
    EXPECT_EQ(pyramid(v1, n2, kIterations, kDistances, kLevels, 0, K, r, i), 4);
    EXPECT_EQ(pyramid(v1, n2, kIterations, kDistances, kLevels, w, nullptr, r, i), 4);
    EXPECT_EQ(pyramid(v1, n2, kIterations, kDistances, kLevels, w, K, nullptr, i), 4);
    // Beyond the listed checks: a missing level, a coarsest level without pixels, and the score
    // that needs the source normals.
    EXPECT_EQ(pyramid(holed.data(), n2, kIterations, kDistances, kLevels, w, K, r, i), 4);
    EXPECT_EQ(pyramid(v1, n2, kIterations, kDistances, kLevels, 3, K, r, i), 4);
    EXPECT_EQ(pyramid(v1, nullptr, kIterations, kDistances, kLevels, w, K, r, i), 4);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(rt, std::vector<double>(12, 7.0));
    EXPECT_EQ(info, std::vector<double>(36, 7.0));
}
