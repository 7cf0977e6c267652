// The two-stage in-group alignment on a longer rendered sequence: groups by themselves, then the
// group clouds as rigid units; ids that leave frames out, the progress mapping and the checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kestor.h"
#include "multi/rendered_frames.h"

using kestor_test::RenderedSequence;

namespace {

const RenderedSequence& longSequence() {
    static const RenderedSequence s(20, 160, 120, 0.5);
    return s;
}

// Four groups of five, with ids out of order so that the ascending order matters.
std::vector<int> fourGroups() {
    std::vector<int> ids;
    const int idOf[4] = {2, 9, 5, 30};
    for (int f = 0; f < 20; ++f) ids.push_back(idOf[f / 5]);
    return ids;
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

std::vector<double> runVmapGroups(const RenderedSequence& s, const std::vector<int>& ids,
                                  std::vector<double> rts, bool colored, bool parallel,
                                  Recorder* recorder = nullptr) {
    auto v = s.pointers(s.vmaps), n = s.pointers(s.nmaps), g = s.pointers(s.grays),
         gx = s.pointers(s.gradXs), gy = s.pointers(s.gradYs);
    const std::vector<double> K = s.camera.matrix();
    EXPECT_EQ(KESTORMatchMultiVmapNmapInGroup(
                  v.data(), n.data(), colored ? g.data() : nullptr, colored ? gx.data() : nullptr,
                  colored ? gy.data() : nullptr, s.camera.width, s.camera.height, K.data(),
                  rts.data(), ids.data(), int(ids.size()), 20, 0.2, 0.5, 0.2, 0.3, parallel,
                  false, recorder ? record : nullptr, recorder),
              KESTOR_STATUS_OK);
    return rts;
}

// Mean rotation and translation error over all frames.
void meanErrors(const RenderedSequence& s, const std::vector<double>& rts, double& r, double& t) {
    r = t = 0;
    for (size_t k = 0; k < s.truth.size(); ++k) {
        const kestor_test::Pose p = kestor_test::Pose::fromMatrix(&rts[12 * k]);
        r += kestor_test::rotationError(p, s.truth[k]) / double(s.truth.size());
        t += kestor_test::translationError(p, s.truth[k]) / double(s.truth.size());
    }
}

void expectCloser(const RenderedSequence& s, const std::vector<double>& start,
                  const std::vector<double>& out) {
    double r0, t0, r, t;
    meanErrors(s, start, r0, t0);
    meanErrors(s, out, r, t);
    EXPECT_LT(r, 0.5 * r0);
    EXPECT_LT(t, 0.5 * t0);
}

}  // namespace

TEST(MatchMultiInGroup, TwoStagesBringTwentyFramesInFourGroupsCloserToTheTruth) {
    const RenderedSequence& s = longSequence();
    const std::vector<double> start = s.perturbedRts();
    Recorder progress;
    const std::vector<double> planes = runVmapGroups(s, fourGroups(), start, false, true, &progress);
    expectCloser(s, start, planes);
    // Frame 0 leads the lowest id and keeps its pose in both stages.
    EXPECT_TRUE(std::equal(start.begin(), start.begin() + 12, planes.begin()));
    // Groups fill 0..80 in turn, the cloud stage 80..100, and 100 ends the call.
    ASSERT_FALSE(progress.percents.empty());
    EXPECT_EQ(progress.percents.front(), 0);
    EXPECT_EQ(progress.percents.back(), 100);
    EXPECT_TRUE(std::is_sorted(progress.percents.begin(), progress.percents.end()));
    EXPECT_NE(std::find(progress.percents.begin(), progress.percents.end(), 80),
              progress.percents.end());

    const std::vector<double> colored = runVmapGroups(s, fourGroups(), start, true, true);
    expectCloser(s, start, colored);
}

TEST(MatchMultiInGroup, SerialAndParallelAgree) {
    const RenderedSequence s(8, 160, 120);
    const std::vector<int> ids = {0, 0, 0, 0, 1, 1, 1, 1};
    const std::vector<double> start = s.perturbedRts();
    const std::vector<double> parallel = runVmapGroups(s, ids, start, false, true);
    const std::vector<double> serial = runVmapGroups(s, ids, start, false, false);
    for (size_t e = 0; e < serial.size(); ++e) EXPECT_NEAR(serial[e], parallel[e], 1e-6);
}

TEST(MatchMultiInGroup, NegativeIdsLeaveTheirFramesAndAllNegativeChangesNothing) {
    const RenderedSequence s(8, 160, 120);
    const std::vector<double> start = s.perturbedRts();
    Recorder none;
    EXPECT_EQ(runVmapGroups(s, std::vector<int>(8, -1), start, false, true, &none), start);
    EXPECT_TRUE(none.percents.empty());

    const std::vector<int> ids = {0, 0, -3, 0, 4, 4, -1, 4};
    const std::vector<double> out = runVmapGroups(s, ids, start, false, true);
    for (int f : {2, 6})
        EXPECT_TRUE(std::equal(start.begin() + 12 * f, start.begin() + 12 * f + 12,
                               out.begin() + 12 * f));
    EXPECT_NE(out, start);
}

TEST(MatchMultiInGroup, CancelInTheFirstGroupKeepsEveryPose) {
    const RenderedSequence s(8, 160, 120);
    const std::vector<double> start = s.perturbedRts();
    Recorder cancelled;
    cancelled.cancelAt = 2;
    EXPECT_EQ(runVmapGroups(s, {0, 0, 0, 0, 1, 1, 1, 1}, start, false, true, &cancelled), start);
    EXPECT_EQ(cancelled.percents.size(), 2u);
}

TEST(MatchMultiInGroup, DepthAndColourFormAlignsTheGroups) {
    const RenderedSequence s(8, 160, 120);
    std::vector<const float*> depths;
    std::vector<const unsigned char*> colors;
    for (const auto& f : s.frames) {
        depths.push_back(f.depth.data());
        colors.push_back(reinterpret_cast<const unsigned char*>(f.color.data()));
    }
    const std::vector<double> K = s.camera.matrix();
    const std::vector<int> ids = {0, 0, 0, 0, 1, 1, 1, 1};
    const std::vector<double> start = s.perturbedRts();
    for (bool withColor : {false, true}) {
        std::vector<double> rts = start;
        EXPECT_EQ(KESTORMatchMultiDepthInGroup(depths.data(), withColor ? colors.data() : nullptr,
                                               nullptr, 160, 120, K.data(), rts.data(),
                                               ids.data(), 8, 20, 0.2, 0.5, 0.2, 0.3, true,
                                               false, nullptr, nullptr),
                  KESTOR_STATUS_OK);
        expectCloser(s, start, rts);
    }
}

TEST(MatchMultiInGroup, BadArgumentsWriteNothing) {
    const RenderedSequence s(3, 32, 24);
    auto v = s.pointers(s.vmaps);
    std::vector<const float*> depths;
    for (const auto& f : s.frames) depths.push_back(f.depth.data());
    const std::vector<double> K = s.camera.matrix();
    const std::vector<int> ids = {0, 0, 0};
    const std::vector<double> sentinel(36, -3.25);
    std::vector<double> rts = sentinel;
    auto vmapCall = [&](const float* const* vm, double* r, const int* g, int w, int h, int n) {
        return KESTORMatchMultiVmapNmapInGroup(vm, nullptr, nullptr, nullptr, nullptr, w, h,
                                               K.data(), r, g, n, 5, 0.1, 0.5, 0.2, 0.0, true,
                                               false, nullptr, nullptr);
    };
    auto depthCall = [&](const float* const* d, double* r, const int* g, int w, int h, int n) {
        return KESTORMatchMultiDepthInGroup(d, nullptr, nullptr, w, h, K.data(), r, g, n, 5, 0.1,
                                            0.5, 0.2, 0.0, true, false, nullptr, nullptr);
    };
    EXPECT_EQ(vmapCall(nullptr, rts.data(), ids.data(), 32, 24, 3), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(vmapCall(v.data(), nullptr, ids.data(), 32, 24, 3), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(vmapCall(v.data(), rts.data(), nullptr, 32, 24, 3), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(vmapCall(v.data(), rts.data(), ids.data(), 0, 24, 3), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(vmapCall(v.data(), rts.data(), ids.data(), 32, -2, 3), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(vmapCall(v.data(), rts.data(), ids.data(), 32, 24, 1), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(depthCall(nullptr, rts.data(), ids.data(), 32, 24, 3), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(depthCall(depths.data(), nullptr, ids.data(), 32, 24, 3), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(depthCall(depths.data(), rts.data(), nullptr, 32, 24, 3), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(depthCall(depths.data(), rts.data(), ids.data(), 32, 0, 3), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(depthCall(depths.data(), rts.data(), ids.data(), 32, 24, 1), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(rts, sentinel);
    // Past the checks a frame without its map runs nothing, and the status is still 0.
    std::vector<const float*> holed = depths;
    holed[1] = nullptr;
    const std::vector<double> start = s.perturbedRts();
    rts = start;
    EXPECT_EQ(depthCall(holed.data(), rts.data(), ids.data(), 32, 24, 3), KESTOR_STATUS_OK);
    EXPECT_EQ(rts, start);
}
