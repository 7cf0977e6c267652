#include "multi/colored_sums.h"

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

double ColoredSums::photometricError(const ColoredScales& scales) const {
    return centredSquares(photometric, kept, scales.meanPhotometric, scales.weightPhotometric);
}

}  // namespace kestor
