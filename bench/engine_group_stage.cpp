// The engine's group stage and background pass, timed as the group and optimisation threads run
// them. BM_FinishGroup: one group of 10 TUM fr1_xyz frames plus the overlap frame, at 640x480 and
// 320x240 (every other pixel), with the in-group pose graph (groupMode 1: 45 pair matches, the
// application's estimate being the ground truth) or the joint alignment (groupMode 2). Frames,
// pyramids and chain edges are made outside the timing. BM_OptimisationPass: one pass over 10,
// 50 and 200 finished groups of 10 frames on a lap of 5 groups, with a loop edge from each group
// to the one a lap before, as the group graph (globalMode 1) and the frame graph (globalMode 2);
// loop closing itself is left out, poses go back to the tracked ones before every pass.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "core/frame_memory.h"
#include "pipeline/builtin_match.h"
#include "pipeline/frame_intake.h"
#include "pipeline/group_finishing.h"
#include "pipeline/group_math.h"
#include "pipeline/pose_optimisation.h"
#include "sequence_run.h"

using namespace kestor;

namespace {

constexpr int kGroupSize = 10;
constexpr int kLapGroups = 5;

RT_<double> yawAndShift(double angle, double x, double y, double z) {
    RT_<double> rt = RT_<double>::identity();
    rt.rotation[0] = rt.rotation[8] = std::cos(angle);
    rt.rotation[2] = std::sin(angle);
    rt.rotation[6] = -std::sin(angle);
    rt.translation[0] = x;
    rt.translation[1] = y;
    rt.translation[2] = z;
    return rt;
}

// Teardown stops the pipeline, which finishes every group not yet counted: count them first.
void destroyFinished(RGBDFusionImpl* f) {
    f->finishedGroups = int32_t(f->groups.size());
    f->optimizedGroups = f->finishedGroups.load();
    KESTORDestroyInstance(f);
}

RGBDFusionImpl* makeInstance(const std::vector<double>& K, int width, int height) {
    const double distances[3] = {0.05, 0.1, 0.2};
    const int iterations[3] = {10, 10, 10};
    void* handle = nullptr;
    KESTORCreateInstance(&handle, K.data(), width, height, distances, iterations, 3, kGroupSize,
                         1);  // colour, no mask, no gray maps
    auto* f = static_cast<RGBDFusionImpl*>(handle);
    f->para.verbose = 0;
    return f;
}

struct TumFrames {
    std::vector<double> K;
    int width = 0, height = 0;
    std::vector<std::vector<float>> depths;
    std::vector<std::vector<uint8_t>> colors;
    std::vector<RT_<double>> poses;  // ground truth, camera to the first frame
};

// The first kGroupSize + 1 frames, subsampled by 2^shift.
TumFrames loadTum(int shift) {
    kestor_bench::LoadedSequence seq = kestor_bench::loadSequence(
        std::string(KESTOR_SHARED_DATA_DIR) + "/tum_fr1_xyz", 1 << shift, kGroupSize + 1);
    TumFrames t{seq.K, seq.width, seq.height, std::move(seq.depths), std::move(seq.colors), {}};
    RT_<double> firstInverse;
    for (const Eigen::Isometry3d& truth : seq.truth) {
        RT_<double> pose;
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) pose.rotation[r * 3 + c] = truth.linear()(r, c);
            pose.translation[r] = truth.translation()(r);
        }
        if (t.poses.empty()) firstInverse = inverseOf(pose);
        t.poses.push_back(compose(firstInverse, pose));
    }
    return t;
}

const TumFrames& tumFrames(int shift) {
    static TumFrames cached[2] = {loadTum(0), loadTum(1)};
    return cached[shift];
}

// A closed group of kGroupSize + 1 frames with pyramids and chain edges measured by the built-in
// match from the true step, as tracking leaves it.
_Group* trackedGroup(RGBDFusionImpl& f, const TumFrames& t) {
    _Group* group = newGroup(f, 0);
    for (size_t k = 0; k < t.depths.size(); ++k) {
        _Frame* frame = newFrame(f, int32_t(k));
        std::copy(t.depths[k].begin(), t.depths[k].end(), frame->info.depth);
        std::copy(t.colors[k].begin(), t.colors[k].end(), frame->info.color);
        buildFramePyramid(f, frame);
        frame->pose = t.poses[k];
        frame->info.index = int32_t(k);
        f.frames.push_back(frame);
        group->frames.push_back(frame);
        if (k > 0) {
            GroupEdge e{};
            e.rt = compose(inverseOf(t.poses[k - 1]), t.poses[k]);
            builtInMatch(f, group->frames[k - 1]->levels, frame->levels, e.rt, e.info);
            e.weight = kTrackedWeight;
            e.from = int32_t(k);
            e.to = int32_t(k - 1);
            group->chainEdges.push_back(e);
        }
    }
    group->frameCount = int32_t(t.depths.size());
    f.groups.push_back(group);
    return group;
}

