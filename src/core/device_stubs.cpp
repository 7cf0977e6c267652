// The device interface. This build carries no device code: the functions that report answer
// "not available", the allocator hands out nothing and the copies do nothing.
#include "kestor.h"

namespace {

int deviceNotAvailable() { return KESTOR_STATUS_NOT_AVAILABLE; }
void deviceNothingToDo() {}

}  // namespace

extern "C" {

int cuKESTORDepthToVmapNmap(const double*, const float*, const uint8_t*, float*, float*, int, int) {
    return deviceNotAvailable();
}

int cuKESTORCalcPyramidVmapNmap(const double*, const float*, const uint8_t*, const uint8_t*,
                                float**, float**, float**, float**, float**, int, int, int, bool) {
    return deviceNotAvailable();
}

int cuKESTORCalcGrayAndGradient(const uint8_t*, float*, float*, float*, int, int, double, bool,
                                bool) {
    return deviceNotAvailable();
}

int cuKESTORCalcVmapMatchInfo(const float*, const float*, const float*, const float*, int, int,
                              const double*, const double*, double*, double, double, double) {
    return deviceNotAvailable();
}

int cuKESTORCalcVmapSelfMatchInfo(const float*, int, int, const double*, double*) {
    return deviceNotAvailable();
}

int cuKESTORMatchPairVmapNmapPyramid(const float* const*, const float* const*, const float* const*,
                                     const float* const*, const float* const*, const float* const*,
                                     const float* const*, const float* const*, int, int,
                                     const double*, double*, double*, const int*, const double*,
                                     int, double, double, double, bool, bool, KESTORProgressFunc,
                                     void*) {
    return deviceNotAvailable();
}

int cuKESTORMatchMultiVmapNmap(const float* const*, const float* const*, const float* const*,
                               const float* const*, const float* const*, int, int, const double*,
                               double*, int, int, double, double, double, double, int, bool, bool,
                               KESTORProgressFunc, void*) {
    return deviceNotAvailable();
}

void* cuKESTORMalloc(size_t) { return nullptr; }

void cuKESTORFree(void*) { deviceNothingToDo(); }
void cuKESTORMemcpy(void*, const void*, size_t) { deviceNothingToDo(); }
void cuKESTORUpload(void*, const void*, size_t) { deviceNothingToDo(); }
void cuKESTORDownload(void*, const void*, size_t) { deviceNothingToDo(); }

}  // extern "C"
