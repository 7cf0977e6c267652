#pragma once
// Projective association of a compact source against a target frame's maps, eight elements at a
// time in AVX2 lanes with the per-element code as the tail. Every float of an element is formed
// with the operations, in the order, of the per-element code, so a lane and a single element get
// the same bits; only the double sums that sinks keep change order.
#include <immintrin.h>

#include <cstdint>

#include "core/float3_lanes.h"
#include "core/intrinsics.h"
#include "multi/compact_frame.h"
#include "multi/projective_association.h"
#include "multi/target_records.h"

namespace kestor {

// One kept element: the moved point, the target vertex and normal (zero without normals), their
// difference p - q, the target pixel's gray (coloured records only) and flat index.
struct MatchOne {
    float p[3];
    Float3 q, n;
    float d[3];
    float gray;
    int target;
};

// Eight elements; the members mean something only in the lanes set in `ok`.
struct MatchLanes {
    __m256 ok;
    Lanes3 p, q, n, d;
    __m256 gray;
    __m256i target;
};

inline __m256 nonZeroLanes(const Lanes3& n) {
    return _mm256_or_ps(_mm256_or_ps(nonZero(n.x), nonZero(n.y)), nonZero(n.z));
}

inline bool anyLane(__m256 mask) { return _mm256_movemask_ps(mask) != 0; }

// Associates source elements [begin, end): targets[e] receives the target pixel of element e, or
// -1, and every kept element goes to sink.lanes(e, MatchLanes) (eight from e, `ok` marking the
// kept ones) or sink.single(e, MatchOne). Returns the count kept.
template <typename Sink>
int associateCompact(const CompactFrame& source, const TargetRecords& target, const Intrinsics& k,
                     const RT_<float>& T, const ProjectiveTest& test, int begin, int end,
                     int32_t* targets, Sink& sink) {
    const int width = target.width;
    const float fw = float(width), fh = float(target.height);
    const bool normals = test.useNormals;
    int kept = 0;
    int e = begin;
    {
        const __m256 zero = _mm256_setzero_ps(), half = _mm256_set1_ps(0.5f);
        const __m256 fx = _mm256_set1_ps(k.fx), fy = _mm256_set1_ps(k.fy);
        const __m256 cx = _mm256_set1_ps(k.cx), cy = _mm256_set1_ps(k.cy);
        const __m256 wLimit = _mm256_set1_ps(fw), hLimit = _mm256_set1_ps(fh);
        const __m256 distLimit = _mm256_set1_ps(test.maxDistanceSq);
        const __m256 cosLimit = _mm256_set1_ps(test.cosMaxAngle);
        const __m256i none = _mm256_set1_epi32(-1), widthLanes = _mm256_set1_epi32(width);
        // Target pixel minus source pixel of the last kept element: where the elements some
        // groups ahead will land, to fetch their records early.
        int shift = 0;
        constexpr int kAhead = 64;
        for (; e + 8 <= end; e += 8) {
            if (e + kAhead < end) prefetchRecords(target, source.pixels[size_t(e + kAhead)] + shift);
            MatchLanes m;
            m.p = transformLanes(T, source.points.lanes(size_t(e)));
            const __m256 u = _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(fx, m.p.x), m.p.z), cx);
            const __m256 v = _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(fy, m.p.y), m.p.z), cy);
            const __m256 su = _mm256_add_ps(u, half), sv = _mm256_add_ps(v, half);
            __m256 ok = _mm256_and_ps(
                _mm256_and_ps(_mm256_cmp_ps(u, zero, _CMP_GE_OQ), _mm256_cmp_ps(v, zero, _CMP_GE_OQ)),
                _mm256_and_ps(_mm256_cmp_ps(su, wLimit, _CMP_LT_OQ),
                              _mm256_cmp_ps(sv, hLimit, _CMP_LT_OQ)));
            int32_t* out = targets + e;
            if (!anyLane(ok)) {
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), none);
                continue;
            }
            const __m256i tc = _mm256_cvttps_epi32(su), tr = _mm256_cvttps_epi32(sv);
            m.target = _mm256_add_epi32(_mm256_mullo_epi32(tr, widthLanes), tc);
            __m256 c[8];
            loadRecords(target, m.target, _mm256_castps_si256(ok), c);
            m.q = Lanes3{c[0], c[1], c[2]};
            m.n = Lanes3{c[3], c[4], c[5]};
            m.gray = c[6];
            ok = _mm256_and_ps(ok, _mm256_cmp_ps(m.q.z, zero, _CMP_GT_OQ));
            if (normals) ok = _mm256_and_ps(ok, nonZeroLanes(m.n));
            m.d = differenceLanes(m.p, m.q);
            ok = _mm256_and_ps(ok, _mm256_cmp_ps(dotLanes(m.d, m.d), distLimit, _CMP_LT_OQ));
            if (normals) {
                const Lanes3 r = rotateLanes(T, source.normals.lanes(size_t(e)));
                ok = _mm256_and_ps(ok, _mm256_cmp_ps(dotLanes(m.n, r), cosLimit, _CMP_GT_OQ));
            }
            m.ok = ok;
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out),
                                _mm256_castps_si256(_mm256_blendv_ps(
                                    _mm256_castsi256_ps(none), _mm256_castsi256_ps(m.target), ok)));
            const int bits = _mm256_movemask_ps(ok);
            if (bits == 0) continue;
            const int lane = __builtin_ctz(unsigned(bits));
            alignas(32) int32_t pixels[8];
            _mm256_store_si256(reinterpret_cast<__m256i*>(pixels), m.target);
            shift = pixels[lane] - source.pixels[size_t(e + lane)];
            kept += __builtin_popcount(unsigned(bits));
            sink.lanes(e, m);
        }
    }
    for (; e < end; ++e) {
        targets[e] = -1;
        MatchOne m;
        const Float3 point = source.points[size_t(e)];
        transformPoint(T, &point.x, m.p);
        const float u = k.fx * m.p[0] / m.p[2] + k.cx;
        const float v = k.fy * m.p[1] / m.p[2] + k.cy;
        // Written so that NaN and values past the image fail before any conversion.
        if (!(u >= 0.0f) || !(v >= 0.0f) || !(u + 0.5f < fw) || !(v + 0.5f < fh)) continue;
        m.target = int(v + 0.5f) * width + int(u + 0.5f);
        const float* record = target.at(m.target);
        m.q = Float3{record[0], record[1], record[2]};
        if (!(m.q.z > 0.0f)) continue;
        m.n = Float3{record[3], record[4], record[5]};
        if (normals && isZero(m.n)) continue;
        m.gray = target.stride > 6 ? record[6] : 0.0f;
        m.d[0] = m.p[0] - m.q.x;
        m.d[1] = m.p[1] - m.q.y;
        m.d[2] = m.p[2] - m.q.z;
        if (!(m.d[0] * m.d[0] + m.d[1] * m.d[1] + m.d[2] * m.d[2] < test.maxDistanceSq)) continue;
        if (normals) {
            float r[3];
            const Float3 normal = source.normals[size_t(e)];
            rotateVector(T.rotation, &normal.x, r);
            if (!(m.n.x * r[0] + m.n.y * r[1] + m.n.z * r[2] > test.cosMaxAngle)) continue;
        }
        targets[e] = m.target;
        ++kept;
        sink.single(e, m);
    }
    return kept;
}

}  // namespace kestor
