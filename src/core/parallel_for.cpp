#include "core/parallel_for.h"

#include "core/thread_count.h"

#include <omp.h>

#include <algorithm>

namespace kestor {

void parallelFor(int begin, int end, const LoopBody& body) {
    if (!body) return;
    const int n = end - begin;
    if (n <= 1) {
        body(begin, end, 0);
        return;
    }
    const int threads = loopThreadCount();
    if (threads == 1) {
        body(begin, end, 0);
        return;
    }
    const int chunk = (n - 1 + threads) / threads;
#pragma omp parallel num_threads(threads)
    {
        // Should the runtime give a smaller team, the threads it did give take over the missing
        // blocks, each under the slot of its block, so every item runs exactly once.
        const int teamSize = omp_get_num_threads();
        for (int k = omp_get_thread_num(); k < threads; k += teamSize) {
            const int lower = begin + k * chunk;
            const int upper = begin + std::min(n, (k + 1) * chunk);
            if (lower < end) body(lower, upper, k);
        }
    }
}

void serialFor(int begin, int end, const LoopBody& body) {
    if (!body) return;
    body(begin, end, 0);
}

int loopSlots(bool parallel) { return parallel ? loopThreadCount() : 1; }

}  // namespace kestor
