#include "core/rigid_transform.h"

#include "core/float3_lanes.h"
#include "core/fused_rows.h"

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

bool isIdentityRotation(const RT_<float>& rt) {
    const float* r = rt.rotation;
    return r[0] == 1.0f && r[1] == 0.0f && r[2] == 0.0f && r[3] == 0.0f && r[4] == 1.0f &&
           r[5] == 0.0f && r[6] == 0.0f && r[7] == 0.0f && r[8] == 1.0f;
}

// out = R in (+ t), eight elements a round in registers, the tail one by one.
template <bool Translate>
void moveBulk(const RT_<float>& rt, const Float3* in, Float3* out, int count) {
    const float* r = rt.rotation;
    const float t0 = Translate ? rt.translation[0] : 0.0f;
    const float t1 = Translate ? rt.translation[1] : 0.0f;
    const float t2 = Translate ? rt.translation[2] : 0.0f;
    __m256 R[9];
    broadcastRotation(r, R);
    const __m256 T0 = _mm256_set1_ps(t0), T1 = _mm256_set1_ps(t1), T2 = _mm256_set1_ps(t2);
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        const Lanes3 p = loadLanes(in + i);
        storeLanes(out + i, Lanes3{fusedRow(R, 0, p.x, p.y, p.z, T0), fusedRow(R, 1, p.x, p.y, p.z, T1),
                                   fusedRow(R, 2, p.x, p.y, p.z, T2)});
    }
    for (; i < count; ++i) {
        const Float3 p = in[i];
        out[i] = Float3{fusedRow(r, 0, p.x, p.y, p.z, t0), fusedRow(r, 1, p.x, p.y, p.z, t1),
                        fusedRow(r, 2, p.x, p.y, p.z, t2)};
    }
}

}  // namespace

RT_<float> poseToFloat(const ImageView<double>& pose) { return poseFromPacked<float>(pose.data); }
RT_<double> poseToDouble(const ImageView<double>& pose) { return poseFromPacked<double>(pose.data); }

void poseFromFloat(const RT_<float>& rt, const ImageView<double>& pose) { writePose(rt, pose); }
void poseFromDouble(const RT_<double>& rt, const ImageView<double>& pose) { writePose(rt, pose); }

void transformPoints(const RT_<float>& rt, const float* in, float* out, int count) {
    for (int i = 0; i < count; ++i) transformPoint(rt, in + 3 * i, out + 3 * i);
}

void rotateNormals(const RT_<float>& rt, const float* in, float* out, int count) {
    for (int i = 0; i < count; ++i) rotateVector(rt.rotation, in + 3 * i, out + 3 * i);
}

void transformPoints(const RT_<float>& pose, const Float3* in, Float3* out, int count) {
    const float* t = pose.translation;
    if (in == out && isIdentityRotation(pose) && t[0] == 0.0f && t[1] == 0.0f && t[2] == 0.0f)
        return;
    moveBulk<true>(pose, in, out, count);
}

void rotateNormals(const RT_<float>& pose, const Float3* in, Float3* out, int count) {
    if (in == out && isIdentityRotation(pose)) return;
    moveBulk<false>(pose, in, out, count);
}

}  // namespace kestor
