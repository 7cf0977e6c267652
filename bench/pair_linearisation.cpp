// The pair loop alone on two consecutive TUM fr1_xyz frames at 640x480, pyramids built once:
// KESTORMatchPairVmapNmapPyramid with 3 levels, iterations 10/5/3, depth only and with colour,
// serial and parallel. Besides the time per pair it reports ns per source pixel per pass, counting
// one pass over the compact source for each linearisation and one for each trial error (the
// coloured solver's association and row passes count as one linearisation), in wall time and in
// CPU time over all threads (the cost per core).
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include "kestor.h"
#include "io/png_image.h"
#include "io/rgbd_sequence.h"

namespace {

constexpr int kLevels = 3;
const int kIterations[kLevels] = {3, 5, 10};
const double kDistances[kLevels] = {0.05, 0.1, 0.15};

struct Pyramid {
    std::vector<std::vector<float>> v, n, g, gx, gy;
    std::vector<const float*> pv, pn, pg, pgx, pgy;
};

struct PairData {
    std::vector<double> K;
    Pyramid target, source;
    int width = 0, height = 0;
    bool loaded = false;
};

Pyramid build(const kestor_io::RgbdSequence& seq, const kestor_io::RgbdFrame& frame) {
    int w = 0, h = 0, cw = 0, ch = 0;
    const std::vector<float> depth =
        kestor_io::readDepthPng(frame.depthPath, seq.depthUnitsPerMetre, w, h);
    const std::vector<uint8_t> color = kestor_io::readColorPng(frame.colorPath, cw, ch);
    Pyramid p;
    std::vector<float*> v, n, g, gx, gy;
    for (int l = 0; l < kLevels; ++l) {
        const size_t px = size_t(w >> l) * size_t(h >> l);
        p.v.emplace_back(px * 3), p.n.emplace_back(px * 3);
        p.g.emplace_back(px), p.gx.emplace_back(px), p.gy.emplace_back(px);
        v.push_back(p.v.back().data()), n.push_back(p.n.back().data());
        g.push_back(p.g.back().data()), gx.push_back(p.gx.back().data());
        gy.push_back(p.gy.back().data());
    }
    const std::vector<double> K = seq.cameraMatrix();
    KESTORCalcPyramidVmapNmap(K.data(), depth.data(), color.data(), nullptr, v.data(), n.data(),
                              g.data(), gx.data(), gy.data(), w, h, kLevels, false);
    for (int l = 0; l < kLevels; ++l) {
        p.pv.push_back(v[size_t(l)]), p.pn.push_back(n[size_t(l)]), p.pg.push_back(g[size_t(l)]);
        p.pgx.push_back(gx[size_t(l)]), p.pgy.push_back(gy[size_t(l)]);
    }
    return p;
}

const PairData& pairData() {
    static const PairData data = [] {
        PairData d;
        const auto seq =
            kestor_io::readTumSequence(std::string(KESTOR_SHARED_DATA_DIR) + "/tum_fr1_xyz");
        if (seq.frames.size() < 2) return d;
        d.K = seq.cameraMatrix();
        d.width = seq.width;
        d.height = seq.height;
        d.target = build(seq, seq.frames[0]);
        d.source = build(seq, seq.frames[1]);
        d.loaded = true;
        return d;
    }();
    return data;
}

// Source pixels with a vertex and a normal, per level: the solvers' compact count.
std::vector<double> compactCounts(const PairData& d) {
    std::vector<double> counts;
    for (int l = 0; l < kLevels; ++l) {
        const size_t px = size_t(d.width >> l) * size_t(d.height >> l);
        const float* v = d.source.pv[size_t(l)];
        const float* n = d.source.pn[size_t(l)];
        double count = 0;
        for (size_t i = 0; i < px; ++i)
            if (v[i * 3 + 2] > 0 && (n[i * 3] != 0 || n[i * 3 + 1] != 0 || n[i * 3 + 2] != 0))
                count += 1;
        counts.push_back(count);
    }
    return counts;
}

// Loop heads seen per level: each level reports 0 once before its loop and 100 at its end.
struct IterationCounter {
    std::vector<int> heads;
    bool levelOpen = false;
    static void onProgress(int percent, bool*, void* self) {
        auto& c = *static_cast<IterationCounter*>(self);
        if (percent == 100) {
            c.levelOpen = false;
            return;
        }
        if (!c.levelOpen) c.heads.push_back(-1);
        c.levelOpen = true;
        c.heads.back() += 1;
    }
};

void BM_PairLoop(benchmark::State& state) {
    const PairData& d = pairData();
    if (!d.loaded) {
        state.SkipWithError("tum_fr1_xyz not found");
        return;
    }
    const bool color = state.range(0) != 0, parallel = state.range(1) != 0;
    const std::vector<double> counts = compactCounts(d);
    double pixelPasses = 0, seconds = 0, cpuSeconds = 0;
    auto processCpu = [] {
        timespec t{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
    };
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const double cpuStart = processCpu();
        double rt[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
        IterationCounter counter;
        const int status = KESTORMatchPairVmapNmapPyramid(
            d.target.pv.data(), d.target.pn.data(), color ? d.target.pg.data() : nullptr,
            color ? d.target.pgx.data() : nullptr, color ? d.target.pgy.data() : nullptr,
            d.source.pv.data(), d.source.pn.data(), color ? d.source.pg.data() : nullptr,
            d.width, d.height, d.K.data(), rt, nullptr, kIterations, kDistances, kLevels, 1.57,
            0.3, 0.5, parallel, false, &IterationCounter::onProgress, &counter);
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        cpuSeconds += processCpu() - cpuStart;
        if (status != KESTOR_STATUS_OK) state.SkipWithError("match failed");
        // Levels run coarse to fine; each loop head is one linearisation and one trial.
        pixelPasses = 0;
        for (size_t i = 0; i < counter.heads.size(); ++i)
            pixelPasses += 2.0 * counter.heads[i] * counts[size_t(kLevels) - 1 - i];
    }
    state.counters["pixel_passes"] = pixelPasses;
    // Wall time per pixel pass, and the CPU time of all threads per pixel pass: the cost per
    // core, which a loaded machine inflates far less than the wall time.
    const double passes = pixelPasses * double(state.iterations());
    state.counters["ns_per_pixel_pass"] = seconds * 1e9 / passes;
    state.counters["cpu_ns_per_pixel_pass"] = cpuSeconds * 1e9 / passes;
}

}  // namespace

BENCHMARK(BM_PairLoop)
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->ArgNames({"colour", "parallel"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK_MAIN();
