// The engine driven through its exports on rendered frames: what reaches tracking and the trace
// callback, and in which order, and the statuses of the pipeline family.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <set>
#include <string>

#include "core/fusion_instance.h"
#include "core/parallel_for.h"
#include "support/engine_harness.h"

using namespace kestor_test;
using kestor::RGBDFusionImpl;
using kestor::_Group;

namespace {

const FrameSource& path40() {
    static FrameSource* source = [] {
        auto* s = new FrameSource;
        renderPath(*s, 40, 160, 120);
        return s;
    }();
    return *source;
}

// A fresh source over the shared rendering (fills count per run).
struct EngineRun {
    FrameSource source;
    TraceRecorder trace;
    void* instance;
    explicit EngineRun(int groupSize, int groupMode = 0, int globalMode = 0,
                 unsigned flags = KESTOR_FLAG_NO_MASK | KESTOR_FLAG_GRAY) {
        source.camera = path40().camera;
        source.frames = path40().frames;
        source.truth = path40().truth;
        source.refuse.assign(source.frames.size(), false);
        instance = createFor(source, groupSize, flags);
        setModes(instance, groupMode, globalMode);
        KESTORSetTraceCallback(instance, recordTrace, &trace);
    }
    ~EngineRun() { KESTORDestroyInstance(instance); }
    RGBDFusionImpl& impl() { return *static_cast<RGBDFusionImpl*>(instance); }
    void add(int count) {
        for (int k = 0; k < count; ++k) KESTORAddFrame(instance, fillFromSource, &source);
    }
    int frameCount() {
        int n = -1;
        KESTORGetFrameNum(instance, &n);
        return n;
    }
};

bool refuseSequential(const KESTORFrameInfo*, const KESTORFrameInfo* second, double rt[3][4],
                      int flag, void* refusedId) {
    if (flag == KESTOR_MATCH_SEQUENTIAL && second->id == *static_cast<int*>(refusedId))
        return false;
    rt[0][0] = rt[1][1] = rt[2][2] = 1;  // the identity: frames move little
    return true;
}

}  // namespace

// Each row breaks one argument of a pipeline export: its status, with nothing written, no fill
// and no callback. The rows after them are the calls that are not errors.
TEST(Pipeline, BadArgumentsAreRefusedWithNothingWrittenOrCalled) {
    EngineRun run(10);
    void* h = run.instance;
    struct Spy { int count = 7, calls = 0; } spy;
    const KESTORFrameFunc frameFunc = [](const KESTORFrameInfo*, const double[3][4], void* s) {
        ++static_cast<Spy*>(s)->calls;
    };
    const struct Row { const char* broken; std::function<int()> call; int status; } rows[] = {
        {"Start: handle", [&] { return KESTORStart(nullptr, 1); }, 9},
        {"Stop: handle", [&] { return KESTORStop(nullptr); }, 9},
        {"AddFrame: handle", [&] { return KESTORAddFrame(nullptr, fillFromSource, &run.source); }, 9},
        {"AddFrame: fill", [&] { return KESTORAddFrame(h, nullptr, &run.source); }, 4},
        {"GetFrameNum: handle", [&] { return KESTORGetFrameNum(nullptr, &spy.count); }, 9},
        {"GetFrame: handle", [&] { return KESTORGetFrame(nullptr, -1, frameFunc, &spy); }, 9},
        {"GetFrame: function", [&] { return KESTORGetFrame(h, -1, nullptr, &spy); }, 4},
        {"GetFrame: index below -1", [&] { return KESTORGetFrame(h, -2, frameFunc, &spy); }, 4},
        {"GetFrameNum: no count", [&] { return KESTORGetFrameNum(h, nullptr); }, 0},
        {"GetFrame: empty list", [&] { return KESTORGetFrame(h, -1, frameFunc, &spy); }, 0},
        {"GetFrame: past the end", [&] { return KESTORGetFrame(h, 0, frameFunc, &spy); }, 0},
        {"Stop: stopped instance", [&] { return KESTORStop(h); }, 0},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.call(), r.status) << r.broken;
        EXPECT_EQ(spy.count, 7) << r.broken;
        EXPECT_EQ(spy.calls, 0) << r.broken;
        EXPECT_EQ(run.source.fills.load(), 0) << r.broken;
        EXPECT_TRUE(run.trace.calls.empty()) << r.broken;
    }
    EXPECT_EQ(KESTORGetFrameNum(h, &spy.count), 0);
    EXPECT_EQ(spy.count, 0);
}

