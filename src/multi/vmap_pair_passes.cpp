// Association passes of one frame pair: what each mode makes of a kept element, in lanes and
// one by one. Rows go through RowBlock, which sums them in double four rows at a time.
#include "multi/vmap_pair_passes.h"

#include "core/row_block.h"
#include "multi/kept_targets.h"

namespace kestor {

namespace {

inline __m256 negated(__m256 v) { return _mm256_xor_ps(v, _mm256_set1_ps(-0.0f)); }

// (a x b, b) in lanes, as crossRow forms it.
inline void crossLanes(const Lanes3& a, const Lanes3& b, __m256 ok, __m256* row) {
    row[0] = zeroOutside(_mm256_sub_ps(_mm256_mul_ps(a.y, b.z), _mm256_mul_ps(a.z, b.y)), ok);
    row[1] = zeroOutside(_mm256_sub_ps(_mm256_mul_ps(a.z, b.x), _mm256_mul_ps(a.x, b.z)), ok);
    row[2] = zeroOutside(_mm256_sub_ps(_mm256_mul_ps(a.x, b.y), _mm256_mul_ps(a.y, b.x)), ok);
    row[3] = zeroOutside(b.x, ok);
    row[4] = zeroOutside(b.y, ok);
    row[5] = zeroOutside(b.z, ok);
}

template <int N>
struct RowSink {
    RowSums<N>& sums;
    double& error;
    RowBlock<N> block;

    void push8(const __m256* row, __m256 residual) {
        block.push8(row, residual, sums.hessian, sums.gradient, &error);
    }
    void push(const float* row, float residual) {
        block.push(row, residual, sums.hessian, sums.gradient, &error);
    }
    void finish() { block.flush(sums.hessian, sums.gradient, &error); }
};

// Three rows of 12 a match: the target's correction, then the source's, both in the target frame.
struct PointSink : RowSink<12> {
    void lanes(int, const MatchLanes& m) {
        const __m256 ok = m.ok, z = _mm256_setzero_ps();
        const __m256 one = _mm256_and_ps(ok, _mm256_set1_ps(1.0f)), minus = negated(one);
        const Lanes3 p{zeroOutside(m.p.x, ok), zeroOutside(m.p.y, ok), zeroOutside(m.p.z, ok)};
        const Lanes3 q{zeroOutside(m.q.x, ok), zeroOutside(m.q.y, ok), zeroOutside(m.q.z, ok)};
        const __m256 x[12] = {z, negated(q.z), q.y, minus, z, z, z, p.z, negated(p.y), one, z, z};
        const __m256 y[12] = {q.z, z, negated(q.x), z, minus, z, negated(p.z), z, p.x, z, one, z};
        const __m256 w[12] = {negated(q.y), q.x, z, z, z, minus, p.y, negated(p.x), z, z, z, one};
        push8(x, zeroOutside(m.d.x, ok));
        push8(y, zeroOutside(m.d.y, ok));
        push8(w, zeroOutside(m.d.z, ok));
    }
    void single(int, const MatchOne& m) {
        const float* p = m.p;
        const Float3& q = m.q;
        const float rows[3][12] = {{0, -q.z, q.y, -1, 0, 0, 0, p[2], -p[1], 1, 0, 0},
                                   {q.z, 0, -q.x, 0, -1, 0, -p[2], 0, p[0], 0, 1, 0},
                                   {-q.y, q.x, 0, 0, 0, -1, p[1], -p[0], 0, 0, 0, 1}};
        for (int a = 0; a < 3; ++a) push(rows[a], m.d[a]);
    }
};

struct PlaneSink : RowSink<6> {
    void lanes(int, const MatchLanes& m) {
        __m256 row[6];
        crossLanes(m.p, m.n, m.ok, row);
        push8(row, zeroOutside(dotLanes(m.d, m.n), m.ok));
    }
    void single(int, const MatchOne& m) {
        float row[6];
        crossRow(m.p, &m.n.x, row);
        push(row, m.d[0] * m.n.x + m.d[1] * m.n.y + m.d[2] * m.n.z);
    }
};

// Target gray at the matched pixel minus the source's own.
struct ColoredReads {
    const CompactFrame& source;
    const TargetRecords& target;

    __m256 photometric(int e, const MatchLanes& m) const {
        return _mm256_sub_ps(m.gray, _mm256_loadu_ps(&source.gray[size_t(e)]));
    }
    float photometric(int e, const MatchOne& m) const { return m.gray - source.gray[size_t(e)]; }
};

// Each kept element adds, per residual kind, its unweighted row followed by its residual, with
// weight one: the 7 x 7 sums then hold everything the centred and weighted rows need.
struct ColoredSumsSink {
    ColoredReads reads;
    const Intrinsics& k;
    ColoredSums& sums;
    RowBlock<7, true> geometric, photometric;

