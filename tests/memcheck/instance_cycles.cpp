// Creates and destroys instances in a loop, with callbacks and a spill file set, and prints the
// number of cycles and the size of the instance block: the only memory that is meant to stay.
#include <cstdio>
#include <string>

#include "core/fusion_instance.h"
#include "kestor.h"

namespace {

void trace(const KESTORFrameInfo*, const KESTORTrackInfo*, void*) {}
bool pairMatch(const KESTORFrameInfo*, const KESTORFrameInfo*, double[3][4], int, void*) {
    return false;
}
float score(const KESTORFrameInfo*, const KESTORFrameInfo*, void*) { return 0; }

}  // namespace

int main(int argc, char** argv) {
    const int cycles = 5;
    const std::string cache = argc > 1 ? argv[1] : "/tmp/kestor_memcheck_cache.bin";
    const double K[9] = {525, 0, 319.5, 0, 525, 239.5, 0, 0, 1};
    const double distances[3] = {0.05, 0.1, 0.2};
    const int iterations[3] = {10, 5, 3};
    for (int c = 0; c < cycles; ++c) {
        void* instance = nullptr;
        if (KESTORCreateInstance(&instance, K, 64, 48, distances, iterations, 3, 5,
                                 unsigned(c) * 3 % 16) != 0)
            return 1;
        KESTORSetTraceCallback(instance, trace, nullptr);
        KESTORSetPairMatchFunc(instance, pairMatch, nullptr);
        KESTORSetCalcScoreFunc(instance, score, nullptr);
        KESTORSetCachePath(instance, cache.c_str());
        KESTORDestroyInstance(instance);
    }
    std::remove(cache.c_str());
    std::printf("cycles %d block %zu\n", cycles, sizeof(kestor::RGBDFusionImpl));
    return 0;
}
