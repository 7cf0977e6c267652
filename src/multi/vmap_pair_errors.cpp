// Trial errors of one frame pair over the target pixels its last association kept: each kept
// source element moved by the trial pose against the same target vertex and normal.
#include "core/float3_lanes.h"
#include "multi/vmap_association.h"
#include "multi/vmap_pair_passes.h"

namespace kestor {

namespace {

// The kept elements among eight: the float-lane mask and the packed Float3 offsets of the
// targets (lanes left out read nothing).
struct KeptLanes {
    __m256i targets, offsets;
    __m256 ok;
};

inline KeptLanes keptLanes(const int32_t* targets) {
    KeptLanes k;
    k.targets = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(targets));
    k.ok = _mm256_castsi256_ps(_mm256_cmpgt_epi32(k.targets, _mm256_set1_epi32(-1)));
    k.offsets = _mm256_mullo_epi32(k.targets, _mm256_set1_epi32(3));
    return k;
}

inline Lanes3 gatherFloat3(const Float3* map, const KeptLanes& k) {
    const LaneMap m{&map->x, 0, 3};
    return gatherLanes3(m, k.offsets, k.ok);
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

// Walks [begin, end): lanes(e, kept) for eight from e where the target maps are packed, then
// one(e) for each remaining kept element; returns the lanes' sum plus the singles' sum.
template <typename Lanes, typename One>
double sumKept(bool lanes, const int32_t* targets, int begin, int end, Lanes&& inLanes,
               One&& one) {
    __m256d sum = _mm256_setzero_pd();
    int e = begin;
    if (lanes) {
        for (; e + 8 <= end; e += 8) {
            const KeptLanes k = keptLanes(targets + e);
            if (!anyLane(k.ok)) continue;
            sum = _mm256_add_pd(sum, inLanes(e, k));
        }
    }
    double single = 0.0;
    for (; e < end; ++e)
        if (targets[e] >= 0) single += one(e, targets[e]);
    return laneTotal(sum) + single;
}

// Squares of eight float residuals summed in double, lanes outside `ok` left out.
inline __m256d squaresOf(__m256 r, __m256 ok) {
    const __m256 in = zeroOutside(r, ok);
    const __m256d lo = low(in), hi = high(in);
    return _mm256_add_pd(_mm256_mul_pd(lo, lo), _mm256_mul_pd(hi, hi));
}

}  // namespace

double pointErrorPass(const CompactFrame& source, const FrameMaps& target, const RT_<float>& T,
                      const int32_t* targets, int begin, int end) {
    return sumKept(
        lanesFit(target, false, false), targets, begin, end,
        [&](int e, const KeptLanes& k) {
            const Lanes3 p = transformLanes(T, loadLanes(&source.points[size_t(e)]));
            const Lanes3 d = differenceLanes(p, gatherFloat3(target.vmap.data, k));
            const __m256 x = zeroOutside(d.x, k.ok), y = zeroOutside(d.y, k.ok),
                         z = zeroOutside(d.z, k.ok);
            auto half = [](__m256d a, __m256d b, __m256d c) {
                return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(a, a), _mm256_mul_pd(b, b)),
                                     _mm256_mul_pd(c, c));
            };
            return _mm256_add_pd(half(low(x), low(y), low(z)), half(high(x), high(y), high(z)));
        },
        [&](int e, int t) {
            float pt[3];
            transformPoint(T, &source.points[size_t(e)].x, pt);
            const Float3& q = atFlat(target.vmap, t);
            const double dx = pt[0] - q.x, dy = pt[1] - q.y, dz = pt[2] - q.z;
            return dx * dx + dy * dy + dz * dz;
        });
}

double planeErrorPass(const CompactFrame& source, const FrameMaps& target, const RT_<float>& T,
                      const int32_t* targets, int begin, int end) {
    return sumKept(
        lanesFit(target, true, false), targets, begin, end,
        [&](int e, const KeptLanes& k) {
            const Lanes3 p = transformLanes(T, loadLanes(&source.points[size_t(e)]));
            const Lanes3 d = differenceLanes(p, gatherFloat3(target.vmap.data, k));
            return squaresOf(dotLanes(d, gatherFloat3(target.nmap.data, k)), k.ok);
        },
        [&](int e, int t) {
            float pt[3];
            transformPoint(T, &source.points[size_t(e)].x, pt);
            const Float3 &q = atFlat(target.vmap, t), &n = atFlat(target.nmap, t);
            const double r = (pt[0] - q.x) * n.x + (pt[1] - q.y) * n.y + (pt[2] - q.z) * n.z;
            return r * r;
        });
}

double coloredErrorPass(const CompactFrame& source, const FrameMaps& target, const RT_<float>& T,
                        const ColoredScales& scales, const int32_t* targets, int begin, int end) {
    const double meanG = scales.meanGeometric, meanC = scales.meanPhotometric;
    const double wg2 = scales.weightGeometric * scales.weightGeometric;
    const double wc2 = scales.weightPhotometric * scales.weightPhotometric;
    auto term = [&](double rg, double rc) {
        const double dg = rg - meanG, dc = rc - meanC;
        return dg * dg * wg2 + dc * dc * wc2;
    };
    return sumKept(
        lanesFit(target, true, true), targets, begin, end,
        [&](int e, const KeptLanes& k) {
            const Lanes3 p = transformLanes(T, loadLanes(&source.points[size_t(e)]));
            const Lanes3 d = differenceLanes(p, gatherFloat3(target.vmap.data, k));
            const __m256 rg = dotLanes(d, gatherFloat3(target.nmap.data, k));
            const __m256 g =
                _mm256_mask_i32gather_ps(_mm256_setzero_ps(), target.gray.data, k.targets, k.ok, 4);
            const __m256 rc = _mm256_sub_ps(g, _mm256_loadu_ps(&source.gray[size_t(e)]));
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
        [&](int e, int t) {
            float pt[3];
            transformPoint(T, &source.points[size_t(e)].x, pt);
            const Float3 &q = atFlat(target.vmap, t), &n = atFlat(target.nmap, t);
            const double rg = (pt[0] - q.x) * n.x + (pt[1] - q.y) * n.y + (pt[2] - q.z) * n.z;
            return term(rg, atFlat(target.gray, t) - source.gray[size_t(e)]);
        });
}

}  // namespace kestor
