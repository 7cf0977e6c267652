#pragma once
// Eight packed (x, y, z) floats as three vectors of eight lanes and back: the shuffles that let
// the vertex and normal kernels work on planes while the maps stay interleaved in memory.
#include <immintrin.h>

namespace kestor {

struct Lanes3 {
    __m256 x, y, z;
};

// Reads 24 floats (8 points) from `p`; lane i of each vector is point i.
inline Lanes3 loadLanes3(const float* p) {
    const __m256 m03 = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p)),
                                            _mm_loadu_ps(p + 12), 1);
    const __m256 m14 = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p + 4)),
                                            _mm_loadu_ps(p + 16), 1);
    const __m256 m25 = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p + 8)),
                                            _mm_loadu_ps(p + 20), 1);
    // Per 128-bit half: m03 = x0 y0 z0 x1, m14 = y1 z1 x2 y2, m25 = z2 x3 y3 z3.
    const __m256 xy = _mm256_shuffle_ps(m14, m25, _MM_SHUFFLE(2, 1, 3, 2));  // x2 y2 x3 y3
    const __m256 yz = _mm256_shuffle_ps(m03, m14, _MM_SHUFFLE(1, 0, 2, 1));  // y0 z0 y1 z1
    return Lanes3{_mm256_shuffle_ps(m03, xy, _MM_SHUFFLE(2, 0, 3, 0)),
                  _mm256_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0)),
                  _mm256_shuffle_ps(yz, m25, _MM_SHUFFLE(3, 0, 3, 1))};
}

// Writes the 8 points of `v` as 24 packed floats to `p`.
inline void storeLanes3(float* p, const Lanes3& v) {
    const __m256 rxy = _mm256_shuffle_ps(v.x, v.y, _MM_SHUFFLE(2, 0, 2, 0));  // x0 x2 y0 y2
    const __m256 ryz = _mm256_shuffle_ps(v.y, v.z, _MM_SHUFFLE(3, 1, 3, 1));  // y1 y3 z1 z3
    const __m256 rzx = _mm256_shuffle_ps(v.z, v.x, _MM_SHUFFLE(3, 1, 2, 0));  // z0 z2 x1 x3
    const __m256 r03 = _mm256_shuffle_ps(rxy, rzx, _MM_SHUFFLE(2, 0, 2, 0));  // x0 y0 z0 x1
    const __m256 r14 = _mm256_shuffle_ps(ryz, rxy, _MM_SHUFFLE(3, 1, 2, 0));  // y1 z1 x2 y2
    const __m256 r25 = _mm256_shuffle_ps(rzx, ryz, _MM_SHUFFLE(3, 1, 3, 1));  // z2 x3 y3 z3
    _mm256_storeu_ps(p, _mm256_permute2f128_ps(r03, r14, 0x20));
    _mm256_storeu_ps(p + 8, _mm256_permute2f128_ps(r25, r03, 0x30));
    _mm256_storeu_ps(p + 16, _mm256_permute2f128_ps(r14, r25, 0x31));
}

}  // namespace kestor
