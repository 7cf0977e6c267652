// Descriptor matching of 5000 x 5000 descriptors (33 and 128 floats), serial and parallel, with
// and without the mutual test, against
//   - a plain scalar scan (same arithmetic, one pair element at a time), and
//   - the arithmetic ceiling of the machine: 8-lane fused multiply-adds from registers, alone and
//     in the matcher's own mix of one subtract and one multiply-add per pair element.
// Counter "pairElems/s": query x train x dimension per second (the mutual test's extra pass is
// not counted, so its cost shows as a lower rate).
#include <benchmark/benchmark.h>
#include <immintrin.h>
#include <omp.h>

#include <cmath>
#include <random>
#include <vector>

#include "kestor.h"

namespace {

constexpr int kCount = 5000;

const std::vector<float>& descriptors(int dimension, unsigned seed) {
    static std::vector<float> cache[2][2];
    std::vector<float>& v = cache[dimension == 128][seed & 1];
    if (v.empty()) {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> uni(0, 1);
        v.resize(size_t(kCount) * size_t(dimension));
        for (float& x : v) x = uni(rng);
    }
    return v;
}

void setRate(benchmark::State& state, double perIteration) {
    state.counters["pairElems/s"] =
        benchmark::Counter(perIteration * double(state.iterations()), benchmark::Counter::kIsRate);
}

// Args: dimension, crossCheck, useThreads.
void BM_MatchDescriptor(benchmark::State& state) {
    const int dimension = int(state.range(0));
    const bool crossCheck = state.range(1) != 0, threads = state.range(2) != 0;
    const std::vector<float>& train = descriptors(dimension, 1);
    const std::vector<float>& query = descriptors(dimension, 2);
    std::vector<int> matches(kCount);
    std::vector<float> distances(kCount);
    for (auto _ : state) {
        KESTORMatchDescriptor(train.data(), kCount, query.data(), matches.data(),
                              distances.data(), kCount, dimension, crossCheck, threads);
        benchmark::DoNotOptimize(matches.data());
    }
    setRate(state, double(kCount) * kCount * dimension);
}
// Serial runs are timed on the thread's CPU time (the machine is shared, so wall time would
// count other jobs); threaded runs on wall time, with the CPU time of the whole process beside.
BENCHMARK(BM_MatchDescriptor)
    ->ArgsProduct({{33, 128}, {0, 1}, {0}})
    ->ArgNames({"dim", "cross", "threads"})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MatchDescriptor)
    ->ArgsProduct({{33, 128}, {0, 1}, {1}})
    ->ArgNames({"dim", "cross", "threads"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// The scalar scan over the first 500 queries only (it is slow); the rate is what compares.
void BM_ScalarScan(benchmark::State& state) {
    const int dimension = int(state.range(0));
    const int queries = 500;
    const std::vector<float>& train = descriptors(dimension, 1);
    const std::vector<float>& query = descriptors(dimension, 2);
    std::vector<int> matches(queries);
    for (auto _ : state) {
        for (int q = 0; q < queries; ++q) {
            const float* a = query.data() + size_t(q) * dimension;
            float best = 0;
            int index = 0;
            for (int t = 0; t < kCount; ++t) {
                const float* b = train.data() + size_t(t) * dimension;
                float sum = 0;
                for (int e = 0; e < dimension; ++e) {
                    const float d = b[e] - a[e];
                    sum = std::fma(d, d, sum);
                }
                if (t == 0 || sum < best) {
                    best = sum;
                    index = t;
                }
            }
            matches[size_t(q)] = index;
        }
        benchmark::DoNotOptimize(matches.data());
    }
    setRate(state, double(queries) * kCount * dimension);
}
BENCHMARK(BM_ScalarScan)->Arg(33)->Arg(128)->ArgName("dim")->Unit(benchmark::kMillisecond);

// The ceilings, per thread and on all OpenMP threads, in inline assembly so that the compiler
// cannot reorder or spill them. `Fma`: 12 independent multiply-add chains (more than latency x
// issue width), 8 lanes each. `Mix`: the matcher's inner step, a subtract then a multiply-add of
// the difference with itself, on 12 chains as in the matcher; 8 pair elements per step.
#define KESTOR_FMA(a) "vfmadd132ps %[x], %[c], %[" #a "]\n\t"
#define KESTOR_MIX(t, a) "vsubps %[x], %[c], %[" #t "]\n\tvfmadd231ps %[" #t "], %[" #t "], %[" #a "]\n\t"

template <bool Mix>
double ceilingLanes(long long rounds) {
    __m256 a0 = _mm256_setzero_ps(), a1 = a0, a2 = a0, a3 = a0, a4 = a0, a5 = a0, a6 = a0,
           a7 = a0, a8 = a0, a9 = a0, a10 = a0, a11 = a0;
    const __m256 x = _mm256_set1_ps(1.0000001f), c = _mm256_set1_ps(1e-7f);
    for (long long r = 0; r < rounds; ++r) {
        if (Mix) {
            __m256 d0, d1;
            __asm__ volatile(KESTOR_MIX(d0, a0) KESTOR_MIX(d1, a1) KESTOR_MIX(d0, a2)
                             KESTOR_MIX(d1, a3) KESTOR_MIX(d0, a4) KESTOR_MIX(d1, a5)
                             KESTOR_MIX(d0, a6) KESTOR_MIX(d1, a7) KESTOR_MIX(d0, a8)
                             KESTOR_MIX(d1, a9) KESTOR_MIX(d0, a10) KESTOR_MIX(d1, a11)
                             : [a0] "+x"(a0), [a1] "+x"(a1), [a2] "+x"(a2), [a3] "+x"(a3),
                               [a4] "+x"(a4), [a5] "+x"(a5), [a6] "+x"(a6), [a7] "+x"(a7),
                               [a8] "+x"(a8), [a9] "+x"(a9), [a10] "+x"(a10), [a11] "+x"(a11),
                               [d0] "=&x"(d0), [d1] "=&x"(d1)
                             : [x] "x"(x), [c] "x"(c));
        } else {
            __asm__ volatile(KESTOR_FMA(a0) KESTOR_FMA(a1) KESTOR_FMA(a2) KESTOR_FMA(a3)
                             KESTOR_FMA(a4) KESTOR_FMA(a5) KESTOR_FMA(a6) KESTOR_FMA(a7)
                             KESTOR_FMA(a8) KESTOR_FMA(a9) KESTOR_FMA(a10) KESTOR_FMA(a11)
                             : [a0] "+x"(a0), [a1] "+x"(a1), [a2] "+x"(a2), [a3] "+x"(a3),
                               [a4] "+x"(a4), [a5] "+x"(a5), [a6] "+x"(a6), [a7] "+x"(a7),
                               [a8] "+x"(a8), [a9] "+x"(a9), [a10] "+x"(a10), [a11] "+x"(a11)
                             : [x] "x"(x), [c] "x"(c));
        }
    }
    // One sum after the loop: keeping single chains observable would pin them to memory.
    __m256 sum = _mm256_add_ps(_mm256_add_ps(_mm256_add_ps(a0, a1), _mm256_add_ps(a2, a3)),
                               _mm256_add_ps(_mm256_add_ps(a4, a5), _mm256_add_ps(a6, a7)));
    sum = _mm256_add_ps(sum, _mm256_add_ps(_mm256_add_ps(a8, a9), _mm256_add_ps(a10, a11)));
    benchmark::DoNotOptimize(sum);
    return double(rounds) * 12 * 8;
}

template <bool Mix>
void BM_Ceiling(benchmark::State& state) {
    const bool threads = state.range(0) != 0;
    const long long rounds = 1 << 24;
    double lanes = 0;
    for (auto _ : state) {
        if (threads) {
            double sum = 0;
#pragma omp parallel reduction(+ : sum)
            sum += ceilingLanes<Mix>(rounds);
            lanes += sum;
        } else {
            lanes += ceilingLanes<Mix>(rounds);
        }
    }
    state.counters["pairElems/s"] = benchmark::Counter(lanes, benchmark::Counter::kIsRate);
}
BENCHMARK_TEMPLATE(BM_Ceiling, false)->Arg(0)->ArgName("threads")->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Ceiling, true)->Arg(0)->ArgName("threads")->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Ceiling, false)
    ->Arg(1)->ArgName("threads")->Unit(benchmark::kMillisecond)->UseRealTime()
    ->MeasureProcessCPUTime();
BENCHMARK_TEMPLATE(BM_Ceiling, true)
    ->Arg(1)->ArgName("threads")->Unit(benchmark::kMillisecond)->UseRealTime()
    ->MeasureProcessCPUTime();

}  // namespace

BENCHMARK_MAIN();
