#pragma once
// Eight map entries at a time in AVX2 registers, for the pair and multi-frame passes. Callers
// form every per-entry float value with exactly the operations, in the order, of their scalar
// forms (no fused multiply-add), so an entry gets the same bits in a vector as in a scalar tail;
// only double sums change order.
#include <immintrin.h>

#include <climits>
#include <cmath>
#include <cstdint>

#include "core/image_view.h"
#include "core/rigid_transform.h"

namespace kestor {

struct Lanes3 {
    __m256 x, y, z;
};

// Entries i .. i + 7 of a packed Float3 array, one component a register.
inline Lanes3 loadLanes(const Float3* p) {
    const float* f = &p->x;
    __m256 m03 = _mm256_castps128_ps256(_mm_loadu_ps(f));
    __m256 m14 = _mm256_castps128_ps256(_mm_loadu_ps(f + 4));
    __m256 m25 = _mm256_castps128_ps256(_mm_loadu_ps(f + 8));
    m03 = _mm256_insertf128_ps(m03, _mm_loadu_ps(f + 12), 1);
    m14 = _mm256_insertf128_ps(m14, _mm_loadu_ps(f + 16), 1);
    m25 = _mm256_insertf128_ps(m25, _mm_loadu_ps(f + 20), 1);
    const __m256 xy = _mm256_shuffle_ps(m14, m25, _MM_SHUFFLE(2, 1, 3, 2));
    const __m256 yz = _mm256_shuffle_ps(m03, m14, _MM_SHUFFLE(1, 0, 2, 1));
    return Lanes3{_mm256_shuffle_ps(m03, xy, _MM_SHUFFLE(2, 0, 3, 0)),
                  _mm256_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0)),
                  _mm256_shuffle_ps(yz, m25, _MM_SHUFFLE(3, 0, 3, 1))};
}

// The inverse of loadLanes: eight entries written back as packed Float3.
inline void storeLanes(Float3* p, const Lanes3& v) {
    float* f = &p->x;
    const __m256 rxy = _mm256_shuffle_ps(v.x, v.y, _MM_SHUFFLE(2, 0, 2, 0));
    const __m256 ryz = _mm256_shuffle_ps(v.y, v.z, _MM_SHUFFLE(3, 1, 3, 1));
    const __m256 rzx = _mm256_shuffle_ps(v.z, v.x, _MM_SHUFFLE(3, 1, 2, 0));
    const __m256 r03 = _mm256_shuffle_ps(rxy, rzx, _MM_SHUFFLE(2, 0, 2, 0));
    const __m256 r14 = _mm256_shuffle_ps(ryz, rxy, _MM_SHUFFLE(3, 1, 2, 0));
    const __m256 r25 = _mm256_shuffle_ps(rzx, ryz, _MM_SHUFFLE(3, 1, 3, 1));
    _mm_storeu_ps(f, _mm256_castps256_ps128(r03));
    _mm_storeu_ps(f + 4, _mm256_castps256_ps128(r14));
    _mm_storeu_ps(f + 8, _mm256_castps256_ps128(r25));
    _mm_storeu_ps(f + 12, _mm256_extractf128_ps(r03, 1));
    _mm_storeu_ps(f + 16, _mm256_extractf128_ps(r14, 1));
    _mm_storeu_ps(f + 20, _mm256_extractf128_ps(r25, 1));
}

// R v summed as rotateVector sums it.
inline Lanes3 rotateLanes(const RT_<float>& rt, const Lanes3& v) {
    const float* R = rt.rotation;
    auto row = [&](int r) {
        return _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(_mm256_set1_ps(R[r * 3]), v.x),
                                           _mm256_mul_ps(_mm256_set1_ps(R[r * 3 + 1]), v.y)),
                             _mm256_mul_ps(_mm256_set1_ps(R[r * 3 + 2]), v.z));
    };
    return Lanes3{row(0), row(1), row(2)};
}

// R p + t as transformPoint forms it.
inline Lanes3 transformLanes(const RT_<float>& rt, const Lanes3& p) {
    const Lanes3 r = rotateLanes(rt, p);
    return Lanes3{_mm256_add_ps(r.x, _mm256_set1_ps(rt.translation[0])),
                  _mm256_add_ps(r.y, _mm256_set1_ps(rt.translation[1])),
                  _mm256_add_ps(r.z, _mm256_set1_ps(rt.translation[2]))};
}

inline __m256 dotLanes(const Lanes3& a, const Lanes3& b) {
    return _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(a.x, b.x), _mm256_mul_ps(a.y, b.y)),
                         _mm256_mul_ps(a.z, b.z));
}

