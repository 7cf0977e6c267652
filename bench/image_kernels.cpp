// Image kernels at 640x480 on a real TUM frame: the pyramid export with colour and 4 levels, the
// gray and gradient export at sigma 1.6 (serial and parallel), and the vector filter passes
// against the plain scalar reference on one thread. Speed-ups are read as ratios of the times in
// one run: BM_FilterRows/0 (reference) over BM_FilterRows/1 (vector), and the same for columns.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "image/filter_kernels.h"
#include "support/filter_reference.h"
#include "io/png_image.h"
#include "kestor.h"

namespace {

struct RealFrame {
    int width = 0, height = 0;
    std::vector<float> depth;
    std::vector<uint8_t> color;
    RealFrame() {
        const std::string dir = KESTOR_SAMPLE_DIR;
        depth = kestor_io::readDepthPng(dir + "/depth/1305031102.160407.png", 5000.0, width, height);
        int w = 0, h = 0;
        color = kestor_io::readColorPng(dir + "/rgb/1305031102.175304.png", w, h);
    }
};

const RealFrame& frame() {
    static const RealFrame f;
    return f;
}

const double kK[9] = {525.0, 0, 319.5, 0, 525.0, 239.5, 0, 0, 1};

// Arg: useMagnitude.
void BM_CalcPyramidVmapNmap(benchmark::State& state) {
    const RealFrame& f = frame();
    const int levels = 4;
    std::vector<std::vector<float>> store;
    std::vector<float*> vmaps, nmaps, grays, gxs, gys;
    for (int l = 0; l < levels; ++l) {
        const size_t px = size_t(f.width >> l) * size_t(f.height >> l);
        for (auto* list : {&vmaps, &nmaps}) {
            store.emplace_back(px * 3);
            list->push_back(store.back().data());
        }
        for (auto* list : {&grays, &gxs, &gys}) {
            store.emplace_back(px);
            list->push_back(store.back().data());
        }
    }
    for (auto _ : state) {
        KESTORCalcPyramidVmapNmap(kK, f.depth.data(), f.color.data(), nullptr, vmaps.data(),
                                  nmaps.data(), grays.data(), gxs.data(), gys.data(), f.width,
                                  f.height, levels, state.range(0) != 0);
        benchmark::DoNotOptimize(gys[0]);
    }
}
BENCHMARK(BM_CalcPyramidVmapNmap)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Arg: parallel.
void BM_CalcGrayAndGradient(benchmark::State& state) {
    const RealFrame& f = frame();
    const size_t px = f.depth.size();
    std::vector<float> gray(px), gx(px), gy(px);
    for (auto _ : state) {
        KESTORCalcGrayAndGradient(f.color.data(), gray.data(), gx.data(), gy.data(), f.width,
                                  f.height, 1.6, false, state.range(0) != 0);
        benchmark::DoNotOptimize(gy.data());
    }
}
BENCHMARK(BM_CalcGrayAndGradient)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

using Pass = void (*)(const kestor::ImageView<const float>&, const float*, int,
                      const kestor::ImageView<float>&);

// Arg: 0 the scalar reference, 1 the vector pass. Smoothing kernel of sigma 1.6 (11 taps).
void runPass(benchmark::State& state, Pass reference, Pass vector) {
    const RealFrame& f = frame();
    std::vector<float> in(f.depth.size()), out(f.depth.size());
    for (size_t i = 0; i < in.size(); ++i) in[i] = float(f.color[i * 3]) / 255.0f;
    const std::vector<float> k = kestor::smoothKernel(1.6);
    const Pass pass = state.range(0) == 0 ? reference : vector;
    for (auto _ : state) {
        pass(kestor::packedView<const float>(in.data(), f.width, f.height), k.data(),
             int(k.size()), kestor::packedView(out.data(), f.width, f.height));
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_FilterRows(benchmark::State& state) {
    runPass(state, kestor::filterRowsReference, kestor::filterRows);
}
BENCHMARK(BM_FilterRows)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_FilterColumns(benchmark::State& state) {
    runPass(state, kestor::filterColumnsReference, kestor::filterColumns);
}
BENCHMARK(BM_FilterColumns)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
