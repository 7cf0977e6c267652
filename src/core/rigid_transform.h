#pragma once
// Rigid transforms and the small geometry built on them: the one place where points are moved,
// normals rotated and poses composed, in scalar form and in bulk.
#include <cmath>

#include "core/image_view.h"

namespace kestor {

// Rigid transform p' = R p + t: nine rotation values row by row, then the translation.
template <typename T>
struct RT_ {
    T rotation[9];
    T translation[3];

    static RT_ identity() { return RT_{{1, 0, 0, 0, 1, 0, 0, 0, 1}, {0, 0, 0}}; }
};

// Row-major 3x3 product out = A B, each entry summed left to right. out may not alias A or B.
template <typename T>
void multiplyRotations(const T* A, const T* B, T* out) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            out[i * 3 + j] = A[i * 3] * B[j] + A[i * 3 + 1] * B[3 + j] + A[i * 3 + 2] * B[6 + j];
}

// out = R v for a row-major 3x3 R (a normal or a direction: no translation). Each component is
// summed left to right in T, with no fused multiply-add, so every caller gets the same bits.
// out may be v.
template <typename T>
inline void rotateVector(const T* R, const T* v, T* out) {
    const T x = v[0], y = v[1], z = v[2];
    out[0] = R[0] * x + R[1] * y + R[2] * z;
    out[1] = R[3] * x + R[4] * y + R[5] * z;
    out[2] = R[6] * x + R[7] * y + R[8] * z;
}

// out = R p + t: R p as rotateVector sums it, then t added. out may be p.
template <typename T>
inline void transformPoint(const RT_<T>& rt, const T* p, T* out) {
    rotateVector(rt.rotation, p, out);
    out[0] += rt.translation[0];
    out[1] += rt.translation[1];
    out[2] += rt.translation[2];
}

// The same two on map elements.
inline Float3 rotateVector(const RT_<float>& rt, const Float3& v) {
    const float in[3] = {v.x, v.y, v.z};
    float out[3];
    rotateVector(rt.rotation, in, out);
    return Float3{out[0], out[1], out[2]};
}
inline Float3 transformPoint(const RT_<float>& rt, const Float3& p) {
    const float in[3] = {p.x, p.y, p.z};
    float out[3];
    transformPoint(rt, in, out);
    return Float3{out[0], out[1], out[2]};
}

// out = a after b: R = Ra Rb, t = Ra tb + ta. out may alias a or b.
template <typename T>
void composeRT(const RT_<T>& a, const RT_<T>& b, RT_<T>& out) {
    RT_<T> r;
    multiplyRotations(a.rotation, b.rotation, r.rotation);
    transformPoint(a, b.translation, r.translation);
    out = r;
}

// True inverse: the rotation block is inverted by cofactors, not transposed, so a drifted
// rotation is still undone exactly; t' = -(R' t). A singular block gives infinities. out may
// alias a.
template <typename T>
void invertRT(const RT_<T>& a, RT_<T>& out) {
    const T* m = a.rotation;
    T c[9];
    c[0] = m[4] * m[8] - m[5] * m[7];
    c[1] = m[2] * m[7] - m[1] * m[8];
    c[2] = m[1] * m[5] - m[2] * m[4];
    c[3] = m[5] * m[6] - m[3] * m[8];
    c[4] = m[0] * m[8] - m[2] * m[6];
    c[5] = m[2] * m[3] - m[0] * m[5];
    c[6] = m[3] * m[7] - m[4] * m[6];
    c[7] = m[1] * m[6] - m[0] * m[7];
    c[8] = m[0] * m[4] - m[1] * m[3];
    const T det = m[0] * c[0] + m[1] * c[3] + m[2] * c[6];
    RT_<T> r;
    for (int i = 0; i < 9; ++i) r.rotation[i] = c[i] / det;
    rotateVector(r.rotation, a.translation, r.translation);
    for (int i = 0; i < 3; ++i) r.translation[i] = -r.translation[i];
    out = r;
}

// Value forms of the two above, for expressions: a after b, and the inverse of a.
template <typename T>
RT_<T> compose(const RT_<T>& a, const RT_<T>& b) {
    RT_<T> r;
    composeRT(a, b, r);
    return r;
}

template <typename T>
RT_<T> inverseOf(const RT_<T>& a) {
    RT_<T> r;
    invertRT(a, r);
    return r;
}

// The same transform in another precision, element by element.
template <typename To, typename From>
RT_<To> castRT(const RT_<From>& a) {
    RT_<To> r;
    for (int e = 0; e < 9; ++e) r.rotation[e] = To(a.rotation[e]);
    for (int e = 0; e < 3; ++e) r.translation[e] = To(a.translation[e]);
    return r;
}

// Rz(c) Ry(b) Rx(a), angles taken in full.
template <typename T>
void eulerToRotation(T a, T b, T c, T* rotation) {
    using std::cos;
    using std::sin;
    const T sa = sin(a), ca = cos(a), sb = sin(b), cb = cos(b), sc = sin(c), cc = cos(c);
    rotation[0] = cb * cc;
    rotation[1] = sa * sb * cc - ca * sc;
    rotation[2] = ca * sb * cc + sa * sc;
    rotation[3] = cb * sc;
    rotation[4] = sa * sb * sc + ca * cc;
    rotation[5] = ca * sb * sc - sa * cc;
    rotation[6] = -sb;
    rotation[7] = sa * cb;
    rotation[8] = ca * cb;
}

// Interface pose (12 doubles, row-major 3x4) to a float transform. The twelve values are read as
// one packed run whatever the view's stride says.
RT_<float> poseToFloat(const ImageView<double>& pose);
RT_<double> poseToDouble(const ImageView<double>& pose);

// Transform to an interface pose, row by row through the view's stride.
void poseFromFloat(const RT_<float>& rt, const ImageView<double>& pose);
void poseFromDouble(const RT_<double>& rt, const ImageView<double>& pose);

// Bulk forms over `count` entries; `out` may be `in`, and normals are not renormalised.
//
// On packed 3-float arrays: out = R p + t and out = R n, entry by entry exactly as
// transformPoint and rotateVector sum them.
void transformPoints(const RT_<float>& rt, const float* in, float* out, int count);
void rotateNormals(const RT_<float>& rt, const float* in, float* out, int count);

// On map elements, eight at a time in vector registers: each component is
// R0 x + (R1 y + (R2 z + t)), one fused multiply-add a step, and the tail is summed the same
// way with std::fma, so these differ in the last bits from the forms above. With an exact
// identity (rotation, plus translation for points) and in == out they do nothing.
void transformPoints(const RT_<float>& pose, const Float3* in, Float3* out, int count);
void rotateNormals(const RT_<float>& pose, const Float3* in, Float3* out, int count);

}  // namespace kestor
