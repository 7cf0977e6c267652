// KESTORDepthToVmapNmap at 640x480 against Open3D's tensor vertex and normal maps
// (t::geometry::Image::CreateVertexMap then CreateNormalMap, on the CPU) on the same TUM frame,
// with a plain copy of the bytes the kestor job moves (depth in, two maps out) as the memory
// floor. The normal rules differ (kestor averages the unit normals of the view-gated triangles
// around a pixel, Open3D crosses the differences to the right and lower neighbours) but both
// turn one depth image into the two maps registration works on. Run with OMP_NUM_THREADS=1 for
// the single-thread figures: Open3D follows that variable, kestor's kernel is serial.
// Reached through kestor.h only.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include <open3d/Open3D.h>

#include "../copy_baseline.h"
#include "kestor.h"

namespace {

struct Frame {
    int width = 0, height = 0;
    std::vector<float> depth;  // metres
    Frame() {
        const auto image = open3d::io::CreateImageFromFile(
            std::string(KESTOR_SAMPLE_DIR) + "/depth/1305031102.160407.png");
        width = image->width_, height = image->height_;
        const auto* raw = reinterpret_cast<const uint16_t*>(image->data_.data());
        depth.resize(size_t(width) * size_t(height));
        for (size_t i = 0; i < depth.size(); ++i) depth[i] = float(raw[i]) / 5000.0f;
    }
};

const Frame& frame() {
    static const Frame f;
    return f;
}

constexpr size_t kBytesPerPixel = 4 + 12 + 12;
const double K[9] = {525.0, 0, 319.5, 0, 525.0, 239.5, 0, 0, 1};

void BM_KestorDepthToVmapNmap(benchmark::State& state) {
    const Frame& f = frame();
    std::vector<float> vmap(f.depth.size() * 3), nmap(f.depth.size() * 3);
    for (auto _ : state) {
        KESTORDepthToVmapNmap(K, f.depth.data(), nullptr, vmap.data(), nmap.data(), f.width,
                              f.height);
        benchmark::DoNotOptimize(nmap.data());
    }
    state.counters["ns_per_pixel"] = benchmark::Counter(
        double(f.depth.size()), benchmark::Counter::kIsIterationInvariantRate |
                                    benchmark::Counter::kInvert);
}
BENCHMARK(BM_KestorDepthToVmapNmap)->Unit(benchmark::kMillisecond)->UseRealTime();

// Open3D from a float depth image already in metres (depth scale 1), as its odometry feeds it.
void BM_Open3DVertexNormalMap(benchmark::State& state) {
    namespace t = open3d::t::geometry;
    using open3d::core::Tensor;
    const Frame& f = frame();
    t::Image depth(Tensor(f.depth, {f.height, f.width, 1}, open3d::core::Float32));
    const Tensor intrinsics =
        Tensor::Init<double>({{K[0], K[1], K[2]}, {K[3], K[4], K[5]}, {K[6], K[7], K[8]}});
    for (auto _ : state) {
        t::Image vertices = depth.CreateVertexMap(intrinsics, 0.0f);
        const t::Image normals = vertices.CreateNormalMap(0.0f);
        benchmark::DoNotOptimize(normals.GetDataPtr());
    }
    state.counters["ns_per_pixel"] = benchmark::Counter(
        double(f.depth.size()), benchmark::Counter::kIsIterationInvariantRate |
                                    benchmark::Counter::kInvert);
}
BENCHMARK(BM_Open3DVertexNormalMap)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CopySameBytes(benchmark::State& state) {
    copyBytesLoop(state, frame().depth.size() * kBytesPerPixel);
}
BENCHMARK(BM_CopySameBytes)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
