#pragma once
#include "core/rigid_transform.h"

namespace kestor {

// poseI^-1 poseJ, which carries frame j into frame i: composed in double, used in float.
inline RT_<float> relativePose(const RT_<double>& poseI, const RT_<double>& poseJ) {
    RT_<double> inverse, relative;
    invertRT(poseI, inverse);
    composeRT(inverse, poseJ, relative);
    return castRT<float>(relative);
}

// The same composed in float from float copies of the two poses, the inverse by cofactors.
RT_<float> relativePoseInFloat(const RT_<double>& poseI, const RT_<double>& poseJ);

inline void applyRT(const RT_<float>& t, const float* p, float* out) {
    const float* r = t.rotation;
    out[0] = r[0] * p[0] + r[1] * p[1] + r[2] * p[2] + t.translation[0];
    out[1] = r[3] * p[0] + r[4] * p[1] + r[5] * p[2] + t.translation[1];
    out[2] = r[6] * p[0] + r[7] * p[1] + r[8] * p[2] + t.translation[2];
}

inline void applyRotation(const RT_<float>& t, const float* v, float* out) {
    const float* r = t.rotation;
    out[0] = r[0] * v[0] + r[1] * v[1] + r[2] * v[2];
    out[1] = r[3] * v[0] + r[4] * v[1] + r[5] * v[2];
    out[2] = r[6] * v[0] + r[7] * v[1] + r[8] * v[2];
}

}  // namespace kestor
