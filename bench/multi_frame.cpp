// KESTORMatchMultiVmapNmap (point to plane) on 4 and 8 consecutive TUM fr1_xyz frames, at
// 640x480 and at 320x240 (every other pixel), serial and parallel. The counter "ms_per_iter" is
// the wall time of a call divided by the loop iterations it ran (each iteration relinearises
// every pair once after an accepted step). The baseline is the serial form in the same run.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "io/png_image.h"
#include "kestor.h"

namespace {

struct Frames {
    int width = 0, height = 0;
    std::vector<std::vector<float>> vmaps, nmaps;
};

// The first `count` frames at full size or halved, as vertex and normal maps.
Frames loadFrames(int count, int shift) {
    Frames f;
    const std::string dir = std::string(KESTOR_SHARED_DATA_DIR) + "/tum_fr1_xyz/";
    std::ifstream list(dir + "associations.txt");
    std::string line;
    while (int(f.vmaps.size()) < count && std::getline(list, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string stamp, file;
        fields >> stamp >> file;
        int w = 0, h = 0;
        const std::vector<float> full = kestor_io::readDepthPng(dir + file, 5000.0, w, h);
        f.width = w >> shift;
        f.height = h >> shift;
        std::vector<float> depth(size_t(f.width * f.height));
        for (int y = 0; y < f.height; ++y)
            for (int x = 0; x < f.width; ++x)
                depth[size_t(y * f.width + x)] = full[size_t((y << shift) * w + (x << shift))];
        const double s = 1.0 / double(1 << shift);
        const double K[9] = {525.0 * s, 0, 319.5 * s, 0, 525.0 * s, 239.5 * s, 0, 0, 1};
        std::vector<float> v(depth.size() * 3), n(depth.size() * 3);
        KESTORDepthToVmapNmap(K, depth.data(), nullptr, v.data(), n.data(), f.width, f.height);
        f.vmaps.push_back(std::move(v));
        f.nmaps.push_back(std::move(n));
    }
    return f;
}

void countIterations(int percent, bool*, void* user) {
    // Calls: 0 at the start, one per iteration, 100 at a normal end.
    (void)percent;
    ++*static_cast<int*>(user);
}

void BM_MatchMultiVmapNmap(benchmark::State& state) {
    const int count = int(state.range(0)), shift = int(state.range(1));
    const bool parallel = state.range(2) != 0;
    static Frames cache[2][9];
    Frames& f = cache[shift][count];
    if (f.vmaps.empty()) f = loadFrames(count, shift);
    if (int(f.vmaps.size()) < count) {
        state.SkipWithError("tum_fr1_xyz frames not found");
        return;
    }
    std::vector<const float*> v, n;
    for (int k = 0; k < count; ++k) {
        v.push_back(f.vmaps[size_t(k)].data());
        n.push_back(f.nmaps[size_t(k)].data());
    }
    const double s = 1.0 / double(1 << shift);
    const double K[9] = {525.0 * s, 0, 319.5 * s, 0, 525.0 * s, 239.5 * s, 0, 0, 1};
    double seconds = 0.0;
    long iterations = 0;
    for (auto _ : state) {
        std::vector<double> rts;
        for (int k = 0; k < count; ++k) rts.insert(rts.end(), {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0});
        int calls = 0;
        const auto t0 = std::chrono::steady_clock::now();
        KESTORMatchMultiVmapNmap(v.data(), n.data(), nullptr, nullptr, nullptr, f.width, f.height,
                                 K, rts.data(), count, 5, 0.1, 0.5, 0.1, 0.0, 0, parallel, false,
                                 countIterations, &calls);
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        iterations += std::max(1, calls - 2);
        benchmark::DoNotOptimize(rts.data());
    }
    state.counters["ms_per_iter"] = 1000.0 * seconds / double(iterations);
}
BENCHMARK(BM_MatchMultiVmapNmap)
    ->ArgNames({"frames", "halvings", "parallel"})
    ->ArgsProduct({{4, 8}, {1, 0}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
