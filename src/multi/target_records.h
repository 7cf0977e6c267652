#pragma once
// A target frame's maps interleaved per pixel, made once per run: vertex, normal and (coloured)
// gray of a pixel side by side, so that the lane passes read a matched pixel with one load per
// lane instead of a gather per component, and the components of one pixel share a cache line.
#include <immintrin.h>

#include <cstdint>
#include <vector>

#include "multi/vmap_modes.h"

namespace kestor {

struct TargetRecords {
    int width = 0, height = 0;
    int stride = 0;           // floats per pixel: 6, or 7 with gray
    std::vector<float> data;  // row-major pixels, then padding so eight floats can be read at any
    std::vector<float> gradX, gradY;  // packed copies of the gradient maps, coloured only

    const float* at(int pixel) const { return data.data() + size_t(pixel) * size_t(stride); }
};

// With normals (6 floats) or without (vertex only, still 6 floats a pixel); gray and gradients
// when `colour` is set.
TargetRecords targetRecords(const FrameMaps& frame, bool normals, bool colour);

// Asks for the records of eight pixels from `pixel` on, ahead of their use: the lane passes walk
// the source in row order and, with little motion between frames, land on neighbouring target
// pixels that the hardware does not see coming.
inline void prefetchRecords(const TargetRecords& records, int pixel) {
    const int last = records.width * records.height - 8;
    const char* at = reinterpret_cast<const char*>(records.at(pixel < 0 ? 0 : pixel > last ? last : pixel));
    for (int line = 0; line < 4; ++line) _mm_prefetch(at + 64 * line, _MM_HINT_T0);
}

// The records at eight pixel indexes as component registers: out[c] holds component c of all
// eight (c < 8; components past the stride belong to the next pixel). Lanes not in `keep` read
// pixel 0.
__attribute__((always_inline)) inline void loadRecords(const TargetRecords& records,
                                                     __m256i pixels, __m256i keep, __m256* out) {
    const __m256i kept = _mm256_and_si256(pixels, keep);
    const __m128i lo = _mm256_castsi256_si128(kept), hi = _mm256_extracti128_si256(kept, 1);
    const int first = _mm_cvtsi128_si32(lo);
    const __m256i run =
        _mm256_add_epi32(_mm256_set1_epi32(first), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    __m256 r[8];
    if (_mm256_movemask_epi8(_mm256_cmpeq_epi32(kept, run)) == -1) {
        // Eight neighbouring pixels, as a row of source elements usually lands on.
        const float* at = records.at(first);
#pragma GCC unroll 8
        for (int l = 0; l < 8; ++l) r[l] = _mm256_loadu_ps(at + l * records.stride);
    } else {
        r[0] = _mm256_loadu_ps(records.at(first));
        r[1] = _mm256_loadu_ps(records.at(_mm_extract_epi32(lo, 1)));
        r[2] = _mm256_loadu_ps(records.at(_mm_extract_epi32(lo, 2)));
        r[3] = _mm256_loadu_ps(records.at(_mm_extract_epi32(lo, 3)));
        r[4] = _mm256_loadu_ps(records.at(_mm_cvtsi128_si32(hi)));
        r[5] = _mm256_loadu_ps(records.at(_mm_extract_epi32(hi, 1)));
        r[6] = _mm256_loadu_ps(records.at(_mm_extract_epi32(hi, 2)));
        r[7] = _mm256_loadu_ps(records.at(_mm_extract_epi32(hi, 3)));
    }
    const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
    const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
    const __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]), t5 = _mm256_unpackhi_ps(r[4], r[5]);
    const __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]), t7 = _mm256_unpackhi_ps(r[6], r[7]);
    const __m256 s0 = _mm256_shuffle_ps(t0, t2, 0x44), s1 = _mm256_shuffle_ps(t0, t2, 0xEE);
    const __m256 s2 = _mm256_shuffle_ps(t1, t3, 0x44), s3 = _mm256_shuffle_ps(t1, t3, 0xEE);
    const __m256 s4 = _mm256_shuffle_ps(t4, t6, 0x44), s5 = _mm256_shuffle_ps(t4, t6, 0xEE);
    const __m256 s6 = _mm256_shuffle_ps(t5, t7, 0x44), s7 = _mm256_shuffle_ps(t5, t7, 0xEE);
    out[0] = _mm256_permute2f128_ps(s0, s4, 0x20);
    out[1] = _mm256_permute2f128_ps(s1, s5, 0x20);
    out[2] = _mm256_permute2f128_ps(s2, s6, 0x20);
    out[3] = _mm256_permute2f128_ps(s3, s7, 0x20);
    out[4] = _mm256_permute2f128_ps(s0, s4, 0x31);
    out[5] = _mm256_permute2f128_ps(s1, s5, 0x31);
    out[6] = _mm256_permute2f128_ps(s2, s6, 0x31);
    out[7] = _mm256_permute2f128_ps(s3, s7, 0x31);
}

}  // namespace kestor