    void lanes(int e, const MatchLanes& m) {
        const __m256 ok = m.ok;
        // The target's gradients are read at the source element's own pixel.
        const __m256i pixels =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&reads.source.pixels[size_t(e)]));
        __m256 gx, gy;
        // Eight source elements in a row of the image are eight neighbouring pixels: one load.
        const int first = reads.source.pixels[size_t(e)];
        const __m256i run = _mm256_add_epi32(_mm256_set1_epi32(first), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        if (_mm256_movemask_epi8(_mm256_cmpeq_epi32(pixels, run)) == -1) {
            gx = _mm256_loadu_ps(&reads.target.gradX[size_t(first)]);
            gy = _mm256_loadu_ps(&reads.target.gradY[size_t(first)]);
        } else {
            const __m256 zero = _mm256_setzero_ps();
            gx = _mm256_mask_i32gather_ps(zero, reads.target.gradX.data(), pixels, ok, 4);
            gy = _mm256_mask_i32gather_ps(zero, reads.target.gradY.data(), pixels, ok, 4);
        }
        const Lanes3& p = m.p;
        const __m256 fx = _mm256_set1_ps(k.fx), fy = _mm256_set1_ps(k.fy);
        const Lanes3 d{_mm256_div_ps(_mm256_mul_ps(gx, fx), p.z),
                       _mm256_div_ps(_mm256_mul_ps(gy, fy), p.z),
                       _mm256_div_ps(negated(_mm256_add_ps(_mm256_mul_ps(_mm256_mul_ps(p.y, gy), fy),
                                                           _mm256_mul_ps(_mm256_mul_ps(p.x, gx), fx))),
                                     _mm256_mul_ps(p.z, p.z))};
        // Lanes left out are zero rows, which add nothing to any sum.
        __m256 row[7];
        crossLanes(p, m.n, ok, row);
        row[6] = zeroOutside(dotLanes(m.d, m.n), ok);
        geometric.push8(row, sums.geometric.hessian, sums.geometric.gradient);
        crossLanes(p, d, ok, row);
        row[6] = zeroOutside(reads.photometric(e, m), ok);
        photometric.push8(row, sums.photometric.hessian, sums.photometric.gradient);
    }
    void single(int e, const MatchOne& m) {
        const float* p = m.p;
        const int s = reads.source.pixels[size_t(e)];
        const float gx = reads.target.gradX[size_t(s)], gy = reads.target.gradY[size_t(s)];
        const float d[3] = {gx * k.fx / p[2], gy * k.fy / p[2],
                            -(p[1] * gy * k.fy + p[0] * gx * k.fx) / (p[2] * p[2])};
        float row[7];
        crossRow(p, &m.n.x, row);
        row[6] = m.d[0] * m.n.x + m.d[1] * m.n.y + m.d[2] * m.n.z;
        geometric.push(row, sums.geometric.hessian, sums.geometric.gradient);
        crossRow(p, d, row);
        row[6] = reads.photometric(e, m);
        photometric.push(row, sums.photometric.hessian, sums.photometric.gradient);
    }
    void finish() {
        geometric.flush(sums.geometric.hessian, sums.geometric.gradient, nullptr);
        photometric.flush(sums.photometric.hessian, sums.photometric.gradient, nullptr);
    }
};

}  // namespace

int pointRowsPass(const CompactFrame& source, const TargetRecords& target, const Intrinsics& k,
                  const RT_<float>& T, const ProjectiveTest& test, int begin, int end,
                  int32_t* targets, RowSums<12>& sums, double& error) {
    PointSink sink{{sums, error, {}}};
    const int kept = associateCompact(source, target, k, T, test, begin, end, targets, sink);
    sink.finish();
    return kept;
}

int planeRowsPass(const CompactFrame& source, const TargetRecords& target, const Intrinsics& k,
                  const RT_<float>& T, const ProjectiveTest& test, int begin, int end,
                  int32_t* targets, RowSums<6>& sums, double& error) {
    PlaneSink sink{{sums, error, {}}};
    const int kept = associateCompact(source, target, k, T, test, begin, end, targets, sink);
    sink.finish();
    return kept;
}

int coloredSumsPass(const CompactFrame& source, const TargetRecords& target, const Intrinsics& k,
                    const RT_<float>& T, const ProjectiveTest& test, int begin, int end,
                    int32_t* targets, ColoredSums& sums) {
    ColoredSumsSink sink{ColoredReads{source, target}, k, sums, {}, {}};
    const int kept = associateCompact(source, target, k, T, test, begin, end, targets, sink);
    sink.finish();
    sums.kept += kept;
    return kept;
}

}  // namespace kestor
