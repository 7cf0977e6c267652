// The whole engine with its default modes (joint alignment in each group, the group graph in the
// background) on TUM fr1_xyz frames held in memory, at 640x480 and 320x240 (every other pixel).
// Frames are added at the pace the engine takes them (never more than eight ahead of the trace
// callback), and the run is timed through KESTORStop, so the group and optimisation stages must
// have caught up. Reported: frames per second, the most groups the group stage was behind
// tracking and the optimisation behind the group stage (sampled every millisecond), and the
// growth of the resident high-water mark.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/fusion_instance.h"
#include "kestor.h"
#include "peak_resident.h"
#include "sequence_run.h"

namespace {

constexpr int kLoaded = 60;  // at most this many distinct frames; the run goes forwards and back

using Sequence = kestor_bench::LoadedSequence;

Sequence load(int shift) {
    return kestor_bench::loadSequence(std::string(KESTOR_SHARED_DATA_DIR) + "/tum_fr1_xyz", 1 << shift,
                                      kLoaded);
}

const Sequence& sequence(int width) {
    static const Sequence full = load(0), half = load(1);
    return width == 640 ? full : half;
}

struct Run {
    const Sequence* sequence = nullptr;
    std::atomic<int> traced{0}, tracked{0};
};

int sourceIndex(int id, int loaded) {
    const int m = id % (2 * loaded - 2);
    return m < loaded ? m : 2 * loaded - 2 - m;
}

bool fill(KESTORFrameInfo* frame, void* user) {
    const Sequence& s = *static_cast<Run*>(user)->sequence;
    const int k = sourceIndex(frame->id, int(s.depths.size()));
    std::copy(s.depths[size_t(k)].begin(), s.depths[size_t(k)].end(), frame->depth);
    std::copy(s.colors[size_t(k)].begin(), s.colors[size_t(k)].end(), frame->color);
    return true;
}

void trace(const KESTORFrameInfo*, const KESTORTrackInfo* track, void* user) {
    auto* run = static_cast<Run*>(user);
    run->tracked += track->matchResult == 0;
    ++run->traced;
}

// The application offers the identity for the next frame and has nothing for loop candidates.
bool sequentialOnly(const KESTORFrameInfo*, const KESTORFrameInfo*, double rt[3][4], int kind,
                    void*) {
    rt[0][0] = rt[1][1] = rt[2][2] = 1;
    return kind == KESTOR_MATCH_SEQUENTIAL;
}


void BM_EngineSustained(benchmark::State& state) {
    const int width = int(state.range(0)), frames = int(state.range(1));
    const Sequence& s = sequence(width);
    if (s.depths.empty()) {
        state.SkipWithError("tum_fr1_xyz not found");
        return;
    }
    const double distances[3] = {0.05, 0.1, 0.15};
    const int iterations[3] = {3, 5, 10};  // finest first
    int groupLag = 0, optimisationLag = 0, tracked = 0;
    const long peakBefore = peakResidentKb();
    for (auto _ : state) {
        Run run;
        run.sequence = &s;
        void* handle = nullptr;
        KESTORCreateInstance(&handle, s.K.data(), s.width, s.height, distances, iterations, 3, 10,
                             KESTOR_FLAG_NO_MASK | KESTOR_FLAG_GRAY);
        auto* instance = static_cast<kestor::RGBDFusionImpl*>(handle);
        KESTORPara para;
        KESTORGetPara(handle, &para);
        para.verbose = 0;
        KESTORSetPara(handle, &para);
        KESTORSetTraceCallback(handle, trace, &run);
        KESTORSetPairMatchFunc(handle, sequentialOnly, nullptr);
        std::atomic<bool> done{false};
        std::thread monitor([&] {
            while (!done) {
                int groups = 0;
                {
                    std::lock_guard<std::mutex> guard(instance->lock);
                    groups = int(instance->groups.size());
                }
                const int finished = instance->finishedGroups.load();
                groupLag = std::max(groupLag, groups - 1 - finished);
                optimisationLag = std::max(optimisationLag, finished - instance->optimizedGroups.load());
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        KESTORStart(handle, 2);
        for (int k = 0; k < frames; ++k) {
            while (k - run.traced.load() > 8) std::this_thread::sleep_for(std::chrono::microseconds(200));
            KESTORAddFrame(handle, fill, &run);
        }
        KESTORStop(handle);
        done = true;
        monitor.join();
        KESTORDestroyInstance(handle);
        tracked = run.tracked;
    }
    state.counters["fps"] = benchmark::Counter(double(frames) * double(state.iterations()),
                                               benchmark::Counter::kIsRate);
    state.counters["tracked_share"] = double(tracked) / double(frames);
    state.counters["group_lag_max"] = groupLag;
    state.counters["optimisation_lag_max"] = optimisationLag;
    state.counters["peak_growth_MB"] = double(peakResidentKb() - peakBefore) / 1024.0;
}

}  // namespace

BENCHMARK(BM_EngineSustained)
    ->ArgNames({"width", "frames"})
    ->Args({320, 300})
    ->Args({640, 150})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

BENCHMARK_MAIN();
