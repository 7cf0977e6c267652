#pragma once
#include <cmath>

namespace kestor {

// Small 3-vector arithmetic for the key-point fits, in the precision of T.
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
// M * a for a row-major 3x3 M.
template <typename T>
inline Vec3<T> rotate(const T* M, Vec3<T> a) {
    return {M[0] * a.x + M[1] * a.y + M[2] * a.z, M[3] * a.x + M[4] * a.y + M[5] * a.z,
            M[6] * a.x + M[7] * a.y + M[8] * a.z};
}
// Row-major 3x3 product out = A * B; out may not alias.
template <typename T>
inline void multiply3x3(const T* A, const T* B, T* out) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            out[i * 3 + j] = A[i * 3] * B[j] + A[i * 3 + 1] * B[3 + j] + A[i * 3 + 2] * B[6 + j];
}

}  // namespace kestor