inline Lanes3 differenceLanes(const Lanes3& a, const Lanes3& b) {
    return Lanes3{_mm256_sub_ps(a.x, b.x), _mm256_sub_ps(a.y, b.y), _mm256_sub_ps(a.z, b.z)};
}

// Where a lane's float is not zero (NaN counts as not zero, as != does).
inline __m256 nonZero(__m256 v) { return _mm256_cmp_ps(v, _mm256_setzero_ps(), _CMP_NEQ_UQ); }

// Lanes of |d|^2 with each difference widened to double and the squares summed in double, tested
// limit > |d|^2 (false for NaN), as a float-lane mask.
inline __m256 withinDistance(const Lanes3& d, double limit) {
    const __m256d l = _mm256_set1_pd(limit);
    auto half = [&](__m128 x, __m128 y, __m128 z) {
        const __m256d dx = _mm256_cvtps_pd(x), dy = _mm256_cvtps_pd(y), dz = _mm256_cvtps_pd(z);
        const __m256d d2 = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(dx, dx), _mm256_mul_pd(dy, dy)),
                                         _mm256_mul_pd(dz, dz));
        // 64-bit lane masks narrowed to 32 bits.
        const __m256i m = _mm256_castpd_si256(_mm256_cmp_pd(l, d2, _CMP_GT_OQ));
        return _mm256_castsi256_si128(
            _mm256_permutevar8x32_epi32(m, _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7)));
    };
    const __m128i lo = half(_mm256_castps256_ps128(d.x), _mm256_castps256_ps128(d.y),
                            _mm256_castps256_ps128(d.z));
    const __m128i hi = half(_mm256_extractf128_ps(d.x, 1), _mm256_extractf128_ps(d.y, 1),
                            _mm256_extractf128_ps(d.z, 1));
    return _mm256_castsi256_ps(_mm256_set_m128i(hi, lo));
}

// The float f for which double(c) > limit is exactly c > f: the largest float not above limit.
inline float floatBelowOrAt(double limit) {
    float f = float(limit);
    if (double(f) > limit) f = std::nextafter(f, -INFINITY);
    return f;
}

// A map read by lanes: element (iu, iv) is at float offset iv * rowFloats + iu * components.
struct LaneMap {
    const float* base = nullptr;
    int rowFloats = 0;
    int components = 1;
    int readable = 0;  // floats from base to the end of the last element
};

// Whether masked gathers with 32-bit float offsets can reach every element of the view.
template <typename T>
inline bool lanesCanRead(const ImageView<const T>& view) {
    const int64_t rowBytes =
        view.stride > 0 ? int64_t(view.stride) : int64_t(view.width) * int64_t(sizeof(T));
    return rowBytes % int64_t(sizeof(float)) == 0 && rowBytes / 4 * int64_t(view.height) < INT_MAX;
}

template <typename T>
inline LaneMap laneMap(const ImageView<const T>& view) {
    const int64_t rowBytes =
        view.stride > 0 ? int64_t(view.stride) : int64_t(view.width) * int64_t(sizeof(T));
    const int components = int(sizeof(T) / sizeof(float));
    return LaneMap{reinterpret_cast<const float*>(view.data), int(rowBytes / 4), components,
                   view.height < 1 ? 0 : int(rowBytes / 4) * (view.height - 1) + view.width * components};
}

// Float offsets of the pixels; only lanes in `mask` are meaningful.
inline __m256i laneOffsets(const LaneMap& map, __m256i iu, __m256i iv) {
    return _mm256_add_epi32(_mm256_mullo_epi32(iv, _mm256_set1_epi32(map.rowFloats)),
                            _mm256_mullo_epi32(iu, _mm256_set1_epi32(map.components)));
}

// Component c at the offsets; lanes outside `mask` read nothing and hold 0.
inline __m256 gatherLanes(const LaneMap& map, __m256i offsets, __m256 mask, int c = 0) {
    return _mm256_mask_i32gather_ps(_mm256_setzero_ps(), map.base + c, offsets, mask, 4);
}

// Asks for the cache lines `ahead` elements past the last lane's pixel, so that the next blocks'
// reads, which move along the same target rows, find them loaded.
inline void prefetchAhead(const LaneMap& map, __m256i offsets, __m256 mask, int ahead) {
    const int bits = _mm256_movemask_ps(mask);
    if (bits == 0) return;
    const int last = 31 - __builtin_clz(unsigned(bits));
    alignas(32) int32_t lanes[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), offsets);
    const char* at = reinterpret_cast<const char*>(map.base + lanes[last]);
    const int bytes = ahead * map.components * int(sizeof(float));
    for (int b = 0; b < map.components * 32; b += 64) _mm_prefetch(at + bytes + b, _MM_HINT_T0);
}

