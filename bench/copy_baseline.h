#pragma once
// The memory floor of a kernel: a plain copy of as many bytes as it reads and writes, timed in
// the same program so that the kernel's time can be read against it.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

inline void copyBytesLoop(benchmark::State& state, size_t bytes) {
    std::vector<char> from(bytes, 1), to(bytes);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}
