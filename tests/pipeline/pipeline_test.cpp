// The engine driven through its exports on rendered frames: what reaches tracking and the trace
// callback, and in which order, and the statuses of the pipeline family.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <string>

#include "core/fusion_instance.h"
#include "core/parallel_for.h"
#include "pipeline/pipeline_harness.h"

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
        KESTORPara para;
        KESTORGetPara(instance, &para);
        para.groupMode = groupMode;
        para.globalMode = globalMode;
        para.verbose = 0;
        KESTORSetPara(instance, &para);
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

TEST(Pipeline, ExportsCheckTheHandleThenTheirArguments) {
    auto frameFunc = [](const KESTORFrameInfo*, const double[3][4], void*) {};
    int count = 7;
    EXPECT_EQ(KESTORStart(nullptr, 1), 9);
    EXPECT_EQ(KESTORStop(nullptr), 9);
    EXPECT_EQ(KESTORAddFrame(nullptr, nullptr, nullptr), 9);
    EXPECT_EQ(KESTORGetFrameNum(nullptr, &count), 9);
    EXPECT_EQ(KESTORGetFrame(nullptr, 0, nullptr, nullptr), 9);
    EngineRun run(10);
    EXPECT_EQ(KESTORAddFrame(run.instance, nullptr, nullptr), 4);
    EXPECT_EQ(KESTORGetFrame(run.instance, 0, nullptr, nullptr), 4);
    EXPECT_EQ(KESTORGetFrame(run.instance, -2, frameFunc, nullptr), 4);
    EXPECT_EQ(KESTORGetFrameNum(run.instance, nullptr), 0);
    EXPECT_EQ(KESTORGetFrameNum(run.instance, &count), 0);
    EXPECT_EQ(count, 0);
    int calls = 0;
    auto counting = [](const KESTORFrameInfo*, const double[3][4], void* n) { ++*static_cast<int*>(n); };
    EXPECT_EQ(KESTORGetFrame(run.instance, -1, counting, &calls), 0);
    EXPECT_EQ(KESTORGetFrame(run.instance, 0, counting, &calls), 0);  // past the end: no call
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(KESTORStop(run.instance), 0);  // a stopped instance only repeats the empty steps
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
    double row[3][4];
    int seen = -1;
    struct Got { double (*pose)[4]; int* id; } got{row, &seen};
    KESTORGetFrame(run.instance, 1,
                   [](const KESTORFrameInfo* f, const double pose[3][4], void* u) {
                       auto* g = static_cast<Got*>(u);
                       *g->id = f->id;
                       std::copy(&pose[0][0], &pose[0][0] + 12, &g->pose[0][0]);
                   },
                   &got);
    EXPECT_EQ(seen, 2);
    EXPECT_NEAR(row[0][3], poses[1].pose.t.x(), 1e-12);
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
    const RGBDFusionImpl& f = run.impl();
    ASSERT_EQ(f.groups.size(), 2u);
    EXPECT_EQ(f.groups[0]->frameCount, 4);
    EXPECT_EQ(f.groups[1]->frameCount, 2);
    EXPECT_EQ(f.groups[0]->frames[3], f.groups[1]->frames[0]);
    EXPECT_EQ(f.finishedGroups.load(), 2);  // the open last group is finished by the stop
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
    struct Seen {
        int nullDepth = 0, frames = 0;
        double lastX = 0;
    } seen;
    KESTORGetFrame(run.instance, -1,
                   [](const KESTORFrameInfo* f, const double pose[3][4], void* u) {
                       auto* s = static_cast<Seen*>(u);
                       s->nullDepth += f->depth == nullptr && f->color == nullptr;
                       ++s->frames;
                       s->lastX = pose[0][3];
                   },
                   &seen);
    EXPECT_EQ(seen.frames, 5);
    EXPECT_EQ(seen.nullDepth, 5);  // every frame reduced twice by the end of the stop
    const std::vector<FramePose> poses = framePoses(run.instance);
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
