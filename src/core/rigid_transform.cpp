#include "core/rigid_transform.h"

namespace kestor {

void invertRT(const RT_<double>& a, RT_<double>& out) {
    const double* m = a.rotation;
    double c[9];
    c[0] = m[4] * m[8] - m[5] * m[7];
    c[1] = m[2] * m[7] - m[1] * m[8];
    c[2] = m[1] * m[5] - m[2] * m[4];
    c[3] = m[5] * m[6] - m[3] * m[8];
    c[4] = m[0] * m[8] - m[2] * m[6];
    c[5] = m[2] * m[3] - m[0] * m[5];
    c[6] = m[3] * m[7] - m[4] * m[6];
    c[7] = m[1] * m[6] - m[0] * m[7];
    c[8] = m[0] * m[4] - m[1] * m[3];
    const double det = m[0] * c[0] + m[1] * c[3] + m[2] * c[6];
    RT_<double> r;
    for (int i = 0; i < 9; ++i) r.rotation[i] = c[i] / det;
    for (int i = 0; i < 3; ++i) {
        r.translation[i] = -(r.rotation[i * 3 + 0] * a.translation[0] +
                             r.rotation[i * 3 + 1] * a.translation[1] +
                             r.rotation[i * 3 + 2] * a.translation[2]);
    }
    out = r;
}

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
