#include "multi/colored_rows.h"

#include <limits>

namespace kestor {

void PairRows::clear() {
    matches.clear();
    sums = ColoredSums{};
}

void PairRows::add(int32_t source, int32_t target, float rg, const float* geometricRow, float rc,
                   const float* photometricRow) {
    matches.emplace_back(source, target);
    sums.add(geometricRow, rg, photometricRow, rc);
}

double pairRowsHessian(const PairRows& rows, const ColoredScales& scales, PairBlock& hessianII,
                       PairBlock& hessianIJ, PairBlock& hessianJJ, PairVector& gradientI,
                       PairVector& gradientJ) {
    if (rows.empty()) return std::numeric_limits<double>::quiet_NaN();
    return rows.sums.blocks(scales, hessianII, hessianIJ, hessianJJ, gradientI, gradientJ);
}

}  // namespace kestor
