#include "multi/pair_pose.h"

namespace kestor {

RT_<float> relativePoseInFloat(const RT_<double>& poseI, const RT_<double>& poseJ) {
    const RT_<float> a = castRT<float>(poseI), b = castRT<float>(poseJ);
    RT_<float> inverse, relative;
    invertRT(a, inverse);
    composeRT(inverse, b, relative);
    return relative;
}

}  // namespace kestor
