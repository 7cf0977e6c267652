// KESTORMatchMulti: rendered frames handed over as unorganised point sets (K null) in all three
// modes, and as maps (K given); a frame that overlaps nothing, and the argument checks.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "kestor.h"
#include "multi/rendered_frames.h"

using kestor_test::RenderedSequence;

namespace {

enum class Mode { Point, Plane, Colored };

// Every second pixel of every second row with a valid vertex and normal, in the frame's own
// coordinates, with its gray value.
struct PointSets {
    std::vector<std::vector<float>> points, normals, intensities;
    std::vector<int> sizes;

    explicit PointSets(const RenderedSequence& s) {
        const int w = s.camera.width, h = s.camera.height;
        for (size_t f = 0; f < s.vmaps.size(); ++f) {
            std::vector<float> p, n, g;
            for (int y = 0; y < h; y += 2)
                for (int x = 0; x < w; x += 2) {
                    const size_t e = size_t(y * w + x);
                    const float* v = &s.vmaps[f][3 * e];
                    const float* m = &s.nmaps[f][3 * e];
                    if (!(v[2] > 0) || (m[0] == 0 && m[1] == 0 && m[2] == 0)) continue;
                    p.insert(p.end(), v, v + 3);
                    n.insert(n.end(), m, m + 3);
                    g.push_back(s.grays[f][e]);
                }
            sizes.push_back(int(g.size()));
            points.push_back(std::move(p));
            normals.push_back(std::move(n));
            intensities.push_back(std::move(g));
        }
    }
};

// Frame 0's points handed to every frame in that frame's own coordinates: full overlap, and the
// truth has an error of exactly zero.
PointSets sharedPoints(const RenderedSequence& s) {
    PointSets sets(s);
    for (size_t k = 1; k < sets.points.size(); ++k) {
        const kestor_test::Pose inv = s.truth[k].inverse();
        sets.points[k] = sets.points[0];
        sets.normals[k] = sets.normals[0];
        sets.intensities[k] = sets.intensities[0];
        sets.sizes[k] = sets.sizes[0];
        for (size_t e = 0; e < sets.points[k].size(); e += 3) {
            const Eigen::Vector3d p(sets.points[0][e], sets.points[0][e + 1], sets.points[0][e + 2]);
            const Eigen::Vector3d q = inv.R * p + inv.t;
            const Eigen::Vector3d m = inv.R * Eigen::Vector3d(sets.normals[0][e], sets.normals[0][e + 1],
                                                              sets.normals[0][e + 2]);
            for (int a = 0; a < 3; ++a) {
                sets.points[k][e + size_t(a)] = float(q[a]);
                sets.normals[k][e + size_t(a)] = float(m[a]);
            }
        }
    }
    return sets;
}

std::vector<const float*> pointersOf(const std::vector<std::vector<float>>& a) {
    std::vector<const float*> out;
    for (const auto& v : a) out.push_back(v.data());
    return out;
}

std::vector<double> runPoints(const PointSets& sets, Mode mode, std::vector<double> rts,
                              bool parallel, int iterations = 30, double maxDistance = 0.1) {
    auto p = pointersOf(sets.points), n = pointersOf(sets.normals),
         g = pointersOf(sets.intensities);
    EXPECT_EQ(KESTORMatchMulti(p.data(), mode == Mode::Point ? nullptr : n.data(),
                               mode == Mode::Colored ? g.data() : nullptr, sets.sizes.data(),
                               nullptr, rts.data(), int(sets.sizes.size()), iterations,
                               maxDistance, 0.5, 0.2, 0.3, 0, parallel, false, nullptr, nullptr),
              KESTOR_STATUS_OK);
    return rts;
}

void expectRecovered(const RenderedSequence& s, const std::vector<double>& start,
                     const std::vector<double>& out, double maxRotation, double maxTranslation) {
    EXPECT_EQ(std::memcmp(start.data(), out.data(), 12 * sizeof(double)), 0) << "frame 0 moved";
    double r0, t0, r, t;
    kestor_test::poseErrors(s, start, r0, t0);
    kestor_test::poseErrors(s, out, r, t);
    EXPECT_LT(r, maxRotation) << "started at " << r0;
    EXPECT_LT(t, maxTranslation) << "started at " << t0;
}

const RenderedSequence& sequence() {
    static const RenderedSequence s(4, 160, 120);
    return s;
}

}  // namespace

TEST(MatchMultiPoints, PlaneAndColoredModesRecoverPerturbedPosesSerialAndParallelAgree) {
    const RenderedSequence& s = sequence();
    const PointSets sets(s);
    const std::vector<double> start = s.perturbedRts();
    for (Mode mode : {Mode::Plane, Mode::Colored}) {
        SCOPED_TRACE(int(mode));
        const std::vector<double> parallel = runPoints(sets, mode, start, true);
        expectRecovered(s, start, parallel, 0.003, 0.004);
        const std::vector<double> serial = runPoints(sets, mode, start, false);
        for (size_t e = 0; e < serial.size(); ++e) EXPECT_NEAR(serial[e], parallel[e], 1e-7);
    }
}

