// The whole engine on synth-loop (exact ground truth) through KESTORStart, AddFrame and Stop, with
// every globalMode and groupMode: all frames tracked, the final poses no worse than the tracked
// ones, the newest frame where tracking left it, and a reader calling KESTORGetFrame beside the
// pipeline (for the thread sanitizer). The application's pair match starts from the ground truth
// moved off by a degree and 2 cm, so the built-in match must refine it; its score is the distance
// of the key frames' true positions. A prefix at half size (every other pixel) keeps it short.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/engine_harness.h"

using namespace kestor_test;

namespace {

// The first 21 frames of synth-loop, every other pixel of every other row; runs share it (only
// its fill count changes).
FrameSource& synthLoop() {
    static FrameSource* source = [] {
        auto* s = new FrameSource;
        loadSequence(*s, std::string(KESTOR_SHARED_DATA_DIR) + "/synth-loop", 21, 1);
        return s;
    }();
    return *source;
}

// The application's pair match starts from the truth moved off by a degree and 2 cm.
bool pairMatch(const KESTORFrameInfo* first, const KESTORFrameInfo* second, double rt[3][4], int, void* user) {
    const FrameSource& s = *static_cast<const FrameSource*>(user);
    const Pose estimate = s.truth[size_t(first->id)].inverse() * s.truth[size_t(second->id)] *
                          Pose::fromAxisAngle({1, 1, 0}, 0.017, {0.02, -0.01, 0.0});
    const std::vector<double> m = estimate.matrix();
    std::copy(m.begin(), m.end(), &rt[0][0]);
    return true;
}

float score(const KESTORFrameInfo* candidate, const KESTORFrameInfo* current, void* user) {
    const FrameSource& s = *static_cast<const FrameSource*>(user);
    return float(translationError(s.truth[size_t(candidate->id)], s.truth[size_t(current->id)]));
}

void countRead(const KESTORFrameInfo*, const double[3][4], void* user) { ++*static_cast<std::atomic<long>*>(user); }

struct Outcome {
    double trackedAteMm = 0, finalAteMm = 0, lastMovedMm = 0;
    int frames = 0, lost = 0;
    long reads = 0;
};

// Groups of 5, the given modes.
Outcome runEngine(int globalMode, int groupMode) {
    FrameSource& source = synthLoop();
    const int frames = int(source.frames.size());
    TraceRecorder trace;
    const std::vector<double> K = source.camera.matrix();
    const double distances[3] = {0.05, 0.1, 0.2};
    const int iterations[3] = {10, 10, 10};
    void* instance = nullptr;
    EXPECT_EQ(KESTORCreateInstance(&instance, K.data(), source.camera.width, source.camera.height, distances,
                                   iterations, 3, 5, KESTOR_FLAG_NO_MASK | KESTOR_FLAG_GRAY),
              KESTOR_STATUS_OK);
    setModes(instance, groupMode, globalMode);
    KESTORSetTraceCallback(instance, recordTrace, &trace);
    KESTORSetPairMatchFunc(instance, pairMatch, &source);
    KESTORSetCalcScoreFunc(instance, score, &source);

    std::atomic<bool> adding{true};
    std::atomic<long> reads{0};
    std::thread reader([&] {
        while (adding) KESTORGetFrame(instance, -1, countRead, &reads);
    });
    runAll(instance, source, 2);
    adding = false;
    reader.join();

    Outcome out;
    KESTORGetFrameNum(instance, &out.frames);
    std::vector<Pose> tracked, final;
    for (const TraceRecord& r : trace.calls) tracked.push_back(Pose::fromMatrix(&r.pose[0][0]));
    for (const TraceRecord& r : trace.calls) out.lost += r.matchResult != 0;
    for (const FramePose& p : framePoses(instance)) final.push_back(p.pose);
    KESTORDestroyInstance(instance);
    if (out.frames != frames || int(tracked.size()) != frames) return out;
    // After the best rigid alignment: the background pass keeps the newest frame, not frame 0,
    // where it was.
    out.trackedAteMm = absoluteTrajectoryError(tracked, source.truth) * 1000;
    out.finalAteMm = absoluteTrajectoryError(final, source.truth) * 1000;
    out.reads = reads;
    out.lastMovedMm = translationError(final.back(), tracked.back()) * 1000;
    return out;
}

}  // namespace

// 21 frames at 160x120 in groups of 5: four full groups, and the last overlap frame alone in a
// fifth that the stop finishes; loop closing runs from the third group on. Under a sanitizer,
// only the defaults and the frame graph over tracking alone (the two write-back shapes).
TEST(GroupStageRun, EveryModeCombinationRunsThroughAndKeepsTheNewestFrame) {
    std::vector<std::pair<int, int>> modes;
    for (int globalMode : {0, 1, 2})
        for (int groupMode : {0, 1, 2}) modes.emplace_back(globalMode, groupMode);
    if (KESTOR_SANITIZED || KESTOR_THREAD_SANITIZED) modes = {{1, 2}, {2, 0}};
    for (const auto& mode : modes) {
        const int globalMode = mode.first, groupMode = mode.second;
        const Outcome o = runEngine(globalMode, groupMode);
        SCOPED_TRACE(testing::Message() << "globalMode " << globalMode << " groupMode " << groupMode
                                        << ": ATE tracked " << o.trackedAteMm << " mm, final " << o.finalAteMm
                                        << " mm");
        ASSERT_EQ(o.frames, 21);
        EXPECT_EQ(o.lost, 0);
        EXPECT_GT(o.reads, 0);
        EXPECT_LT(o.finalAteMm, 15.0);
        EXPECT_LT(o.finalAteMm, o.trackedAteMm + 2.0);
        EXPECT_LT(o.lastMovedMm, 1e-6) << "the newest frame keeps its tracked pose";
    }
}
