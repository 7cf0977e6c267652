#include "multi/colored_rows.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "multi/normal_equations.h"

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

void ResidualStatsSlot::add(const PairRows& rows) {
    for (size_t e = 0; e < rows.matches.size(); ++e) {
        const double rg = rows.geometricResiduals[e], rc = rows.photometricResiduals[e];
        sumSquaresGeometric += rg * rg;
        sumSquaresPhotometric += rc * rc;
        sumGeometric += rg;
        sumPhotometric += rc;
    }
    count += int32_t(rows.matches.size());
}

void ColoredScales::update(const std::vector<ResidualStatsSlot>& slots, double colorWeight) {
    ResidualStatsSlot total;
    for (const ResidualStatsSlot& s : slots) {
        total.sumSquaresGeometric += s.sumSquaresGeometric;
        total.sumSquaresPhotometric += s.sumSquaresPhotometric;
        total.sumGeometric += s.sumGeometric;
        total.sumPhotometric += s.sumPhotometric;
        total.count += s.count;
    }
    const double c = double(total.count);
    meanGeometric = total.sumGeometric / c;
    meanPhotometric = total.sumPhotometric / c;
    const double devG =
        std::sqrt(total.sumSquaresGeometric / c - meanGeometric * meanGeometric) + 1e-6;
    const double devC =
        std::sqrt(total.sumSquaresPhotometric / c - meanPhotometric * meanPhotometric) + 1e-6;
    // One root more than the deviation: a residual ends up divided by the deviation's root.
    const double scaleG = std::sqrt(devG), scaleC = std::sqrt(devC);
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
    NormalEquations<6> sums;
    double error = 0.0;
    for (size_t e = 0; e < rows.matches.size(); ++e) {
        float jg[6], jc[6];
        for (int a = 0; a < 6; ++a) {
            jg[a] = wg * rows.geometricRows[6 * e + size_t(a)];
            jc[a] = wc * rows.photometricRows[6 * e + size_t(a)];
        }
        const float rg = (rows.geometricResiduals[e] - meanG) * wg;
        const float rc = (rows.photometricResiduals[e] - meanC) * wc;
        sums.add(jg, rg);
        sums.add(jc, rc);
        error += double(rg) * double(rg) + double(rc) * double(rc);
    }
    sums.mirror();
    fillOneSided(sums, hessianII, hessianIJ, hessianJJ, gradientI, gradientJ);
    return error;
}

}  // namespace kestor
