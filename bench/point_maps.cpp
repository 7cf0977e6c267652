// The point maps out of the engine, on frames of the synthetic sequences laid into an instance by
// hand with their true poses (no tracking run, so only the point-map code is timed):
//  - KESTORGetPointsPerFrame and KESTORFusePointsMap over 100 frames at 640x480 (synth-handheld,
//    its 60 frames used round), planes in memory or in the spill cache; items are points.
//  - The same two over the 200 frames of synth-loop (320x240) with a spill cache, with the peak
//    resident memory each call adds ("peak_MB", from VmHWM after resetting it).
//  - KESTOROptimizePointsMap on synth-loop (20 groups of ten, poses perturbed), with the share of
//    the groups' own refinement and of the alignment between groups.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "core/frame_memory.h"
#include "pipeline/frame_intake.h"
#include "pipeline/group_finishing.h"
#include "peak_resident.h"
#include "sequence_run.h"

using namespace kestor;
using kestor_bench::LoadedSequence;

namespace {

// An instance holding `frames` frames of the sequence (used round), each at its true pose relative
// to frame 0 moved by `perturb` metres and as many tenths of radians about a fixed axis per group
// of ten, grouped by ten with the shared last member, finished from these poses, and reduced (and
// spilled with a cache path).
struct Engine {
    void* handle = nullptr;
    std::vector<RT_<double>> start;
    RGBDFusionImpl& instance() const { return *static_cast<RGBDFusionImpl*>(handle); }
    Engine(const LoadedSequence& s, int frames, bool spill, double perturb, bool pyramids) {
        handle = kestor_bench::createFor(s, 1, spill ? "/tmp/kestor_bench_point_maps.cache" : nullptr);
        RGBDFusionImpl& f = instance();
        f.para.groupMode = 0;
        const Eigen::Isometry3d first = s.truth[0].inverse();
        for (int k = 0; k < frames; ++k) {
            const size_t from = size_t(k) % s.depths.size();
            _Frame* frame = newFrame(f, k);
            std::memcpy(frame->info.depth, s.depths[from].data(), s.depths[from].size() * 4);
            std::memcpy(frame->info.color, s.colors[from].data(), s.colors[from].size());
            if (pyramids) buildFramePyramid(f, frame);
            const double g = double(k / f.groupSize) * perturb;
            const Eigen::Isometry3d offset(Eigen::AngleAxisd(g * 0.1, Eigen::Vector3d(0.3, 1, 0.2).normalized()) *
                                           Eigen::Translation3d(g, -g, 0.5 * g).inverse());
            const Eigen::Isometry3d p = offset * first * s.truth[from];
            for (int r = 0; r < 3; ++r) {
                for (int c = 0; c < 3; ++c) frame->pose.rotation[3 * r + c] = p.linear()(r, c);
                frame->pose.translation[r] = p.translation()(r);
            }
            frame->info.index = k;
            f.frames.push_back(frame);
            start.push_back(frame->pose);
        }
        for (int first = 0; first < frames; first += f.groupSize) {
            _Group* group = newGroup(f, int32_t(f.groups.size()));
            f.groups.push_back(group);
            for (int k = first; k < std::min(frames, first + f.groupSize + 1); ++k) group->frames.push_back(f.frames[size_t(k)]);
            group->frameCount = int32_t(group->frames.size());
            finishGroup(f, *group);
            ++f.finishedGroups;
        }
        std::lock_guard<std::mutex> guard(f.lock);
        for (_Frame* frame : f.frames)
            while (!(frame->cacheState & kCacheReduced)) reduceFrame(f, frame);
    }
    ~Engine() { KESTORDestroyInstance(handle); }
    void restorePoses() {
        for (size_t k = 0; k < start.size(); ++k) instance().frames[k]->pose = start[k];
    }
};

const LoadedSequence& sequence(const std::string& name) {
    static std::map<std::string, std::unique_ptr<LoadedSequence>> cache;
    auto& entry = cache[name];
    if (!entry) entry.reset(new LoadedSequence(kestor_bench::loadSequence(std::string(KESTOR_SHARED_DATA_DIR) + "/" + name)));
    return *entry;
}

// Peak resident set since the last reset, in MB; the reset makes the kernel start VmHWM afresh.
void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }
double peakMB() { return double(peakResidentKb()) / 1024.0; }
double residentMB() {
    std::ifstream statm("/proc/self/statm");
    double pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * 4096.0 / (1024.0 * 1024.0);
}

