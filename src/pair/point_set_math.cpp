#include "pair/point_set_math.h"

#include <algorithm>

namespace kestor {

RT_<float> invertPoseFloat(const RT_<float>& T) {
    const float* m = T.rotation;
    float c[9];
    c[0] = m[4] * m[8] - m[5] * m[7];
    c[1] = m[2] * m[7] - m[1] * m[8];
    c[2] = m[1] * m[5] - m[2] * m[4];
    c[3] = m[5] * m[6] - m[3] * m[8];
    c[4] = m[0] * m[8] - m[2] * m[6];
    c[5] = m[2] * m[3] - m[0] * m[5];
    c[6] = m[3] * m[7] - m[4] * m[6];
    c[7] = m[1] * m[6] - m[0] * m[7];
    c[8] = m[0] * m[4] - m[1] * m[3];
    const float det = m[0] * c[0] + m[1] * c[3] + m[2] * c[6];
    RT_<float> r;
    for (int i = 0; i < 9; ++i) r.rotation[i] = c[i] / det;
    float t[3];
    rotatePoint(r.rotation, T.translation, t);
    for (int i = 0; i < 3; ++i) r.translation[i] = -t[i];
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
