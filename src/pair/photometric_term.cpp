#include "pair/photometric_term.h"

#include <algorithm>
#include <cmath>

#include "core/row_block.h"
#include "core/float3_lanes.h"

namespace kestor {

ColorBalance colorBalance(double colorWeight) {
    const double c = std::min(std::max(colorWeight, 0.0), 1.0);
    return ColorBalance{float(std::sqrt(c)), float(std::sqrt(1.0 - c))};
}

PhotometricScale photometricScale(const ResidualStats& total, const ColorBalance& balance) {
    const double n = double(total.count);
    const ResidualSpread g = residualSpread(total.sumG, total.sumSquaresG, n);
    const ResidualSpread c = residualSpread(total.sumC, total.sumSquaresC, n);
    PhotometricScale s;
    s.meanG = float(g.mean);
    s.meanC = float(c.mean);
    s.weightG = balance.b / float(g.deviation);
    s.weightC = balance.a / float(c.deviation);
    return s;
}

void addColoredRows(const Intrinsics& k, const PairArrays& pairs, const Float3* movedPoints,
                    const PhotometricScale& s, int begin, int end, NormalEquations& ne) {
    RowBlock<6> block;
    int i = begin;
    const __m256 wg = _mm256_set1_ps(s.weightG), wc = _mm256_set1_ps(s.weightC);
    const __m256 meanG = _mm256_set1_ps(s.meanG), meanC = _mm256_set1_ps(s.meanC);
    const __m256 fx = _mm256_set1_ps(k.fx), fy = _mm256_set1_ps(k.fy);
    for (; i + 8 <= end; i += 8) {
        const size_t j = size_t(i);
        const __m256 in = flagLanes(&pairs.matchFlags[j]);
        if (_mm256_movemask_ps(in) == 0) continue;
        const Lanes3 p = loadLanes(movedPoints + i);
        const Lanes3 n = loadLanes(&pairs.pairNormals[j]);
        const __m256 x = p.x, y = p.y, z = p.z;
        auto mul = [](__m256 a, __m256 b) { return _mm256_mul_ps(a, b); };
        auto sub = [](__m256 a, __m256 b) { return _mm256_sub_ps(a, b); };
        auto add = [](__m256 a, __m256 b) { return _mm256_add_ps(a, b); };
        auto div = [](__m256 a, __m256 b) { return _mm256_div_ps(a, b); };
        auto kept = [&](__m256 v) { return zeroOutside(v, in); };

        const __m256 Jg[6] = {kept(mul(wg, sub(mul(y, n.z), mul(z, n.y)))),
                              kept(mul(wg, sub(mul(z, n.x), mul(x, n.z)))),
                              kept(mul(wg, sub(mul(x, n.y), mul(y, n.x)))),
                              kept(mul(wg, n.x)), kept(mul(wg, n.y)), kept(mul(wg, n.z))};
        const __m256 eg = kept(mul(sub(_mm256_loadu_ps(&pairs.residualG[j]), meanG), wg));
        block.push8(Jg, eg, ne.hessian, ne.gradient, &ne.errorSum);

        const __m256 A = mul(_mm256_loadu_ps(&pairs.pairGradX[j]), fx);
        const __m256 B = mul(_mm256_loadu_ps(&pairs.pairGradY[j]), fy);
        const __m256 z2 = mul(z, z);
        const __m256 minusX = sub(_mm256_setzero_ps(), x);
        const __m256 Jc[6] = {
            kept(mul(wc, sub(sub(div(mul(mul(minusX, y), A), z2), B), div(mul(mul(y, y), B), z2)))),
            kept(mul(wc, add(add(div(mul(mul(x, x), A), z2), A), div(mul(mul(x, y), B), z2)))),
            kept(mul(wc, sub(div(mul(B, x), z), div(mul(A, y), z)))),
            kept(mul(wc, div(A, z))),
            kept(mul(wc, div(B, z))),
            kept(mul(wc, sub(div(mul(minusX, A), z2), div(mul(y, B), z2))))};
        const __m256 ec = kept(mul(sub(_mm256_loadu_ps(&pairs.residualC[j]), meanC), wc));
        block.push8(Jc, ec, ne.hessian, ne.gradient, &ne.errorSum);
        ne.matchCount += __builtin_popcount(unsigned(_mm256_movemask_ps(in)));
    }
    for (; i < end; ++i) {
        const size_t j = size_t(i);
        if (!pairs.matchFlags[j]) continue;
        const Float3& p = movedPoints[i];
        const Float3& n = pairs.pairNormals[j];
        const float x = p.x, y = p.y, z = p.z;

        const float wg = s.weightG;
        const float Jg[6] = {wg * (y * n.z - z * n.y), wg * (z * n.x - x * n.z),
                             wg * (x * n.y - y * n.x), wg * n.x, wg * n.y, wg * n.z};
        const float eg = centredResidual(pairs.residualG[j], s.meanG, wg);
        block.push(Jg, eg, ne.hessian, ne.gradient, &ne.errorSum);

        // Derivative of the target image along a move of the point: (p x g, g) with
        // g = (A / z, B / z, -(A x + B y) / z^2).
        const float A = pairs.pairGradX[j] * k.fx, B = pairs.pairGradY[j] * k.fy;
        const float z2 = z * z;
        const float wc = s.weightC;
        const float Jc[6] = {wc * (-x * y * A / z2 - B - y * y * B / z2),
                             wc * (x * x * A / z2 + A + x * y * B / z2),
                             wc * (B * x / z - A * y / z),
                             wc * (A / z),
                             wc * (B / z),
                             wc * (-x * A / z2 - y * B / z2)};
        const float ec = centredResidual(pairs.residualC[j], s.meanC, wc);
        block.push(Jc, ec, ne.hessian, ne.gradient, &ne.errorSum);
        ne.matchCount += 1;
    }
    block.flush(ne.hessian, ne.gradient, &ne.errorSum);
}

double coloredTrialError(const Intrinsics& k, const PairArrays& pairs, const Float3* movedPoints,
                         const float* sourceGray, const RT_<float>& delta,
                         const PhotometricScale& sc, int begin, int end) {
    double sum = 0.0;
    int i = begin;
    __m256d laneSums = _mm256_setzero_pd();
    for (; i + 8 <= end; i += 8) {
        const size_t j = size_t(i);
        const __m256 in = flagLanes(&pairs.matchFlags[j]);
        if (_mm256_movemask_ps(in) == 0) continue;
        const Lanes3 p = loadLanes(movedPoints + i);
        const Lanes3 s = transformLanes(delta, p);
        const Lanes3 q = loadLanes(&pairs.pairPoints[j]);
        const Lanes3 n = loadLanes(&pairs.pairNormals[j]);
        const __m256 rg = dotLanes(differenceLanes(s, q), n);
        const __m256 eg = _mm256_mul_ps(_mm256_sub_ps(rg, _mm256_set1_ps(sc.meanG)),
                                        _mm256_set1_ps(sc.weightG));
        auto project = [](__m256 a, float f, __m256 zz, float c) {
            return _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(_mm256_set1_ps(f), a), zz),
                                 _mm256_set1_ps(c));
        };
        // The association's pixel from this iteration's point (p.z > 0 for every flagged entry).
        const __m256 iu = roundHalfAwayNonNegative(project(p.x, k.fx, p.z, k.cx));
        const __m256 iv = roundHalfAwayNonNegative(project(p.y, k.fy, p.z, k.cy));
        const __m256 su = _mm256_add_ps(
            _mm256_div_ps(_mm256_mul_ps(s.x, _mm256_set1_ps(k.fx)), s.z), _mm256_set1_ps(k.cx));
        const __m256 sv = _mm256_add_ps(
            _mm256_div_ps(_mm256_mul_ps(s.y, _mm256_set1_ps(k.fy)), s.z), _mm256_set1_ps(k.cy));
        const __m256 rc = _mm256_sub_ps(
            _mm256_add_ps(_mm256_add_ps(_mm256_loadu_ps(&pairs.pairGray[j]),
                                        _mm256_mul_ps(_mm256_sub_ps(su, iu),
                                                      _mm256_loadu_ps(&pairs.pairGradX[j]))),
                          _mm256_mul_ps(_mm256_sub_ps(sv, iv), _mm256_loadu_ps(&pairs.pairGradY[j]))),
            _mm256_loadu_ps(sourceGray + i));
        const __m256 ec = _mm256_mul_ps(_mm256_sub_ps(rc, _mm256_set1_ps(sc.meanC)),
                                        _mm256_set1_ps(sc.weightC));
        const __m256 egIn = zeroOutside(eg, in), ecIn = zeroOutside(ec, in);
        for (int half = 0; half < 2; ++half) {
            const __m256d g = _mm256_cvtps_pd(half ? _mm256_extractf128_ps(egIn, 1) : _mm256_castps256_ps128(egIn));
            const __m256d c = _mm256_cvtps_pd(half ? _mm256_extractf128_ps(ecIn, 1) : _mm256_castps256_ps128(ecIn));
            laneSums = _mm256_add_pd(laneSums, _mm256_add_pd(_mm256_mul_pd(g, g), _mm256_mul_pd(c, c)));
        }
    }
    double lanes[4];
    _mm256_storeu_pd(lanes, laneSums);
    sum += (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
    for (; i < end; ++i) {
        const size_t j = size_t(i);
        if (!pairs.matchFlags[j]) continue;
        const Float3& p = movedPoints[i];
        const Float3 s = transformPoint(delta, p);
        const Float3& q = pairs.pairPoints[j];
        const Float3& n = pairs.pairNormals[j];
        const float rg = (s.x - q.x) * n.x + (s.y - q.y) * n.y + (s.z - q.z) * n.z;
        const float eg = centredResidual(rg, sc.meanG, sc.weightG);
        // The pixel of the association, from the point as it was moved this iteration.
        const float iu = std::round((k.fx * p.x) / p.z + k.cx);
        const float iv = std::round((k.fy * p.y) / p.z + k.cy);
        const float rc = pairs.pairGray[j] + ((s.x * k.fx) / s.z + k.cx - iu) * pairs.pairGradX[j] +
                         ((s.y * k.fy) / s.z + k.cy - iv) * pairs.pairGradY[j] - sourceGray[i];
        const float ec = centredResidual(rc, sc.meanC, sc.weightC);
        sum += double(eg) * double(eg) + double(ec) * double(ec);
    }
    return sum;
}

}  // namespace kestor
