// Trial errors of one frame pair over the target pixels its last association kept: each kept
// source element moved by the trial pose against the same target vertex and normal.
#include "core/float3_lanes.h"
#include "multi/vmap_association.h"
#include "multi/vmap_pair_passes.h"

namespace kestor {

namespace {

// The kept elements among eight: their float-lane mask and the target records' components.
struct KeptLanes {
    __m256 ok;
    Lanes3 q, n;
    __m256 gray;
};

inline bool keptLanes(const TargetRecords& target, const int32_t* targets, KeptLanes& k) {
    const __m256i t = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(targets));
    const __m256i keep = _mm256_cmpgt_epi32(t, _mm256_set1_epi32(-1));
    k.ok = _mm256_castsi256_ps(keep);
    if (!anyLane(k.ok)) return false;
    __m256 c[8];
    loadRecords(target, t, keep, c);
    k.q = Lanes3{c[0], c[1], c[2]};
    k.n = Lanes3{c[3], c[4], c[5]};
    k.gray = c[6];
    return true;
}

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

// Walks [begin, end): lanes(e, kept) for eight from e, then one(e, record) for each remaining
// kept element; returns the lanes' sum plus the singles' sum.
template <typename Lanes, typename One>
double sumKept(const TargetRecords& target, const int32_t* targets, int begin, int end,
               Lanes&& inLanes, One&& one) {
    __m256d sum = _mm256_setzero_pd();
    int e = begin;
    for (; e + 8 <= end; e += 8) {
        KeptLanes k;
        if (keptLanes(target, targets + e, k)) sum = _mm256_add_pd(sum, inLanes(e, k));
    }
    double single = 0.0;
    for (; e < end; ++e)
        if (targets[e] >= 0) single += one(e, target.at(targets[e]));
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
        target, targets, begin, end,
        [&](int e, const KeptLanes& k) {
            const Lanes3 p = transformLanes(T, loadLanes(&source.points[size_t(e)]));
            const Lanes3 d = differenceLanes(p, k.q);
            const __m256 x = zeroOutside(d.x, k.ok), y = zeroOutside(d.y, k.ok),
                         z = zeroOutside(d.z, k.ok);
            auto half = [](__m256d a, __m256d b, __m256d c) {
                return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(a, a), _mm256_mul_pd(b, b)),
                                     _mm256_mul_pd(c, c));
            };
            return _mm256_add_pd(half(low(x), low(y), low(z)), half(high(x), high(y), high(z)));
        },
        [&](int e, const float* q) {
            float pt[3];
            transformPoint(T, &source.points[size_t(e)].x, pt);
            const double dx = pt[0] - q[0], dy = pt[1] - q[1], dz = pt[2] - q[2];
            return dx * dx + dy * dy + dz * dz;
        });
}

double planeErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                      const int32_t* targets, int begin, int end) {
    return sumKept(
        target, targets, begin, end,
        [&](int e, const KeptLanes& k) {
            const Lanes3 p = transformLanes(T, loadLanes(&source.points[size_t(e)]));
            const Lanes3 d = differenceLanes(p, k.q);
            return squaresOf(dotLanes(d, k.n), k.ok);
        },
        [&](int e, const float* q) {
            float pt[3];
            transformPoint(T, &source.points[size_t(e)].x, pt);
            const double r = (pt[0] - q[0]) * q[3] + (pt[1] - q[1]) * q[4] + (pt[2] - q[2]) * q[5];
            return r * r;
        });
}

double coloredErrorPass(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
                        const ColoredScales& scales, const int32_t* targets, int begin, int end) {
    const double meanG = scales.meanGeometric, meanC = scales.meanPhotometric;
    const double wg2 = scales.weightGeometric * scales.weightGeometric;
    const double wc2 = scales.weightPhotometric * scales.weightPhotometric;
    auto term = [&](double rg, double rc) {
        const double dg = rg - meanG, dc = rc - meanC;
        return dg * dg * wg2 + dc * dc * wc2;
    };
    return sumKept(
        target, targets, begin, end,
        [&](int e, const KeptLanes& k) {
            const Lanes3 p = transformLanes(T, loadLanes(&source.points[size_t(e)]));
            const Lanes3 d = differenceLanes(p, k.q);
            const __m256 rg = dotLanes(d, k.n);
            const __m256 rc = _mm256_sub_ps(k.gray, _mm256_loadu_ps(&source.gray[size_t(e)]));
            const __m256d mG = _mm256_set1_pd(meanG), mC = _mm256_set1_pd(meanC);
            const __m256d wG = _mm256_set1_pd(wg2), wC = _mm256_set1_pd(wc2);
            auto half = [&](__m256d g4, __m256d c4, __m256d mask) {
                const __m256d dg = _mm256_sub_pd(g4, mG), dc = _mm256_sub_pd(c4, mC);
                const __m256d t = _mm256_add_pd(_mm256_mul_pd(_mm256_mul_pd(dg, dg), wG),
                                                _mm256_mul_pd(_mm256_mul_pd(dc, dc), wC));
                return _mm256_and_pd(t, mask);
            };
            return _mm256_add_pd(half(low(rg), low(rc), lowMask(k.ok)),
                                 half(high(rg), high(rc), highMask(k.ok)));
        },
        [&](int e, const float* q) {
            float pt[3];
            transformPoint(T, &source.points[size_t(e)].x, pt);
            const double rg = (pt[0] - q[0]) * q[3] + (pt[1] - q[1]) * q[4] + (pt[2] - q[2]) * q[5];
            return term(rg, q[6] - source.gray[size_t(e)]);
        });
}

}  // namespace kestor
