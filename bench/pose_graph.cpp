// KESTOROptimizePoseGraph on synthetic graphs (1000 and 5000 poses circling a room, trusted
// odometry, loop edges for 10% of the poses, a quarter of them wrong), with the edge loops on the
// OpenMP team against the same solve on one thread. The comparison with Open3D's
// GlobalOptimization is bench/open3d/pose_graph.cpp.
#include <benchmark/benchmark.h>

#include <vector>

#include "kestor.h"
#include "support/synthetic_pose_graph.h"

namespace {

using kestor_test::SyntheticPoseGraph;

void BM_OptimizePoseGraph(benchmark::State& state) {
    const SyntheticPoseGraph& g = kestor_test::cachedSyntheticPoseGraph(int(state.range(0)));
    const bool useThreads = state.range(1) != 0;
    std::vector<double> poses, weights(size_t(g.edgeCount));
    for (auto _ : state) {
        poses = g.initial;
        KESTOROptimizePoseGraph(g.pairs.data(), g.transforms.data(), g.information.data(),
                                g.flags.data(), weights.data(), g.edgeCount, poses.data(),
                                g.poseCount, 100, 1.0, 0.1, 0.25, useThreads, false, nullptr,
                                nullptr);
        benchmark::DoNotOptimize(poses.data());
    }
    const auto a = kestor_test::poseGraphAccuracy(poses, g.truth);
    state.counters["rms_mm"] = a.rmsTranslation * 1000;
}
BENCHMARK(BM_OptimizePoseGraph)
    ->ArgNames({"poses", "threads"})
    ->Args({1000, 0})
    ->Args({1000, 1})
    ->Args({5000, 0})
    ->Args({5000, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
