// The point-set matchers on about 100k points, 30 iterations, as the pair family runs them
// without a camera: build the index over the target, estimate the target's intensity gradient
// for the coloured form, run the matcher. The same clouds and start as bench_open3d_point_set_icp
// (see the checksum counter); accuracy against the known motion is in the counters.
#include <benchmark/benchmark.h>

#include "core/image_view.h"
#include "pair/point_index.h"
#include "pair/point_set_registration.h"
#include "surface_cloud.h"

namespace {

const bench_data::Problem& problem() {
    static const bench_data::Problem p = bench_data::registrationProblem();
    return p;
}

void report(benchmark::State& state, const double* pose) {
    bench_data::Motion result;
    for (int i = 0; i < 12; ++i) result.m[i] = pose[i];
    double degrees, millimetres;
    bench_data::difference(result, problem().truth, degrees, millimetres);
    state.counters["err_deg"] = degrees;
    state.counters["err_mm"] = millimetres;
    state.counters["checksum"] = double(bench_data::checksum(problem().source) % 1000000);
}

void BM_KestorPointToPlane(benchmark::State& state) {
    const bench_data::Problem& p = problem();
    double pose[12];
    for (auto _ : state) {
        std::copy(p.start.m, p.start.m + 12, pose);
        const kestor::PointIndex index(p.target.points.data(), p.target.count(), 10);
        kestor::matchPointToPlane(index, p.target.normals.data(), p.source.points.data(),
                                  p.source.normals.data(), p.source.count(), kestor::poseView(pose),
                                  30, p.maxDistance, 1.57, 0.3, false, {}, true);
    }
    report(state, pose);
}

void BM_KestorColored(benchmark::State& state) {
    const bench_data::Problem& p = problem();
    double pose[12];
    std::vector<float> gradients(p.target.points.size());
    for (auto _ : state) {
        std::copy(p.start.m, p.start.m + 12, pose);
        const kestor::PointIndex index(p.target.points.data(), p.target.count(), 10);
        kestor::calcPointGradient(index, p.target.normals.data(), p.target.intensities.data(),
                                  gradients.data(), p.target.count(), 2 * p.maxDistance, true);
        kestor::matchColoredPoints(index, p.target.normals.data(), p.target.intensities.data(),
                                   gradients.data(), p.source.points.data(),
                                   p.source.normals.data(), p.source.intensities.data(),
                                   p.source.count(), kestor::poseView(pose), 30, p.maxDistance,
                                   1.57, 0.3, 0.3, false, {}, true);
    }
    report(state, pose);
}

BENCHMARK(BM_KestorPointToPlane)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_KestorColored)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
