#pragma once
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

// out = a after b: R = Ra Rb, t = Ra tb + ta. out may alias a or b.
template <typename T>
void composeRT(const RT_<T>& a, const RT_<T>& b, RT_<T>& out) {
    RT_<T> r;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            r.rotation[i * 3 + j] = a.rotation[i * 3 + 0] * b.rotation[0 * 3 + j] +
                                    a.rotation[i * 3 + 1] * b.rotation[1 * 3 + j] +
                                    a.rotation[i * 3 + 2] * b.rotation[2 * 3 + j];
        }
        r.translation[i] = a.rotation[i * 3 + 0] * b.translation[0] +
                           a.rotation[i * 3 + 1] * b.translation[1] +
                           a.rotation[i * 3 + 2] * b.translation[2] + a.translation[i];
    }
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
    for (int i = 0; i < 3; ++i) {
        r.translation[i] = -(r.rotation[i * 3 + 0] * a.translation[0] +
                             r.rotation[i * 3 + 1] * a.translation[1] +
                             r.rotation[i * 3 + 2] * a.translation[2]);
    }
    out = r;
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

}  // namespace kestor
