#include "core/thread_count.h"

#include <omp.h>

#include <atomic>

namespace kestor {

namespace {

std::atomic<int> processThreads{0};

}  // namespace

void setLoopThreadCount(int threads) { processThreads.store(threads > 0 ? threads : 0); }

int loopThreadCount() {
    const int set = processThreads.load();
    return set > 0 ? set : omp_get_max_threads();
}

}  // namespace kestor