void BM_FinishGroup(benchmark::State& state) {
    const int groupMode = int(state.range(0)), shift = int(state.range(1));
    const TumFrames& t = tumFrames(shift);
    for (auto _ : state) {
        state.PauseTiming();
        RGBDFusionImpl* f = makeInstance(t.K, t.width, t.height);
        f->para.groupMode = groupMode;
        f->pairMatchFunc = [&t](const _Frame* a, const _Frame* b, RT_<double>& rt, _MatchFlag) {
            rt = compose(inverseOf(t.poses[size_t(a->info.index)]), t.poses[size_t(b->info.index)]);
            return true;
        };
        _Group* group = trackedGroup(*f, t);
        state.ResumeTiming();
        finishGroup(*f, *group);
        state.PauseTiming();
        benchmark::DoNotOptimize(group->frameRTs.data());
        destroyFinished(f);
        state.ResumeTiming();
    }
    state.SetLabel(std::to_string(t.width) + "x" + std::to_string(t.height) + " groupMode " +
                   std::to_string(groupMode));
}
BENCHMARK(BM_FinishGroup)
    ->Args({1, 1})->Args({2, 1})->Args({1, 0})->Args({2, 0})
    ->Unit(benchmark::kMillisecond)->UseRealTime();

// Finished groups on a lap of 5 groups (50 frames, radius 1 m), tracked with a small bias per
// step; every group from the second lap on has a loop edge at the truth to the group a lap back.
struct LapGroups {
    RGBDFusionImpl* f;
    std::vector<RT_<double>> tracked;

    explicit LapGroups(int groups) {
        const std::vector<double> K = {100, 0, 40, 0, 100, 30, 0, 0, 1};
        f = makeInstance(K, 80, 60);
        const int frames = groups * kGroupSize + 1;
        std::vector<RT_<double>> truth;
        const RT_<double> bias = yawAndShift(0.002, 0.002, 0, 0.001);
        for (int k = 0; k < frames; ++k) {
            const double angle = 2 * M_PI * k / (kLapGroups * kGroupSize);
            truth.push_back(yawAndShift(-angle, std::cos(angle), 0.01 * std::sin(0.3 * k), std::sin(angle)));
            tracked.push_back(k == 0 ? truth[0]
                                     : compose(compose(tracked.back(), compose(inverseOf(truth[size_t(k - 1)]), truth.back())), bias));
            _Frame* frame = newFrame(*f, k);
            frame->pose = tracked.back();
            f->frames.push_back(frame);
        }
        double info[6][6] = {};
        for (int d = 0; d < 6; ++d) info[d][d] = d < 3 ? 1e4 : 1e3;
        for (int g = 0; g < groups; ++g) {
            _Group* group = newGroup(*f, g);
            for (int j = 0; j <= kGroupSize; ++j) {
                const int k = g * kGroupSize + j;
                group->frames.push_back(f->frames[size_t(k)]);
                if (j == 0) continue;
                GroupEdge e{};
                e.rt = compose(inverseOf(tracked[size_t(k - 1)]), tracked[size_t(k)]);
                std::memcpy(e.info, info, sizeof(info));
                e.weight = kTrackedWeight;
                e.from = j;
                e.to = j - 1;
                group->chainEdges.push_back(e);
            }
            group->frameCount = kGroupSize + 1;
            const RT_<double> keyInverse = inverseOf(tracked[size_t(g * kGroupSize)]);
            for (int j = 0; j <= kGroupSize; ++j)
                group->frameRTs.push_back(compose(keyInverse, tracked[size_t(g * kGroupSize + j)]));
            std::memcpy(group->linkInfo, info, sizeof(info));
            if (g >= kLapGroups) {
                GroupEdge e{};
                e.rt = compose(inverseOf(truth[size_t((g - kLapGroups) * kGroupSize)]), truth[size_t(g * kGroupSize)]);
                std::memcpy(e.info, info, sizeof(info));
                e.weight = kSearchedWeight;
                e.to = g - kLapGroups;
                group->loopEdges.push_back(e);
            }
            f->groups.push_back(group);
        }
    }
    ~LapGroups() { destroyFinished(f); }
    void resetPoses() {
        for (size_t k = 0; k < tracked.size(); ++k) f->frames[k]->pose = tracked[k];
    }
};

void BM_OptimisationPass(benchmark::State& state) {
    const int groups = int(state.range(0)), globalMode = int(state.range(1));
    LapGroups lap(groups);
    lap.f->para.globalMode = globalMode;
    for (auto _ : state) {
        state.PauseTiming();
        lap.resetPoses();
        state.ResumeTiming();
        runOptimisationPass(*lap.f, lap.f->groups, groups, groups);
    }
    state.SetLabel(std::to_string(groups) + " groups, globalMode " + std::to_string(globalMode));
}
BENCHMARK(BM_OptimisationPass)
    ->Args({10, 1})->Args({50, 1})->Args({200, 1})->Args({10, 2})->Args({50, 2})->Args({200, 2})
    ->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
