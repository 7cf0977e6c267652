#pragma once
// One row of R p + offset in the fused form the vector kernels use: R[3i] x + (R[3i+1] y +
// (R[3i+2] z + offset)), one fused multiply-add a step. The scalar form gives the same bits as a
// lane of the vector one, so a tail after the vector loop matches the lanes before it.
#include <immintrin.h>

#include <cmath>

namespace kestor {

// Eight points a call; R holds the nine rotation values, each broadcast to all lanes.
inline __m256 fusedRow(const __m256* R, int i, __m256 x, __m256 y, __m256 z, __m256 offset) {
    return _mm256_fmadd_ps(R[i * 3], x,
                           _mm256_fmadd_ps(R[i * 3 + 1], y, _mm256_fmadd_ps(R[i * 3 + 2], z, offset)));
}

inline float fusedRow(const float* R, int i, float x, float y, float z, float offset) {
    return std::fma(R[i * 3], x, std::fma(R[i * 3 + 1], y, std::fma(R[i * 3 + 2], z, offset)));
}

// The nine rotation values broadcast for the vector form.
inline void broadcastRotation(const float* rotation, __m256* R) {
    for (int i = 0; i < 9; ++i) R[i] = _mm256_set1_ps(rotation[i]);
}

}  // namespace kestor
