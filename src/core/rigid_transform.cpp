#include "core/rigid_transform.h"

namespace kestor {

namespace {

template <typename T>
RT_<T> poseFromPacked(const double* p) {
    RT_<T> rt;
    for (int row = 0; row < 3; ++row) {
        for (int col = 0; col < 3; ++col) rt.rotation[row * 3 + col] = T(p[row * 4 + col]);
        rt.translation[row] = T(p[row * 4 + 3]);
    }
    return rt;
}

template <typename T>
void writePose(const RT_<T>& rt, const ImageView<double>& pose) {
    for (int row = 0; row < 3; ++row) {
        double* out = rowOf(pose, row);
        for (int col = 0; col < 3; ++col) out[col] = double(rt.rotation[row * 3 + col]);
        out[3] = double(rt.translation[row]);
    }
}

}  // namespace

RT_<float> poseToFloat(const ImageView<double>& pose) { return poseFromPacked<float>(pose.data); }
RT_<double> poseToDouble(const ImageView<double>& pose) { return poseFromPacked<double>(pose.data); }

void poseFromFloat(const RT_<float>& rt, const ImageView<double>& pose) { writePose(rt, pose); }
void poseFromDouble(const RT_<double>& rt, const ImageView<double>& pose) { writePose(rt, pose); }

}  // namespace kestor
