#include "pair/point_set_math.h"

#include <algorithm>

#include "core/normal_rows.h"

namespace kestor {

void clearLinearization(PointLinearization& out) {
    std::fill(out.hessianTT, out.hessianTT + 36, 0.0);
    std::fill(out.hessianTS, out.hessianTS + 36, 0.0);
    std::fill(out.hessianSS, out.hessianSS + 36, 0.0);
    std::fill(out.gradientT, out.gradientT + 6, 0.0);
    std::fill(out.gradientS, out.gradientS + 6, 0.0);
    out.score = 0.0;
}

void mirrorLinearization(PointLinearization& out) {
    mirrorUpper<6>(out.hessianTT);
    // Kept symmetric on purpose, although the true cross block is not.
    mirrorUpper<6>(out.hessianTS);
    mirrorUpper<6>(out.hessianSS);
}

}  // namespace kestor
