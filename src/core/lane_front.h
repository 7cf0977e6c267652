#pragma once
// Moving the lanes an 8-bit mask sets to the front of a vector, in order. AVX2 has no compress
// instruction; a table of lane permutations, one per mask, stands in for it. Compacting loops
// write all eight lanes at their next free place and then move that place on by the kept count.
#include <immintrin.h>

#include <array>
#include <cstdint>

namespace kestor {

// Entry `bits` lists the lanes set in `bits` in rising order, then zeros.
extern const std::array<std::array<int32_t, 8>, 256> kFrontOrders;

inline __m256i frontOrder(int bits) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kFrontOrders[size_t(bits)].data()));
}
inline __m256 toFront(__m256 v, __m256i order) { return _mm256_permutevar8x32_ps(v, order); }
inline __m256i toFront(__m256i v, __m256i order) { return _mm256_permutevar8x32_epi32(v, order); }

}  // namespace kestor