inline Lanes3 gatherLanes3(const LaneMap& map, __m256i offsets, __m256 mask) {
    return Lanes3{gatherLanes(map, offsets, mask, 0), gatherLanes(map, offsets, mask, 1),
                  gatherLanes(map, offsets, mask, 2)};
}

// The same three components, read with one 16-byte load per lane and a transpose: a gather is
// about as slow as its eight loads one by one, and three of them read each pixel three times.
// A lane reads one float past its element, so when some lane's read would pass the end of the
// map the gathers are used instead. Lanes outside `mask` read element 0 and are cleared.
__attribute__((always_inline)) inline Lanes3 loadLanes3(const LaneMap& map, __m256i offsets,
                                                       __m256 mask) {
    const __m256i kept = _mm256_and_si256(offsets, _mm256_castps_si256(mask));
    const __m256i past = _mm256_cmpgt_epi32(kept, _mm256_set1_epi32(map.readable - 4));
    if (map.readable < 4 || !_mm256_testz_si256(past, past)) return gatherLanes3(map, offsets, mask);
    alignas(32) int32_t at[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(at), kept);
    const float* b = map.base;
    auto pair = [&](int l) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(b + at[l])),
                                    _mm_loadu_ps(b + at[l + 4]), 1);
    };
    const __m256 r0 = pair(0), r1 = pair(1), r2 = pair(2), r3 = pair(3);
    const __m256 t0 = _mm256_unpacklo_ps(r0, r1), t1 = _mm256_unpackhi_ps(r0, r1);
    const __m256 t2 = _mm256_unpacklo_ps(r2, r3), t3 = _mm256_unpackhi_ps(r2, r3);
    return Lanes3{_mm256_and_ps(mask, _mm256_shuffle_ps(t0, t2, 0x44)),
                  _mm256_and_ps(mask, _mm256_shuffle_ps(t0, t2, 0xEE)),
                  _mm256_and_ps(mask, _mm256_shuffle_ps(t1, t3, 0x44))};
}

// Whether the eight pixels (iu, iv) are one run along a row, (iu0 + l, iv0) in lane l, all of
// them in `mask`: their reads from any map are then plain vector loads from lane 0's offset.
inline bool oneRowRun(__m256i iu, __m256i iv, __m256 mask) {
    if (_mm256_movemask_ps(mask) != 0xff) return false;
    const __m256i first = _mm256_setzero_si256();
    const __m256i run = _mm256_add_epi32(_mm256_permutevar8x32_epi32(iu, first),
                                         _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    const __m256i same = _mm256_and_si256(_mm256_cmpeq_epi32(iu, run),
                                          _mm256_cmpeq_epi32(iv, _mm256_permutevar8x32_epi32(iv, first)));
    return _mm256_movemask_epi8(same) == -1;
}

// Eight byte flags as a float-lane mask (flag != 0).
inline __m256 flagLanes(const uint8_t* flags) {
    const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(flags));
    const __m256i wide = _mm256_cvtepu8_epi32(bytes);
    return _mm256_castsi256_ps(
        _mm256_xor_si256(_mm256_cmpeq_epi32(wide, _mm256_setzero_si256()), _mm256_set1_epi32(-1)));
}

// A float-lane mask as eight byte flags, 1 where set.
inline void storeFlags(uint8_t* flags, __m256 mask) {
    const __m256i ones = _mm256_and_si256(_mm256_castps_si256(mask), _mm256_set1_epi32(1));
    const __m128i words = _mm_packs_epi32(_mm256_castsi256_si128(ones), _mm256_extracti128_si256(ones, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(flags), _mm_packs_epi16(words, words));
}

inline __m256 zeroOutside(__m256 v, __m256 mask) { return _mm256_and_ps(v, mask); }

// round(c), half away from zero, for lanes with c >= 0: trunc(c) plus one when the part cut off
// is at least a half (c - trunc(c) is exact).
inline __m256 roundHalfAwayNonNegative(__m256 c) {
    const __m256 t = _mm256_round_ps(c, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    const __m256 up = _mm256_cmp_ps(_mm256_sub_ps(c, t), _mm256_set1_ps(0.5f), _CMP_GE_OQ);
    return _mm256_add_ps(t, _mm256_and_ps(up, _mm256_set1_ps(1.0f)));
}

}  // namespace kestor
