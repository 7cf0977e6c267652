#pragma once
// Walks the source elements an association kept, by their stored target pixels, with each kept
// element moved by a given pose and met with its target record again: the passes that reuse an
// association (trial errors, the coloured rows) run on this instead of associating anew.
#include <immintrin.h>

#include <cstdint>

#include "multi/vmap_association.h"

namespace kestor {

// Elements [begin, end) of `source` whose targets[e] is not -1, moved by T: inLanes(e, m) for
// eight from e (m.ok marking the kept ones), then one(e, m) for each remaining kept element.
// The MatchLanes and MatchOne hold p, q, n, d = p - q, gray and the target pixel.
template <typename Lanes, typename One>
void forKept(const CompactFrame& source, const TargetRecords& target, const RT_<float>& T,
             const int32_t* targets, int begin, int end, Lanes&& inLanes, One&& one) {
    int e = begin;
    constexpr int kAhead = 64;
    for (; e + 8 <= end; e += 8) {
        if (e + kAhead < end && targets[e + kAhead] >= 0) prefetchRecords(target, targets[e + kAhead]);
        MatchLanes m;
        m.target = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(targets + e));
        const __m256i keep = _mm256_cmpgt_epi32(m.target, _mm256_set1_epi32(-1));
        m.ok = _mm256_castsi256_ps(keep);
        if (!anyLane(m.ok)) continue;
        __m256 c[8];
        loadRecords(target, m.target, keep, c);
        m.q = Lanes3{c[0], c[1], c[2]};
        m.n = Lanes3{c[3], c[4], c[5]};
        m.gray = c[6];
        m.p = transformLanes(T, source.points.lanes(size_t(e)));
        m.d = differenceLanes(m.p, m.q);
        inLanes(e, m);
    }
    for (; e < end; ++e) {
        if (targets[e] < 0) continue;
        MatchOne m;
        m.target = targets[e];
        const float* record = target.at(m.target);
        m.q = Float3{record[0], record[1], record[2]};
        m.n = Float3{record[3], record[4], record[5]};
        m.gray = target.stride > 6 ? record[6] : 0.0f;
        const Float3 point = source.points[size_t(e)];
        transformPoint(T, &point.x, m.p);
        m.d[0] = m.p[0] - m.q.x;
        m.d[1] = m.p[1] - m.q.y;
        m.d[2] = m.p[2] - m.q.z;
        one(e, m);
    }
}

}  // namespace kestor
