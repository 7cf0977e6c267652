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

}  // namespace kestor