TEST(Pipeline, ARefusedFillLeavesAGapInTheIdsAndNoTrace) {
    EngineRun run(10);
    run.source.refuse[1] = true;
    KESTORStart(run.instance, 2);
    run.add(3);
    KESTORStop(run.instance);
    EXPECT_EQ(run.frameCount(), 2);
    ASSERT_EQ(run.trace.calls.size(), 2u);
    EXPECT_EQ(run.trace.calls[0].id, 0);
    EXPECT_EQ(run.trace.calls[1].id, 2);
    EXPECT_EQ(run.trace.calls[1].index, 1);
    EXPECT_EQ(run.source.fills.load(), 3);
    const std::vector<FramePose> poses = framePoses(run.instance);
    ASSERT_EQ(poses.size(), 2u);
    EXPECT_EQ(poses[1].id, 2);
    const std::vector<FramePose> second = framePoses(run.instance, 1);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(second[0].id, 2);
    EXPECT_NEAR(second[0].pose.t.x(), poses[1].pose.t.x(), 1e-12);
}

// groupSize 3: frames 0..3 are group 0 (four members), frame 3 also member 0 of group 1.
TEST(Pipeline, GroupsShareTheirOverlapFrameAndTheTrackedPathFollowsTheTruth) {
    EngineRun run(3);
    KESTORStart(run.instance, 2);
    run.add(5);
    KESTORStop(run.instance);
    ASSERT_EQ(run.trace.calls.size(), 5u);
    const int groupIds[5] = {0, 0, 0, 1, 1};
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(run.trace.calls[size_t(k)].groupId, groupIds[k]) << k;
        EXPECT_EQ(run.trace.calls[size_t(k)].matchResult, 0) << k;
    }
    ASSERT_EQ(run.impl().groups.size(), 2u);
    EXPECT_EQ(run.impl().finishedGroups.load(), 2);  // the open last group is finished by the stop
    const std::vector<FramePose> poses = framePoses(run.instance);
    const Pose origin = run.source.truth[0].inverse();
    for (const FramePose& p : poses) {
        const Pose truth = origin * run.source.truth[size_t(p.id)];
        EXPECT_LT(translationError(p.pose, truth), 0.005) << p.id;
        EXPECT_LT(rotationError(p.pose, truth), 0.005) << p.id;
    }
}

TEST(Pipeline, LostFramesReportWhyAndStayOutOfTheLists) {
    // The application refuses frame 2: lost with 3. A frame with no depth: the built-in match
    // fails with no finished group to fall back on: lost with 2.
    EngineRun run(10);
    int refused = 2;
    KESTORSetPairMatchFunc(run.instance, refuseSequential, &refused);
    run.source.frames[3].depth.assign(run.source.frames[3].depth.size(), 0.0f);
    KESTORStart(run.instance, 1);
    run.add(5);
    KESTORStop(run.instance);
    ASSERT_EQ(run.trace.calls.size(), 5u);
    const int results[5] = {0, 0, 3, 2, 0};
    for (int k = 0; k < 5; ++k) EXPECT_EQ(run.trace.calls[size_t(k)].matchResult, results[k]) << k;
    EXPECT_EQ(run.trace.calls[2].index, -1);
    EXPECT_EQ(run.trace.calls[2].pose[0][0], 0.0);  // no pose for a lost frame
    EXPECT_EQ(run.trace.calls[4].index, 2);  // tracked against frame 1, the last accepted
    EXPECT_EQ(run.frameCount(), 3);
}