TEST(MatchMultiPoints, EightFramesPointToPlane) {
    const RenderedSequence s(8, 160, 120);
    const std::vector<double> start = s.perturbedRts(0.7);
    expectRecovered(s, start, runPoints(PointSets(s), Mode::Plane, start, true), 0.004, 0.006);
}

TEST(MatchMultiPoints, AFrameThatOverlapsNothingLeavesEveryPose) {
    RenderedSequence s(3, 160, 120);
    PointSets sets(s);
    for (float& c : sets.points[2]) c += 50.0f;
    const std::vector<double> start = s.perturbedRts();
    for (Mode mode : {Mode::Point, Mode::Plane, Mode::Colored})
        EXPECT_EQ(runPoints(sets, mode, start, true), start) << int(mode);
}

// Intensities without normals are ignored: the run is the point-to-point one.
TEST(MatchMultiPoints, IntensitiesWithoutNormalsAreIgnored) {
    const RenderedSequence& s = sequence();
    const PointSets sets(s);
    const std::vector<double> start = s.perturbedRts();
    auto p = pointersOf(sets.points), g = pointersOf(sets.intensities);
    std::vector<double> rts = start;
    EXPECT_EQ(KESTORMatchMulti(p.data(), nullptr, g.data(), sets.sizes.data(), nullptr,
                               rts.data(), 4, 3, 0.1, 0.5, 0.2, 0.3, 0, false, false, nullptr,
                               nullptr),
              KESTOR_STATUS_OK);
    EXPECT_EQ(rts, runPoints(sets, Mode::Point, start, false, 3));
}

// With a camera the arrays are maps; the plane and coloured modes behave as the finished-map
// export does, here with the gradients computed from the gray maps.
TEST(MatchMultiPoints, WithACameraTheArraysAreMaps) {
    const RenderedSequence& s = sequence();
    const std::vector<double> start = s.perturbedRts();
    auto v = s.pointers(s.vmaps), n = s.pointers(s.nmaps), g = s.pointers(s.grays);
    const std::vector<double> K = s.camera.matrix();
    const int sizes[2] = {s.camera.width, s.camera.height};
    for (bool colored : {false, true}) {
        std::vector<double> rts = start;
        EXPECT_EQ(KESTORMatchMulti(v.data(), n.data(), colored ? g.data() : nullptr, sizes,
                                   K.data(), rts.data(), 4, 30, 0.2, 0.5, 0.2, 0.3, 0, true,
                                   false, nullptr, nullptr),
                  KESTOR_STATUS_OK);
        expectRecovered(s, start, rts, 0.002, 0.003);
    }
}

TEST(MatchMultiPoints, BadArgumentsWriteNothing) {
    const RenderedSequence& s = sequence();
    const PointSets sets(s);
    auto p = pointersOf(sets.points);
    const std::vector<double> sentinel(48, -3.25);
    std::vector<double> rts = sentinel;
    auto call = [&](const float* const* pts, const int* sizes, double* r, int n) {
        return KESTORMatchMulti(pts, nullptr, nullptr, sizes, nullptr, r, n, 5, 0.1, 0.5, 0.2,
                                0.0, 0, true, false, nullptr, nullptr);
    };
    EXPECT_EQ(call(nullptr, sets.sizes.data(), rts.data(), 4), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(p.data(), nullptr, rts.data(), 4), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(p.data(), sets.sizes.data(), nullptr, 4), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(p.data(), sets.sizes.data(), rts.data(), 1), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(rts, sentinel);
    // Past the check: a frame without its points runs nothing, and the call still returns 0.
    std::vector<const float*> holed = p;
    holed[1] = nullptr;
    const std::vector<double> start = s.perturbedRts();
    rts = start;
    EXPECT_EQ(call(holed.data(), sets.sizes.data(), rts.data(), 4), KESTOR_STATUS_OK);
    EXPECT_EQ(rts, start);
}

// Point to point without normals has no outlier test and locks onto the nearest sample, so it is
// checked where the truth is an exact zero (shared points) and the start within the sample
// spacing: it must then land on the truth, with frame 0 untouched.
TEST(MatchMultiPoints, PointModeRecoversSharedPointsSerialAndParallelAgree) {
    const RenderedSequence& s = sequence();
    const PointSets sets = sharedPoints(s);
    const std::vector<double> start = s.perturbedRts(0.1);
    const std::vector<double> parallel = runPoints(sets, Mode::Point, start, true, 30, 0.05);
    expectRecovered(s, start, parallel, 1e-4, 1e-4);
    const std::vector<double> serial = runPoints(sets, Mode::Point, start, false, 30, 0.05);
    for (size_t e = 0; e < serial.size(); ++e) EXPECT_NEAR(serial[e], parallel[e], 1e-7);
}

