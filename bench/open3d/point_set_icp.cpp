// Open3D's point-to-plane and coloured ICP, 30 iterations, on the clouds and start of
// bench_point_set_registration (the checksum counter must agree), side by side with kestor's
// matchers through KESTORMatchPair (no camera, parallel), so that one run gives the ratio. Both
// rebuild the target tree and, for the coloured form, the colour gradient on every call.
#include <benchmark/benchmark.h>

#include <open3d/Open3D.h>

#include "kestor.h"

#include "../surface_cloud.h"

namespace {

namespace reg = open3d::pipelines::registration;

const bench_data::Problem& problem() {
    static const bench_data::Problem p = bench_data::registrationProblem();
    return p;
}

open3d::geometry::PointCloud toOpen3D(const bench_data::Cloud& c) {
    open3d::geometry::PointCloud cloud;
    for (int i = 0; i < c.count(); ++i) {
        cloud.points_.emplace_back(c.points[3 * size_t(i)], c.points[3 * size_t(i) + 1], c.points[3 * size_t(i) + 2]);
        cloud.normals_.emplace_back(c.normals[3 * size_t(i)], c.normals[3 * size_t(i) + 1], c.normals[3 * size_t(i) + 2]);
        const double v = c.intensities[size_t(i)];
        cloud.colors_.emplace_back(v, v, v);  // Open3D's intensity is the mean of the channels
    }
    return cloud;
}

struct Clouds {
    open3d::geometry::PointCloud target, source;
    Eigen::Matrix4d start = Eigen::Matrix4d::Identity();
    Clouds() : target(toOpen3D(problem().target)), source(toOpen3D(problem().source)) {
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 4; ++c) start(r, c) = problem().start.m[4 * r + c];
    }
};

const Clouds& clouds() {
    static const Clouds c;
    return c;
}

void report(benchmark::State& state, const Eigen::Matrix4d& T) {
    bench_data::Motion result;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) result.m[4 * r + c] = T(r, c);
    double degrees, millimetres;
    bench_data::difference(result, problem().truth, degrees, millimetres);
    state.counters["err_deg"] = degrees;
    state.counters["err_mm"] = millimetres;
    state.counters["checksum"] = double(bench_data::checksum(problem().source) % 1000000);
}

// Exactly 30 iterations: no early stop on relative change.
const reg::ICPConvergenceCriteria kThirty(0.0, 0.0, 30);

void BM_Open3DPointToPlane(benchmark::State& state) {
    const Clouds& c = clouds();
    reg::RegistrationResult result;
    for (auto _ : state) {
        result = reg::RegistrationICP(c.source, c.target, problem().maxDistance, c.start,
                                      reg::TransformationEstimationPointToPlane(), kThirty);
    }
    report(state, result.transformation_);
}

void BM_Open3DColored(benchmark::State& state) {
    const Clouds& c = clouds();
    reg::RegistrationResult result;
    for (auto _ : state) {
        result = reg::RegistrationColoredICP(c.source, c.target, problem().maxDistance, c.start,
                                             reg::TransformationEstimationForColoredICP(), kThirty);
    }
    report(state, result.transformation_);
}

// kestor through its export, minScore 0.3, maxAngle 1.57 and colour weight 0.3 as in
// bench_point_set_registration.
void runKestor(benchmark::State& state, bool colored) {
    const bench_data::Problem& p = problem();
    const int sizes[2] = {p.target.count(), p.source.count()};
    double rt[12];
    for (auto _ : state) {
        std::copy(p.start.m, p.start.m + 12, rt);
        KESTORMatchPair(p.target.points.data(), p.target.normals.data(),
                        colored ? p.target.intensities.data() : nullptr, p.source.points.data(),
                        p.source.normals.data(), colored ? p.source.intensities.data() : nullptr,
                        sizes, nullptr, rt, nullptr, 30, p.maxDistance, 1.57, 0.3, 0.3, true,
                        false, nullptr, nullptr);
    }
    Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) T(r, c) = rt[4 * r + c];
    report(state, T);
}

void BM_KestorPointToPlane(benchmark::State& state) { runKestor(state, false); }
void BM_KestorColored(benchmark::State& state) { runKestor(state, true); }

BENCHMARK(BM_Open3DPointToPlane)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_KestorPointToPlane)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Open3DColored)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_KestorColored)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