TEST(Pipeline, AFrameTheChainLosesIsRelocalisedIntoAFinishedGroup) {
    EngineRun run(3);
    int refused = 4;
    KESTORSetPairMatchFunc(run.instance, refuseSequential, &refused);
    KESTORStart(run.instance, 1);
    run.add(4);  // frame 3 closes group 0
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (run.impl().finishedGroups.load() < 1 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    run.add(2);
    KESTORStop(run.instance);
    ASSERT_EQ(run.trace.calls.size(), 6u);
    const TraceRecord& r = run.trace.calls[4];
    EXPECT_TRUE(r.relocalized);
    EXPECT_EQ(r.matchResult, 0);
    EXPECT_EQ(r.groupId, 2);
    const RGBDFusionImpl& f = run.impl();
    ASSERT_EQ(f.groups.size(), 3u);
    EXPECT_EQ(f.groups[1]->frameCount, 1);  // closed short by the relocalised frame
    const _Group& g = *f.groups[2];
    ASSERT_EQ(g.loopEdges.size(), 1u);
    EXPECT_EQ(g.loopEdges[0].weight, 255);
    EXPECT_EQ(g.loopEdges[0].from, 0);
    EXPECT_EQ(g.loopEdges[0].to, 0);
    EXPECT_EQ(g.frameCount, 2);  // frame 5 tracked on from the relocalised frame
    EXPECT_EQ(run.trace.calls[5].matchResult, 0);
}

TEST(Pipeline, DeviceMemoryPassesFramesButNoMatchSucceeds) {
    EngineRun run(10, 0, 0, KESTOR_FLAG_NO_MASK | KESTOR_FLAG_DEVICE_MEMORY);
    KESTORStart(run.instance, 2);
    run.add(3);
    KESTORStop(run.instance);
    ASSERT_EQ(run.trace.calls.size(), 3u);
    EXPECT_EQ(run.trace.calls[0].matchResult, 0);
    EXPECT_EQ(run.trace.calls[0].pose[0][0], 1.0);
    EXPECT_EQ(run.trace.calls[1].matchResult, 2);
    EXPECT_EQ(run.trace.calls[2].matchResult, 2);
    EXPECT_EQ(run.frameCount(), 1);
}

TEST(Pipeline, StopRightAfterAnAddCompletesThatFrameAndStartDrainsARunningInstance) {
    EngineRun run(2, 2, 0);
    KESTORStart(run.instance, 2);
    run.add(1);
    KESTORStop(run.instance);
    EXPECT_EQ(run.trace.calls.size(), 1u);
    EXPECT_EQ(run.impl().finishedGroups.load(), 1);
    KESTORStart(run.instance, 2);
    run.add(3);
    KESTORStart(run.instance, 1);  // drains the three, then runs on with the same lists
    EXPECT_EQ(run.trace.calls.size(), 4u);
    run.add(1);
    KESTORStop(run.instance);
    EXPECT_EQ(run.trace.calls.size(), 5u);
    EXPECT_EQ(run.source.fills.load(), 5);
    std::set<int> ids;
    for (const TraceRecord& r : run.trace.calls) ids.insert(r.id);
    EXPECT_EQ(ids, std::set<int>({0, 1, 2, 3, 4}));
    // After a stop the last frames were reduced and the last group finished: the first frame of
    // the new run finds no pyramid to match against and, with nothing to relocalise by, is lost.
    EXPECT_EQ(run.trace.calls[1].matchResult, 2);
}

TEST(Pipeline, SpilledFramesShowNullPlanesAndKeepTheirPoses) {
    EngineRun run(3);
    const std::string path = testing::TempDir() + "kestor_pipeline_spill.bin";
    ASSERT_EQ(KESTORSetCachePath(run.instance, path.c_str()), 0);
    KESTORStart(run.instance, 2);
    run.add(5);
    KESTORStop(run.instance);
    const std::vector<FramePose> poses = framePoses(run.instance);
    ASSERT_EQ(poses.size(), 5u);
    for (const FramePose& p : poses) EXPECT_FALSE(p.planes) << "every frame reduced twice by the end of the stop";
    const Pose truth = run.source.truth[0].inverse() * run.source.truth[4];
    EXPECT_LT(translationError(poses[4].pose, truth), 0.005);
    EXPECT_EQ(run.impl().cache->recordCount(), 10u);  // depth and colour of each
    std::remove(path.c_str());
}

// The process-wide count set on the caller's thread governs loops run on the pipeline's threads,
// whose own OpenMP setting was never touched.
TEST(Pipeline, TheThreadCountGovernsLoopsOnPipelineThreads) {
    if (KESTOR_THREAD_SANITIZED) GTEST_SKIP() << "an OpenMP team under ThreadSanitizer";
    EngineRun run(10);
    const int saved = KESTORGetThreadNum();
    KESTORSetThreadNum(3);
    struct Seen {
        std::mutex m;
        std::set<int> slots;
    } seen;
    KESTORSetTraceCallback(
        run.instance,
        [](const KESTORFrameInfo*, const KESTORTrackInfo*, void* u) {
            auto* s = static_cast<Seen*>(u);
            kestor::parallelFor(0, 30, [s](int, int, int slot) {
                std::lock_guard<std::mutex> g(s->m);
                s->slots.insert(slot);
            });
        },
        &seen);
    KESTORStart(run.instance, 1);
    run.add(1);
    KESTORStop(run.instance);
    KESTORSetThreadNum(saved);
    EXPECT_EQ(seen.slots, std::set<int>({0, 1, 2}));
}
