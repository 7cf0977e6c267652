#include "pair/point_set_math.h"

#include <algorithm>

namespace kestor {

RT_<float> invertPoseFloat(const RT_<float>& T) {
    RT_<float> r;
    invertRT(T, r);
    return r;
}

void clearLinearization(PointLinearization& out) {
    std::fill(out.hessianTT, out.hessianTT + 36, 0.0);
    std::fill(out.hessianTS, out.hessianTS + 36, 0.0);
    std::fill(out.hessianSS, out.hessianSS + 36, 0.0);
    std::fill(out.gradientT, out.gradientT + 6, 0.0);
    std::fill(out.gradientS, out.gradientS + 6, 0.0);
    out.score = 0.0;
}

void mirrorLinearization(PointLinearization& out) {
    for (int i = 0; i < 6; ++i) {
        for (int j = 0; j < i; ++j) {
            out.hessianTT[i * 6 + j] = out.hessianTT[j * 6 + i];
            // Kept symmetric on purpose, although the true cross block is not.
            out.hessianTS[i * 6 + j] = out.hessianTS[j * 6 + i];
            out.hessianSS[i * 6 + j] = out.hessianSS[j * 6 + i];
        }
    }
}

}  // namespace kestor
