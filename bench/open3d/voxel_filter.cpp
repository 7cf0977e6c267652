// KESTORVoxelFilter on 1M points against Open3D's VoxelDownSample in the same run. The jobs
// differ in rule (kestor keeps the input point nearest each voxel centre and drops the last
// voxel; Open3D averages the points of each voxel into a new one) but both thin a cloud on a
// grid of the same size. Reached through kestor.h only.
#include <benchmark/benchmark.h>

#include <open3d/geometry/PointCloud.h>

#include <random>
#include <vector>

#include "kestor.h"

namespace {

constexpr int kPoints = 1000000;
constexpr double kVoxel = 0.02;

// Points on a few surfaces of a 2 m room corner with a little noise, like a fused scan.
const std::vector<float>& cloud() {
    static const std::vector<float> points = [] {
        std::mt19937 rng(3);
        std::uniform_real_distribution<float> u(0.0f, 2.0f);
        std::normal_distribution<float> noise(0.0f, 0.003f);
        std::vector<float> p(size_t(3) * kPoints);
        for (int i = 0; i < kPoints; ++i) {
            float x = u(rng), y = u(rng), z = u(rng);
            switch (i % 3) {
                case 0: z = noise(rng); break;
                case 1: y = noise(rng); break;
                default: x = noise(rng); break;
            }
            p[size_t(3 * i)] = x;
            p[size_t(3 * i + 1)] = y;
            p[size_t(3 * i + 2)] = z;
        }
        return p;
    }();
    return points;
}

void countKept(const int*, int count, void* user) { *static_cast<int*>(user) = count; }

void BM_KestorVoxelFilter(benchmark::State& state) {
    const std::vector<float>& p = cloud();
    int kept = 0;
    for (auto _ : state) {
        KESTORVoxelFilter(p.data(), kPoints, kVoxel, countKept, &kept);
        benchmark::DoNotOptimize(kept);
    }
    state.counters["kept"] = kept;
}
BENCHMARK(BM_KestorVoxelFilter)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Open3DVoxelDownSample(benchmark::State& state) {
    const std::vector<float>& p = cloud();
    open3d::geometry::PointCloud pc;
    pc.points_.reserve(kPoints);
    for (int i = 0; i < kPoints; ++i)
        pc.points_.emplace_back(p[size_t(3 * i)], p[size_t(3 * i + 1)], p[size_t(3 * i + 2)]);
    size_t kept = 0;
    for (auto _ : state) {
        auto down = pc.VoxelDownSample(kVoxel);
        kept = down->points_.size();
        benchmark::DoNotOptimize(kept);
    }
    state.counters["kept"] = double(kept);
}
BENCHMARK(BM_Open3DVoxelDownSample)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
