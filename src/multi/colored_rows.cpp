#include "multi/colored_rows.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "multi/row_sums.h"

namespace kestor {

void PairRows::clear() {
    geometricResiduals.clear();
    photometricResiduals.clear();
    matches.clear();
    geometricRows.clear();
    photometricRows.clear();
}

void PairRows::add(int32_t source, int32_t target, float rg, const float* geometricRow, float rc,
                   const float* photometricRow) {
    geometricResiduals.push_back(rg);
    photometricResiduals.push_back(rc);
    matches.emplace_back(source, target);
    geometricRows.insert(geometricRows.end(), geometricRow, geometricRow + 6);
    photometricRows.insert(photometricRows.end(), photometricRow, photometricRow + 6);
}

void addRowStats(ResidualStats& stats, const PairRows& rows) {
    for (size_t e = 0; e < rows.matches.size(); ++e) {
        const double rg = rows.geometricResiduals[e], rc = rows.photometricResiduals[e];
        stats.sumSquaresG += rg * rg;
        stats.sumSquaresC += rc * rc;
        stats.sumG += rg;
        stats.sumC += rc;
    }
    stats.count += int32_t(rows.matches.size());
}

void ColoredScales::update(const std::vector<ResidualStats>& slots, double colorWeight) {
    ResidualStats total{};
    for (const ResidualStats& s : slots) addStats(total, s);
    const double c = double(total.count);
    const ResidualSpread g = residualSpread(total.sumG, total.sumSquaresG, c);
    const ResidualSpread p = residualSpread(total.sumC, total.sumSquaresC, c);
    meanGeometric = g.mean;
    meanPhotometric = p.mean;
    // One root more than the deviation: a residual ends up divided by the deviation's root.
    const double scaleG = std::sqrt(g.deviation), scaleC = std::sqrt(p.deviation);
    const double c0 = std::min(1.0, std::max(0.0, colorWeight));
    weightGeometric = std::sqrt(1.0 - c0) / scaleG;
    weightPhotometric = std::sqrt(c0) / scaleC;
}

double pairRowsHessian(const PairRows& rows, const ColoredScales& scales, PairBlock& hessianII,
                       PairBlock& hessianIJ, PairBlock& hessianJJ, PairVector& gradientI,
                       PairVector& gradientJ) {
    if (rows.empty()) return std::numeric_limits<double>::quiet_NaN();
    const float wg = float(scales.weightGeometric), wc = float(scales.weightPhotometric);
    const float meanG = float(scales.meanGeometric), meanC = float(scales.meanPhotometric);
    RowSums<6> sums;
    double error = 0.0;
    for (size_t e = 0; e < rows.matches.size(); ++e) {
        float jg[6], jc[6];
        for (int a = 0; a < 6; ++a) {
            jg[a] = wg * rows.geometricRows[6 * e + size_t(a)];
            jc[a] = wc * rows.photometricRows[6 * e + size_t(a)];
        }
        const float rg = centredResidual(rows.geometricResiduals[e], meanG, wg);
        const float rc = centredResidual(rows.photometricResiduals[e], meanC, wc);
        sums.add(jg, rg);
        sums.add(jc, rc);
        error += double(rg) * double(rg) + double(rc) * double(rc);
    }
    sums.mirror();
    fillOneSided(sums, hessianII, hessianIJ, hessianJJ, gradientI, gradientJ);
    return error;
}

}  // namespace kestor
