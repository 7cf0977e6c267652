// Exports of the library frame: version and the process-wide OpenMP thread count.
#include <omp.h>

#include <thread>

#include "core/thread_count.h"
#include "kestor.h"

extern "C" {

const char* KESTORVersion(void) { return "1.1.3"; }

void KESTORSetThreadNum(int threads) {
    // -1 asks for every hardware thread; any other value goes to the runtime unchanged.
    if (threads == -1) threads = int(std::thread::hardware_concurrency());
    omp_set_num_threads(threads);
    kestor::setLoopThreadCount(threads);
}

int KESTORGetThreadNum(void) { return kestor::loopThreadCount(); }

}  // extern "C"
