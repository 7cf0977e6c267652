// Trial errors of one frame pair over the target pixels its last association kept: each kept
// source element moved by the trial pose against the same target vertex and normal.
#include "core/float3_lanes.h"
#include "multi/kept_targets.h"
#include "multi/vmap_pair_passes.h"

namespace kestor {

namespace {

inline __m256d low(__m256 v) { return _mm256_cvtps_pd(_mm256_castps256_ps128(v)); }
inline __m256d high(__m256 v) { return _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1)); }

inline double laneTotal(__m256d v) {
    double lanes[4];
    _mm256_storeu_pd(lanes, v);
    return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
}

// Double-lane masks of the low and high four of a float-lane mask.
inline __m256d lowMask(__m256 ok) {
    return _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm256_castsi256_si128(_mm256_castps_si256(ok))));
}
inline __m256d highMask(__m256 ok) {
    return _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm256_extracti128_si256(_mm256_castps_si256(ok), 1)));
}

// The sum over the kept elements of what inLanes makes of eight (four double lanes) and one
// makes of a single element.
template <typename Lanes, typename One>
double sumKept(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
               const int32_t* targets, int begin, int end, Lanes&& inLanes, One&& one) {
    __m256d sum = _mm256_setzero_pd();
    double single = 0.0;
    forKept(
        source, target, T, targets, begin, end,
        [&](int e, const MatchLanes& m) { sum = _mm256_add_pd(sum, inLanes(e, m)); },
        [&](int e, const MatchOne& m) { single += one(e, m); });
    return laneTotal(sum) + single;
}

// Squares of eight float residuals less `mean`, summed in double; lanes outside `ok` left out.
// Without centring the lanes are cleared before widening, which saves the subtractions.
template <bool kCentred>
inline __m256d centredSquares(__m256 r, __m256 ok, __m256d mean) {
    if constexpr (kCentred) {
        const __m256d lo = _mm256_and_pd(_mm256_sub_pd(low(r), mean), lowMask(ok));
        const __m256d hi = _mm256_and_pd(_mm256_sub_pd(high(r), mean), highMask(ok));
        return _mm256_add_pd(_mm256_mul_pd(lo, lo), _mm256_mul_pd(hi, hi));
    } else {
        const __m256 in = zeroOutside(r, ok);
        const __m256d lo = low(in), hi = high(in);
        return _mm256_add_pd(_mm256_mul_pd(lo, lo), _mm256_mul_pd(hi, hi));
    }
}

template <bool kCentred>
double planeErrors(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                   const int32_t* targets, int begin, int end, double mean) {
    const __m256d means = _mm256_set1_pd(mean);
    return sumKept(
        source, target, T, targets, begin, end,
        [&](int, const MatchLanes& m) { return centredSquares<kCentred>(dotLanes(m.d, m.n), m.ok, means); },
        [&](int, const MatchOne& m) {
            const double r = double(m.d[0] * m.n.x + m.d[1] * m.n.y + m.d[2] * m.n.z) - mean;
            return r * r;
        });
}

}  // namespace

double pointErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                      const int32_t* targets, int begin, int end) {
    return sumKept(
        source, target, T, targets, begin, end,
        [&](int, const MatchLanes& m) {
            const __m256 x = zeroOutside(m.d.x, m.ok), y = zeroOutside(m.d.y, m.ok),
                         z = zeroOutside(m.d.z, m.ok);
            auto half = [](__m256d a, __m256d b, __m256d c) {
                return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(a, a), _mm256_mul_pd(b, b)),
                                     _mm256_mul_pd(c, c));
            };
            return _mm256_add_pd(half(low(x), low(y), low(z)), half(high(x), high(y), high(z)));
        },
        [&](int, const MatchOne& m) {
            const double dx = m.d[0], dy = m.d[1], dz = m.d[2];
            return dx * dx + dy * dy + dz * dz;
        });
}

double planeErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                      const int32_t* targets, int begin, int end) {
    return planeErrors<false>(source, target, T, targets, begin, end, 0.0);
}

double centredPlaneErrorPass(const CompactFrame& source, const TargetRecords& target,
                             const RT_<float>& T, const int32_t* targets, int begin, int end,
                             double mean) {
    return planeErrors<true>(source, target, T, targets, begin, end, mean);
}

}  // namespace kestor
