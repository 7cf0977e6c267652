#pragma once
#include <cmath>

#include "core/rigid_transform.h"

namespace kestor {

// Small 3-vector arithmetic for the key-point fits, in the precision of T. Rotations and their
// products come from core/rigid_transform.h.
template <typename T>
struct Vec3 {
    T x, y, z;
};

template <typename T>
inline Vec3<T> loadVec3(const float* p) {
    return Vec3<T>{T(p[0]), T(p[1]), T(p[2])};
}
template <typename T>
inline Vec3<T> operator+(Vec3<T> a, Vec3<T> b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
template <typename T>
inline Vec3<T> operator-(Vec3<T> a, Vec3<T> b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
template <typename T>
inline Vec3<T> operator*(T s, Vec3<T> a) {
    return {s * a.x, s * a.y, s * a.z};
}
template <typename T>
inline T dot(Vec3<T> a, Vec3<T> b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
template <typename T>
inline Vec3<T> cross(Vec3<T> a, Vec3<T> b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
// Unit vector of a; a zero vector stays zero.
template <typename T>
inline Vec3<T> normalized(Vec3<T> a) {
    const T n = std::sqrt(dot(a, a));
    return n > T(0) ? (T(1) / n) * a : a;
}
// M * a for a row-major 3x3 M, summed as rotateVector sums it.
template <typename T>
inline Vec3<T> rotate(const T* M, Vec3<T> a) {
    const T in[3] = {a.x, a.y, a.z};
    T out[3];
    rotateVector(M, in, out);
    return {out[0], out[1], out[2]};
}

}  // namespace kestor
