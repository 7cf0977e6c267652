// KESTORMatchMultiVmapNmap on 4 and 8 consecutive TUM fr1_xyz frames, at 640x480 and at 320x240
// (every other pixel), point to plane and coloured (the engine's group mode), serial and
// parallel. Counters: "ms_per_iter", the wall time of a call over the loop iterations it ran;
// "ns_per_pixel_pass", the wall time over the passes over source pixels, times the threads used:
// each pair's linearisation (the coloured mode's residual pass and row pass together) and each
// trial error is one pass over the pair's valid source pixels. Accepted steps, which relinearise,
// are counted from the run's own log lines.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "io/png_image.h"
#include "kestor.h"
#include "multi/vmap_pair_passes.h"

namespace {

struct Frames {
    int width = 0, height = 0;
    std::vector<std::vector<float>> vmaps, nmaps, grays, gradXs, gradYs;
    std::vector<double> validCounts;  // source pixels with a vertex and a normal
};

// The first `count` frames at full size or halved, as vertex, normal, gray and gradient maps.
Frames loadFrames(int count, int shift) {
    Frames f;
    const std::string dir = std::string(KESTOR_SHARED_DATA_DIR) + "/tum_fr1_xyz/";
    std::ifstream list(dir + "associations.txt");
    std::string line;
    while (int(f.vmaps.size()) < count && std::getline(list, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string stamp, file, colorStamp, colorFile;
        fields >> stamp >> file >> colorStamp >> colorFile;
        int w = 0, h = 0, cw = 0, ch = 0;
        const std::vector<float> full = kestor_io::readDepthPng(dir + file, 5000.0, w, h);
        const std::vector<uint8_t> fullColor = kestor_io::readColorPng(dir + colorFile, cw, ch);
        f.width = w >> shift;
        f.height = h >> shift;
        const size_t pixels = size_t(f.width * f.height);
        std::vector<float> depth(pixels);
        std::vector<uint8_t> color(pixels * 3);
        for (int y = 0; y < f.height; ++y)
            for (int x = 0; x < f.width; ++x) {
                const size_t from = size_t((y << shift) * w + (x << shift)), to = size_t(y * f.width + x);
                depth[to] = full[from];
                if (cw == w && ch == h) std::memcpy(&color[to * 3], &fullColor[from * 3], 3);
            }
        const double s = 1.0 / double(1 << shift);
        const double K[9] = {525.0 * s, 0, 319.5 * s, 0, 525.0 * s, 239.5 * s, 0, 0, 1};
        std::vector<float> v(pixels * 3), n(pixels * 3), g(pixels), gx(pixels), gy(pixels);
        KESTORDepthToVmapNmap(K, depth.data(), nullptr, v.data(), n.data(), f.width, f.height);
        KESTORCalcGrayAndGradient(color.data(), g.data(), gx.data(), gy.data(), f.width, f.height,
                                  1.6, false, false);
        double valid = 0;
        for (size_t i = 0; i < pixels; ++i)
            if (v[i * 3 + 2] != 0 && (n[i * 3] != 0 || n[i * 3 + 1] != 0 || n[i * 3 + 2] != 0))
                valid += 1;
        f.validCounts.push_back(valid);
        f.vmaps.push_back(std::move(v));
        f.nmaps.push_back(std::move(n));
        f.grays.push_back(std::move(g));
        f.gradXs.push_back(std::move(gx));
        f.gradYs.push_back(std::move(gy));
    }
    return f;
}

void countIterations(int percent, bool*, void* user) {
    // Calls: 0 at the start, one per iteration, 100 at a normal end.
    (void)percent;
    ++*static_cast<int*>(user);
}

// Runs `call` with standard output going to a temporary file, and counts the accepted steps
// among the log lines it wrote (an accepted step's line has four numbers, a rejected one three).
template <typename Call>
int acceptedSteps(Call&& call) {
    std::fflush(stdout);
    const int saved = dup(1);
    FILE* log = std::tmpfile();
    dup2(fileno(log), 1);
    call();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::rewind(log);
    int accepted = 0;
    char text[512];
    while (std::fgets(text, sizeof(text), log)) {
        const char* at = std::strstr(text, "Iter:");
        if (at == nullptr) continue;
        int iteration;
        double a, b, c, d;
        if (std::sscanf(at + 5, "%lf %lf %lf %lf", &a, &b, &c, &d) == 4) ++accepted;
        (void)iteration;
    }
    std::fclose(log);
    return accepted;
}

void BM_MatchMultiVmapNmap(benchmark::State& state) {
    const int count = int(state.range(0)), shift = int(state.range(1));
    const bool parallel = state.range(2) != 0, colour = state.range(3) != 0;
    static Frames cache[2][9];
    Frames& f = cache[shift][count];
    if (f.vmaps.empty()) f = loadFrames(count, shift);
    if (int(f.vmaps.size()) < count) {
        state.SkipWithError("tum_fr1_xyz frames not found");
        return;
    }
    std::vector<const float*> v, n, g, gx, gy;
    for (int k = 0; k < count; ++k) {
        v.push_back(f.vmaps[size_t(k)].data());
        n.push_back(f.nmaps[size_t(k)].data());
        g.push_back(f.grays[size_t(k)].data());
        gx.push_back(f.gradXs[size_t(k)].data());
        gy.push_back(f.gradYs[size_t(k)].data());
    }
    // One pass over every pair's source: pair (i, j) walks frame j's valid pixels.
    double pairPixels = 0;
    for (int i = 1; i < count; ++i)
        for (int j = 0; j < i; ++j) pairPixels += f.validCounts[size_t(j)];
    const double s = 1.0 / double(1 << shift);
    const double K[9] = {525.0 * s, 0, 319.5 * s, 0, 525.0 * s, 239.5 * s, 0, 0, 1};
    double seconds = 0.0, passes = 0.0;
    long iterations = 0;
    for (auto _ : state) {
        std::vector<double> rts;
        for (int k = 0; k < count; ++k) rts.insert(rts.end(), {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0});
        int calls = 0;
        double callSeconds = 0.0;
        const int accepted = acceptedSteps([&] {
            const auto t0 = std::chrono::steady_clock::now();
            KESTORMatchMultiVmapNmap(v.data(), n.data(), colour ? g.data() : nullptr,
                                     colour ? gx.data() : nullptr, colour ? gy.data() : nullptr,
                                     f.width, f.height, K, rts.data(), count, 5, 0.1, 0.5, 0.1,
                                     0.5, 0, parallel, true, countIterations, &calls);
            callSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        });
        seconds += callSeconds;
        const int run = std::max(1, calls - 2);
        iterations += run;
        passes += pairPixels * double(1 + accepted + run);
        benchmark::DoNotOptimize(rts.data());
    }
    state.counters["ms_per_iter"] = 1000.0 * seconds / double(iterations);
    state.counters["ns_per_pixel_pass"] = 1e9 * seconds * (parallel ? 2.0 : 1.0) / passes;
}
BENCHMARK(BM_MatchMultiVmapNmap)
    ->ArgNames({"frames", "halvings", "parallel", "colour"})
    ->ArgsProduct({{4, 8}, {1, 0}, {0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// One pass of a pair alone, frame 1 against frame 0 at the identity, at 640x480: 0 plane rows,
// 1 plane trial error, 2 coloured sums, 3 coloured trial error.
void BM_PairPass(benchmark::State& state) {
    static Frames f = loadFrames(2, 0);
    if (f.vmaps.size() < 2) {
        state.SkipWithError("tum_fr1_xyz frames not found");
        return;
    }
    using namespace kestor;
    const int pass = int(state.range(0));
    auto maps = [&](int k) {
        FrameMaps m;
        m.vmap = packedView(reinterpret_cast<const Float3*>(f.vmaps[size_t(k)].data()), f.width, f.height);
        m.nmap = packedView(reinterpret_cast<const Float3*>(f.nmaps[size_t(k)].data()), f.width, f.height);
        m.gray = packedView<const float>(f.grays[size_t(k)].data(), f.width, f.height);
        m.gradX = packedView<const float>(f.gradXs[size_t(k)].data(), f.width, f.height);
        m.gradY = packedView<const float>(f.gradYs[size_t(k)].data(), f.width, f.height);
        return m;
    };
    const CompactFrame source = compactFrame(maps(1), true);
    const TargetRecords target = targetRecords(maps(0), true, pass >= 2);
    const Intrinsics k{525.0f, 525.0f, 319.5f, 239.5f};
    const ProjectiveTest test{0.01f, float(std::cos(0.5)), true};
    const RT_<float> T = RT_<float>::identity();
    std::vector<int32_t> targets(size_t(source.size()));
    // The targets the trial errors walk, and the sums that give the coloured scales.
    ColoredSums all;
    if (pass >= 2) {
        coloredSumsPass(source, target, k, T, test, 0, source.size(), targets.data(), all);
    } else {
        RowSums<6> sums;
        double error = 0.0;
        planeRowsPass(source, target, k, T, test, 0, source.size(), targets.data(), sums, error);
    }
    ColoredScales scales;
    scales.update({all.stats()}, 0.5);
    for (auto _ : state) {
        RowSums<6> sums;
        double error = 0.0;
        ColoredSums coloured;
        switch (pass) {
            case 0: planeRowsPass(source, target, k, T, test, 0, source.size(), targets.data(), sums, error); break;
            case 1: error = planeErrorPass(source, target, T, targets.data(), 0, source.size()); break;
            case 2:
                coloredSumsPass(source, target, k, T, test, 0, source.size(), targets.data(), coloured);
                error = coloured.weightedRows(scales, sums);
                break;
            default:
                error = centredPlaneErrorPass(source, target, T, targets.data(), 0, source.size(), scales.meanGeometric) +
                        all.photometricError(scales);
        }
        benchmark::DoNotOptimize(error);
        benchmark::DoNotOptimize(sums.hessian[0]);
    }
    state.counters["ns_per_pixel"] = benchmark::Counter(
        double(source.size()) * double(state.iterations()) * 1e-9,
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_PairPass)->DenseRange(0, 3)->ArgName("pass")->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
