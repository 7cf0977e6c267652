// KESTORDepthToVmapNmap at 640x480 on a real frame, against a plain copy of the same number of
// bytes (depth in, vertex and normal maps out): the memory-bandwidth floor of the job. The two
// halves are timed alone as well. Run with OMP_NUM_THREADS=1: the kernels are serial anyway.
// bench/open3d/vertex_normal_maps.cpp has Open3D's tensor maps beside the export.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "copy_baseline.h"
#include "image/vertex_normal_maps.h"
#include "io/png_image.h"
#include "kestor.h"

namespace {

struct RealFrame {
    int width = 0, height = 0;
    std::vector<float> depth;
    RealFrame() {
        depth = kestor_io::readDepthPng(
            std::string(KESTOR_SAMPLE_DIR) + "/depth/1305031102.160407.png", 5000.0, width, height);
    }
};

const RealFrame& frame() {
    static const RealFrame f;
    return f;
}

constexpr size_t kBytesPerPixel = 4 + 12 + 12;

void countPixels(benchmark::State& state) {
    state.counters["ns_per_pixel"] = benchmark::Counter(
        double(frame().depth.size()),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_DepthToVmapNmap(benchmark::State& state) {
    const RealFrame& f = frame();
    const double K[9] = {525.0, 0, 319.5, 0, 525.0, 239.5, 0, 0, 1};
    std::vector<float> vmap(f.depth.size() * 3), nmap(f.depth.size() * 3);
    for (auto _ : state) {
        KESTORDepthToVmapNmap(K, f.depth.data(), nullptr, vmap.data(), nmap.data(), f.width,
                              f.height);
        benchmark::DoNotOptimize(nmap.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(f.depth.size() * kBytesPerPixel));
    countPixels(state);
}
BENCHMARK(BM_DepthToVmapNmap)->Unit(benchmark::kMillisecond);

// The two halves alone: back-projection, and normals from a ready vertex map.
void BM_DepthToVmapOnly(benchmark::State& state) {
    const RealFrame& f = frame();
    const double K[9] = {525.0, 0, 319.5, 0, 525.0, 239.5, 0, 0, 1};
    std::vector<float> vmap(f.depth.size() * 3);
    for (auto _ : state) {
        KESTORDepthToVmapNmap(K, f.depth.data(), nullptr, vmap.data(), nullptr, f.width, f.height);
        benchmark::DoNotOptimize(vmap.data());
    }
    countPixels(state);
}
BENCHMARK(BM_DepthToVmapOnly)->Unit(benchmark::kMillisecond);

void BM_VmapToNmapOnly(benchmark::State& state) {
    const RealFrame& f = frame();
    const double K[9] = {525.0, 0, 319.5, 0, 525.0, 239.5, 0, 0, 1};
    std::vector<kestor::Float3> vmap(f.depth.size()), nmap(f.depth.size());
    KESTORDepthToVmapNmap(K, f.depth.data(), nullptr, &vmap[0].x, nullptr, f.width, f.height);
    for (auto _ : state) {
        kestor::vmapToNmap(kestor::constView(kestor::packedView(vmap.data(), f.width, f.height)),
                           kestor::packedView(nmap.data(), f.width, f.height));
        benchmark::DoNotOptimize(nmap.data());
    }
    countPixels(state);
}
BENCHMARK(BM_VmapToNmapOnly)->Unit(benchmark::kMillisecond);

void BM_CopySameBytes(benchmark::State& state) {
    copyBytesLoop(state, frame().depth.size() * kBytesPerPixel);
}
BENCHMARK(BM_CopySameBytes)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
