// Joint alignment of rendered frames through KESTORMatchMultiVmapNmap: every mode back to the
// truth, serial against parallel, a frame that overlaps nothing, and the argument checks.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "kestor.h"
#include "multi/rendered_frames.h"

using kestor_test::RenderedSequence;

namespace {

enum class Mode { Point, Plane, Colored };

const RenderedSequence& sequence() {
    static const RenderedSequence s(4, 160, 120);
    return s;
}

std::vector<double> runVmapNmap(const RenderedSequence& s, Mode mode, std::vector<double> rts,
                                bool parallel, int iterations = 30,
                                KESTORProgressFunc progress = nullptr, void* user = nullptr,
                                double maxDistance = 0.2) {
    auto v = s.pointers(s.vmaps), n = s.pointers(s.nmaps), g = s.pointers(s.grays),
         gx = s.pointers(s.gradXs), gy = s.pointers(s.gradYs);
    const std::vector<double> K = s.camera.matrix();
    const bool colored = mode == Mode::Colored;
    EXPECT_EQ(KESTORMatchMultiVmapNmap(v.data(), mode == Mode::Point ? nullptr : n.data(),
                                       colored ? g.data() : nullptr, colored ? gx.data() : nullptr,
                                       colored ? gy.data() : nullptr, s.camera.width,
                                       s.camera.height, K.data(), rts.data(), int(s.truth.size()),
                                       iterations, maxDistance, 0.5, 0.2, 0.3, 0, parallel, false,
                                       progress, user),
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

struct Recorder {
    std::vector<int> percents;
    int cancelAt = -1;
};
void record(int percent, bool* cancel, void* user) {
    Recorder* r = static_cast<Recorder*>(user);
    r->percents.push_back(percent);
    if (int(r->percents.size()) == r->cancelAt) *cancel = true;
}

}  // namespace

TEST(MatchMultiVmapNmap, PlaneAndColoredModesRecoverPerturbedPosesSerialAndParallelAgree) {
    const RenderedSequence& s = sequence();
    const std::vector<double> start = s.perturbedRts();
    for (Mode mode : {Mode::Plane, Mode::Colored}) {
        SCOPED_TRACE(int(mode));
        const std::vector<double> parallel = runVmapNmap(s, mode, start, true);
        expectRecovered(s, start, parallel, 0.002, 0.003);
        const std::vector<double> serial = runVmapNmap(s, mode, start, false);
        for (size_t e = 0; e < serial.size(); ++e) EXPECT_NEAR(serial[e], parallel[e], 1e-7);
    }
}

// Point to point on projective matches only sees depth along the target's rays, so on this
// coarse grid it recovers the rotation but settles a few centimetres off in translation.
TEST(MatchMultiVmapNmap, PointModeTakesOutMostOfTheRotationAndIsDeterministic) {
    const RenderedSequence& s = sequence();
    const std::vector<double> start = s.perturbedRts();
    const std::vector<double> parallel =
        runVmapNmap(s, Mode::Point, start, true, 3, nullptr, nullptr, 0.1);
    EXPECT_EQ(std::memcmp(start.data(), parallel.data(), 12 * sizeof(double)), 0);
    double r0, t0, r, t;
    kestor_test::poseErrors(s, start, r0, t0);
    kestor_test::poseErrors(s, parallel, r, t);
    EXPECT_LT(r, r0 / 3);
    // Each pair's sums do not depend on the thread that forms them.
    EXPECT_EQ(runVmapNmap(s, Mode::Point, start, false, 3, nullptr, nullptr, 0.1), parallel);
}

TEST(MatchMultiVmapNmap, EightFramesInTheColoredMode) {
    const RenderedSequence s(8, 160, 120);
    const std::vector<double> start = s.perturbedRts(0.7);
    expectRecovered(s, start, runVmapNmap(s, Mode::Colored, start, true), 0.004, 0.006);
}

TEST(MatchMultiVmapNmap, AFrameThatOverlapsNothingLeavesEveryPose) {
    RenderedSequence s(3, 160, 120);
    std::fill(s.vmaps[2].begin(), s.vmaps[2].end(), 0.0f);
    const std::vector<double> start = s.perturbedRts();
    for (Mode mode : {Mode::Point, Mode::Plane, Mode::Colored})
        EXPECT_EQ(runVmapNmap(s, mode, start, true), start);
}

TEST(MatchMultiVmapNmap, ThreeOfFourColourMapsFallBackToPlanes) {
    const RenderedSequence& s = sequence();
    const std::vector<double> start = s.perturbedRts();
    const std::vector<double> planes = runVmapNmap(s, Mode::Plane, start, false, 3);
    auto v = s.pointers(s.vmaps), n = s.pointers(s.nmaps), g = s.pointers(s.grays),
         gx = s.pointers(s.gradXs);
    const std::vector<double> K = s.camera.matrix();
    std::vector<double> rts = start;
    EXPECT_EQ(KESTORMatchMultiVmapNmap(v.data(), n.data(), g.data(), gx.data(), nullptr, 160, 120,
                                       K.data(), rts.data(), 4, 3, 0.2, 0.5, 0.2, 0.3, 0, false,
                                       false, nullptr, nullptr),
              KESTOR_STATUS_OK);
    EXPECT_EQ(rts, planes);
}

TEST(MatchMultiVmapNmap, ProgressRunsFromZeroToHundredAndCancelKeepsTheStart) {
    const RenderedSequence& s = sequence();
    const std::vector<double> start = s.perturbedRts();
    Recorder full;
    runVmapNmap(s, Mode::Plane, start, true, 5, record, &full);
    ASSERT_GE(full.percents.size(), 3u);
    EXPECT_EQ(full.percents.front(), 0);
    EXPECT_EQ(full.percents.back(), 100);
    for (size_t k = 1; k < full.percents.size(); ++k)
        EXPECT_LE(full.percents[k - 1], full.percents[k]);

    Recorder cancelled;
    cancelled.cancelAt = 1;
    EXPECT_EQ(runVmapNmap(s, Mode::Plane, start, true, 5, record, &cancelled), start);
    EXPECT_EQ(cancelled.percents, std::vector<int>({0}));
}

TEST(MatchMultiVmapNmap, BadArgumentsWriteNothing) {
    const RenderedSequence& s = sequence();
    auto v = s.pointers(s.vmaps);
    const std::vector<double> K = s.camera.matrix();
    const std::vector<double> sentinel(48, -3.25);
    std::vector<double> rts = sentinel;
    auto call = [&](const float* const* vm, const double* k, double* r, int w, int h, int n) {
        return KESTORMatchMultiVmapNmap(vm, nullptr, nullptr, nullptr, nullptr, w, h, k, r, n, 5,
                                        0.1, 0.5, 0.2, 0.0, 0, true, false, nullptr, nullptr);
    };
    EXPECT_EQ(call(nullptr, K.data(), rts.data(), 160, 120, 4), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(v.data(), nullptr, rts.data(), 160, 120, 4), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(v.data(), K.data(), nullptr, 160, 120, 4), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(v.data(), K.data(), rts.data(), 0, 120, 4), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(v.data(), K.data(), rts.data(), 160, -1, 4), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(call(v.data(), K.data(), rts.data(), 160, 120, 1), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(rts, sentinel);
    // A frame without its map: the call passes the check, runs nothing and keeps the poses.
    std::vector<const float*> holed = v;
    holed[2] = nullptr;
    std::vector<double> start = s.perturbedRts();
    rts = start;
    EXPECT_EQ(call(holed.data(), K.data(), rts.data(), 160, 120, 4), KESTOR_STATUS_OK);
    EXPECT_EQ(rts, start);
}

// Projective point to point: each point is pulled to the vertex of the pixel it rounds to, so the
// truth is only reached from under half a pixel of motion; from further out it settles on a
// whole-pixel offset. Copies of one frame make the truth an exact zero of the error.
TEST(MatchMultiVmapNmap, PointModeReachesTheTruthFromSubPixelMotion) {
    RenderedSequence c(4, 160, 120);
    for (size_t k = 1; k < 4; ++k) {
        c.vmaps[k] = c.vmaps[0];
        c.truth[k] = kestor_test::Pose();
    }
    const std::vector<double> start = c.perturbedRts(0.1);
    const std::vector<double> parallel = runVmapNmap(c, Mode::Point, start, true, 50);
    expectRecovered(c, start, parallel, 1e-5, 1e-5);
    const std::vector<double> serial = runVmapNmap(c, Mode::Point, start, false, 50);
    for (size_t e = 0; e < serial.size(); ++e) EXPECT_NEAR(serial[e], parallel[e], 1e-7);
}
