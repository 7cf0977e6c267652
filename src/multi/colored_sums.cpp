#include "multi/colored_sums.h"

#include <algorithm>
#include <cmath>

namespace kestor {

namespace {

constexpr int kResidual = 6;  // the residual's place in a row of seven

// One kind's sum of squared centred and weighted residuals.
double centredSquares(const RowSums<7>& s, int count, double mean, double weight) {
    return weight * weight *
           (s.at(kResidual, kResidual) - 2.0 * mean * s.gradient[kResidual] + double(count) * mean * mean);
}

// One kind's part: J J^T and r J into `rows`, returning the sum of squared residuals.
double addCentred(const RowSums<7>& s, int count, double mean, double weight, RowSums<6>& rows) {
    const double w2 = weight * weight;
    for (int a = 0; a < 6; ++a) {
        for (int b = a; b < 6; ++b) rows.hessian[a * 6 + b] += w2 * s.at(a, b);
        rows.gradient[a] += w2 * (s.at(a, kResidual) - mean * s.gradient[a]);
    }
    return centredSquares(s, count, mean, weight);
}

}  // namespace

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

void ColoredSums::add(const float* geometricRow, float rg, const float* photometricRow, float rc) {
    float row[7];
    for (int a = 0; a < 6; ++a) row[a] = geometricRow[a];
    row[kResidual] = rg;
    geometric.add(row, 1.0f);
    for (int a = 0; a < 6; ++a) row[a] = photometricRow[a];
    row[kResidual] = rc;
    photometric.add(row, 1.0f);
    ++kept;
}

ColoredSums& ColoredSums::operator+=(const ColoredSums& o) {
    geometric += o.geometric;
    photometric += o.photometric;
    kept += o.kept;
    return *this;
}

ResidualStats ColoredSums::stats() const {
    return ResidualStats{geometric.at(kResidual, kResidual), photometric.at(kResidual, kResidual),
                         geometric.gradient[kResidual], photometric.gradient[kResidual], kept};
}

double ColoredSums::weightedRows(const ColoredScales& scales, RowSums<6>& rows) const {
    const double g = addCentred(geometric, kept, scales.meanGeometric, scales.weightGeometric, rows);
    const double c = addCentred(photometric, kept, scales.meanPhotometric, scales.weightPhotometric, rows);
    return g + c;
}

double ColoredSums::blocks(const ColoredScales& scales, PairBlock& hessianII, PairBlock& hessianIJ,
                           PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ) const {
    RowSums<6> rows;
    const double error = weightedRows(scales, rows);
    rows.mirror();
    fillOneSided(rows, hessianII, hessianIJ, hessianJJ, gradientI, gradientJ);
    return error;
}

double ColoredSums::photometricError(const ColoredScales& scales) const {
    return centredSquares(photometric, kept, scales.meanPhotometric, scales.weightPhotometric);
}

}  // namespace kestor
