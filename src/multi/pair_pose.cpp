#include "multi/pair_pose.h"

namespace kestor {

RT_<float> relativePoseInFloat(const RT_<double>& poseI, const RT_<double>& poseJ) {
    const RT_<float> a = castRT<float>(poseI), b = castRT<float>(poseJ);
    const float* m = a.rotation;
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
    RT_<float> inverse;
    for (int e = 0; e < 9; ++e) inverse.rotation[e] = c[e] / det;
    float minusT[3];
    applyRotation(inverse, a.translation, minusT);
    for (int e = 0; e < 3; ++e) inverse.translation[e] = -minusT[e];
    RT_<float> relative;
    composeRT(inverse, b, relative);
    return relative;
}

}  // namespace kestor