void countPoints(const KESTORPointCloud* cloud, void* user) { *static_cast<int64_t*>(user) += cloud->count; }

template <int (*Export)(void*, KESTORCloudFunc, KESTORProgressFunc, void*)>
void runClouds(benchmark::State& state, const char* name, int frames) {
    Engine engine(sequence(name), frames, state.range(0) != 0, 0.0, false);
    int64_t points = 0;
    double peak = 0;
    for (auto _ : state) {
        const double before = residentMB();
        resetPeak();
        int64_t counted = 0;
        Export(engine.handle, countPoints, nullptr, &counted);
        peak = std::max(peak, peakMB() - before);
        points += counted;
    }
    state.SetItemsProcessed(points);
    state.counters["peak_MB"] = peak;
    state.counters["points"] = double(points) / double(state.iterations());
}

void BM_PointsPerFrame_Handheld100(benchmark::State& state) { runClouds<KESTORGetPointsPerFrame>(state, "synth-handheld", 100); }
void BM_FusePointsMap_Handheld100(benchmark::State& state) { runClouds<KESTORFusePointsMap>(state, "synth-handheld", 100); }
void BM_PointsPerFrame_Loop200(benchmark::State& state) { runClouds<KESTORGetPointsPerFrame>(state, "synth-loop", 200); }
void BM_FusePointsMap_Loop200(benchmark::State& state) { runClouds<KESTORFusePointsMap>(state, "synth-loop", 200); }

struct StageClock {
    std::chrono::steady_clock::time_point at70;
};
void markStages(int percent, bool*, void* user) {
    if (percent == 70) static_cast<StageClock*>(user)->at70 = std::chrono::steady_clock::now();
}
void noCloud(const KESTORPointCloud*, void*) {}

void BM_OptimizePointsMap_Loop(benchmark::State& state) {
    const LoadedSequence& s = sequence("synth-loop");
    Engine engine(s, int(s.depths.size()), state.range(0) != 0, 0.004, true);
    state.counters["ate_before_m"] = kestor_bench::absoluteTrajectoryError(kestor_bench::enginePoses(engine.handle), s);
    double groups = 0, between = 0;
    for (auto _ : state) {
        engine.restorePoses();
        StageClock clock;
        const auto t0 = std::chrono::steady_clock::now();
        KESTOROptimizePointsMap(engine.handle, 0.02, 10, 1, noCloud, markStages, &clock);
        const auto t1 = std::chrono::steady_clock::now();
        groups += std::chrono::duration<double>(clock.at70 - t0).count();
        between += std::chrono::duration<double>(t1 - clock.at70).count();
    }
    state.counters["groups_share"] = groups / (groups + between);
    state.counters["between_share"] = between / (groups + between);
    state.counters["ate_after_m"] = kestor_bench::absoluteTrajectoryError(kestor_bench::enginePoses(engine.handle), s);
}

}  // namespace

BENCHMARK(BM_PointsPerFrame_Handheld100)->ArgName("spill")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FusePointsMap_Handheld100)->ArgName("spill")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PointsPerFrame_Loop200)->ArgName("spill")->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FusePointsMap_Loop200)->ArgName("spill")->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OptimizePointsMap_Loop)->ArgName("spill")->Arg(0)->Iterations(1)->Unit(benchmark::kSecond);

BENCHMARK_MAIN();
