// Recorded and rendered sequences through the engine, against chaining the pyramid pair match by
// hand with the same settings: the engine's tracked poses must be at least as good.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/engine_harness.h"

using namespace kestor_test;

namespace {

struct Levels {
    std::vector<std::vector<float>> vmaps, nmaps, grays, gradXs, gradYs;
    std::vector<const float*> v, n, g, gx, gy;
};

// The pyramid the engine builds for a frame: gray maps from colour, gradient magnitude on.
Levels pyramidOf(const Camera& camera, const Frame& frame, int levels) {
    Levels l;
    std::vector<float*> v, n, g, gx, gy;
    for (int k = 0; k < levels; ++k) {
        const size_t pixels = size_t(camera.width >> k) * size_t(camera.height >> k);
        l.vmaps.emplace_back(pixels * 3), l.nmaps.emplace_back(pixels * 3);
        l.grays.emplace_back(pixels), l.gradXs.emplace_back(pixels), l.gradYs.emplace_back(pixels);
    }
    for (int k = 0; k < levels; ++k) {
        v.push_back(l.vmaps[size_t(k)].data()), n.push_back(l.nmaps[size_t(k)].data());
        g.push_back(l.grays[size_t(k)].data()), gx.push_back(l.gradXs[size_t(k)].data());
        gy.push_back(l.gradYs[size_t(k)].data());
    }
    const std::vector<double> K = camera.matrix();
    KESTORCalcPyramidVmapNmap(K.data(), frame.depth.data(), frame.color.data(), nullptr, v.data(),
                              n.data(), g.data(), gx.data(), gy.data(), camera.width,
                              camera.height, levels, true);
    l.v.assign(v.begin(), v.end()), l.n.assign(n.begin(), n.end()), l.g.assign(g.begin(), g.end());
    l.gx.assign(gx.begin(), gx.end()), l.gy.assign(gy.begin(), gy.end());
    return l;
}

// Frame k into frame 0 by chaining each pair match from the last step's motion, or, with
// `groupSize`, from the identity for the first frame after a group change (frames groupSize + 1,
// 2 groupSize + 1, ...), as the engine does: a new group has no step to predict from.
std::vector<Pose> chainByHand(const FrameSource& source, int groupSize = 0) {
    const double distances[3] = {0.08, 0.16, 0.32};
    const int iterations[3] = {10, 5, 3};
    const std::vector<double> K = source.camera.matrix();
    std::vector<Pose> poses{Pose()};
    Levels previous = pyramidOf(source.camera, source.frames[0], 3);
    Pose motion;
    for (size_t k = 1; k < source.frames.size(); ++k) {
        Levels current = pyramidOf(source.camera, source.frames[k], 3);
        if (groupSize > 0 && k > 1 && k % size_t(groupSize) == 1) motion = Pose();
        std::vector<double> rt = motion.matrix();
        const int status = KESTORMatchPairVmapNmapPyramid(
            previous.v.data(), previous.n.data(), previous.g.data(), previous.gx.data(),
            previous.gy.data(), current.v.data(), current.n.data(), current.g.data(),
            source.camera.width, source.camera.height, K.data(), rt.data(), nullptr, iterations,
            distances, 3, 1.57, 0.3, 0.3, false, false, nullptr, nullptr);
        EXPECT_EQ(status, 0) << k;
        motion = Pose::fromMatrix(rt.data());
        poses.push_back(poses.back() * motion);
        previous = std::move(current);
    }
    return poses;
}

struct Result {
    double engine, byHand, byHandAlwaysPredicted;
};

Result compare(const std::string& folder, int count) {
    FrameSource source;
    loadSequence(source, std::string(KESTOR_SHARED_DATA_DIR) + "/" + folder, count);
    TraceRecorder trace;
    void* instance = createFor(source, 10);
    KESTORPara para;
    KESTORGetPara(instance, &para);
    para.groupMode = 0;  // tracking alone: no alignment inside groups, no background graph
    para.globalMode = 0;
    para.verbose = 0;
    KESTORSetPara(instance, &para);
    KESTORSetTraceCallback(instance, recordTrace, &trace);
    runAll(instance, source, 2);
    int accepted = 0;
    KESTORGetFrameNum(instance, &accepted);
    KESTORDestroyInstance(instance);
    EXPECT_EQ(accepted, count);
    EXPECT_EQ(trace.calls.size(), size_t(count));
    std::vector<Pose> tracked;
    for (const TraceRecord& r : trace.calls) tracked.push_back(Pose::fromMatrix(&r.pose[0][0]));
    // Groups of 10 frames and the shared overlap frame: frame 10 closes group 0 and opens 1.
    for (const TraceRecord& r : trace.calls) EXPECT_EQ(r.groupId, r.id / 10) << r.id;
    const Result result{absoluteTrajectoryError(tracked, source.truth),
                        absoluteTrajectoryError(chainByHand(source, 10), source.truth),
                        absoluteTrajectoryError(chainByHand(source), source.truth)};
    std::printf("%s, %d frames: tracked ATE %.2f mm; chained by hand %.2f mm with the engine's "
                "start rule, %.2f mm always from the last motion\n",
                folder.c_str(), count, result.engine * 1000, result.byHand * 1000,
                result.byHandAlwaysPredicted * 1000);
    return result;
}

}  // namespace

// Full-size frames take minutes under the sanitizers, which the smaller runs cover.
#define SKIP_WHEN_SANITIZED()                                                    \
    if (KESTOR_SANITIZED) GTEST_SKIP() << "full-size frames are not run under sanitizers"

TEST(PipelineSequences, TumFramesTrackedAsWellAsChainingThePairMatchByHand) {
    SKIP_WHEN_SANITIZED();
    const Result r = compare("tum_fr1_xyz", 30);
    EXPECT_LE(r.engine, r.byHand + 0.0005);
    EXPECT_LT(r.engine, 0.01);
}

TEST(PipelineSequences, HandheldSequenceTrackedAsWellAsChainingThePairMatchByHand) {
    SKIP_WHEN_SANITIZED();
    const Result r = compare("synth-handheld", 60);
    EXPECT_LE(r.engine, r.byHand + 0.0005);
}
