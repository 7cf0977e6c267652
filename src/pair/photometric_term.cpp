#include "pair/photometric_term.h"

#include <algorithm>
#include <cmath>

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
    for (int i = begin; i < end; ++i) {
        const size_t j = size_t(i);
        if (!pairs.matchFlags[j]) continue;
        const Float3& p = movedPoints[i];
        const Float3& n = pairs.pairNormals[j];
        const float x = p.x, y = p.y, z = p.z;

        const float wg = s.weightG;
        const float Jg[6] = {wg * (y * n.z - z * n.y), wg * (z * n.x - x * n.z),
                             wg * (x * n.y - y * n.x), wg * n.x, wg * n.y, wg * n.z};
        const float eg = centredResidual(pairs.residualG[j], s.meanG, wg);
        addRow(ne, Jg, eg);
        ne.errorSum += double(eg) * double(eg);

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
        addRow(ne, Jc, ec);
        ne.errorSum += double(ec) * double(ec);
        ne.matchCount += 1;
    }
}

double coloredTrialError(const Intrinsics& k, const PairArrays& pairs, const Float3* movedPoints,
                         const float* sourceGray, const RT_<float>& delta,
                         const PhotometricScale& sc, int begin, int end) {
    double sum = 0.0;
    for (int i = begin; i < end; ++i) {
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
