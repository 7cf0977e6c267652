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

// Squares of eight float residuals summed in double, lanes outside `ok` left out.
inline __m256d squaresOf(__m256 r, __m256 ok) {
    const __m256 in = zeroOutside(r, ok);
    const __m256d lo = low(in), hi = high(in);
    return _mm256_add_pd(_mm256_mul_pd(lo, lo), _mm256_mul_pd(hi, hi));
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
    return sumKept(
        source, target, T, targets, begin, end,
        [&](int, const MatchLanes& m) { return squaresOf(dotLanes(m.d, m.n), m.ok); },
        [&](int, const MatchOne& m) {
            const double r = m.d[0] * m.n.x + m.d[1] * m.n.y + m.d[2] * m.n.z;
            return r * r;
        });
}

double coloredErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                        const ColoredScales& scales, const int32_t* targets, int begin, int end) {
    const double meanG = scales.meanGeometric, meanC = scales.meanPhotometric;
    const double wg2 = scales.weightGeometric * scales.weightGeometric;
    const double wc2 = scales.weightPhotometric * scales.weightPhotometric;
    const __m256d mG = _mm256_set1_pd(meanG), mC = _mm256_set1_pd(meanC);
    const __m256d wG = _mm256_set1_pd(wg2), wC = _mm256_set1_pd(wc2);
    return sumKept(
        source, target, T, targets, begin, end,
        [&](int e, const MatchLanes& m) {
            const __m256 rg = dotLanes(m.d, m.n);
            const __m256 rc = _mm256_sub_ps(m.gray, _mm256_loadu_ps(&source.gray[size_t(e)]));
            auto half = [&](__m256d g4, __m256d c4, __m256d mask) {
                const __m256d dg = _mm256_sub_pd(g4, mG), dc = _mm256_sub_pd(c4, mC);
                const __m256d t = _mm256_add_pd(_mm256_mul_pd(_mm256_mul_pd(dg, dg), wG),
                                                _mm256_mul_pd(_mm256_mul_pd(dc, dc), wC));
                return _mm256_and_pd(t, mask);
            };
            return _mm256_add_pd(half(low(rg), low(rc), lowMask(m.ok)),
                                 half(high(rg), high(rc), highMask(m.ok)));
        },
        [&](int e, const MatchOne& m) {
            const double rg = m.d[0] * m.n.x + m.d[1] * m.n.y + m.d[2] * m.n.z;
            const double rc = m.gray - source.gray[size_t(e)];
            const double dg = rg - meanG, dc = rc - meanC;
            return dg * dg * wg2 + dc * dc * wc2;
        });
}

}  // namespace kestor
