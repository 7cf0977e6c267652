#include "image/eigen_sym3.h"

#include <cmath>
#include <utility>

namespace kestor {

namespace {

struct V3 {
    float x, y, z;
};

V3 cross(const V3& a, const V3& b) {
    return V3{a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
float dot(const V3& a, const V3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
V3 scaled(const V3& a, float s) { return V3{a.x * s, a.y * s, a.z * s}; }
V3 normalised(const V3& a) { return scaled(a, 1.0f / std::sqrt(dot(a, a))); }

// Rows of M - lambda I.
struct Shifted {
    V3 row[3];
    Shifted(const float* m, float lambda)
        : row{{m[0] - lambda, m[1], m[2]}, {m[1], m[4] - lambda, m[5]}, {m[2], m[5], m[8] - lambda}} {}
    V3 times(const V3& v) const { return V3{dot(row[0], v), dot(row[1], v), dot(row[2], v)}; }
};

// The null direction of M - lambda I for the largest eigenvalue: the longest cross product of
// two of its rows. Pairs 0-1 and 0-2 win ties; 1-2 must be strictly longer.
V3 firstVector(const Shifted& a) {
    V3 best = cross(a.row[0], a.row[1]);
    float bestLength = dot(best, best);
    const V3 c02 = cross(a.row[0], a.row[2]);
    if (dot(c02, c02) > bestLength) {
        best = c02;
        bestLength = dot(c02, c02);
    }
    const V3 c12 = cross(a.row[1], a.row[2]);
    if (dot(c12, c12) > bestLength) best = c12;
    return normalised(best);
}

// The second eigenvector, found in the plane perpendicular to e0 as the null direction of the
// 2x2 restriction of M - lambda I.
V3 secondVector(const Shifted& a, const V3& e0) {
    V3 u;
    if (std::fabs(e0.x) > std::fabs(e0.y))
        u = scaled(V3{-e0.z, 0.0f, e0.x}, 1.0f / std::sqrt(e0.x * e0.x + e0.z * e0.z));
    else
        u = scaled(V3{0.0f, e0.z, -e0.y}, 1.0f / std::sqrt(e0.y * e0.y + e0.z * e0.z));
    const V3 v = cross(e0, u);
    const V3 au = a.times(u), av = a.times(v);
    const float m00 = dot(u, au), m01 = dot(u, av), m11 = dot(v, av);
    const bool useFirstRow = std::fabs(m00) >= std::fabs(m11);
    const float m = useFirstRow ? m00 : m11;
    if (m == 0.0f && m01 == 0.0f) return u;

    // (p, q) of unit length with p m00 = q m01 and p m01 = q m11, from the equation of the
    // larger diagonal entry, dividing by whichever of m and m01 is larger in size. Which of p
    // and q the ratio scales depends on both that choice and the row used.
    const bool byM = std::fabs(m) >= std::fabs(m01);
    const float ratio = byM ? m01 / m : m / m01;
    const float s = 1.0f / std::sqrt(1.0f + ratio * ratio);
    float p, q;
    if (useFirstRow == byM) {
        q = s;
        p = ratio * s;
    } else {
        p = s;
        q = ratio * s;
    }
    return V3{p * u.x - q * v.x, p * u.y - q * v.y, p * u.z - q * v.z};
}

}  // namespace

void eigenSym3(const float m[9], float values[3], float vectors[9]) {
    const float a = m[0], b = m[1], c = m[2], d = m[4], e = m[5], f = m[8];
    const float t = a + d + f;
    const float s = a * d + a * f + d * f - b * b - c * c - e * e;
    const float g = (t * t - 3.0f * s) / 3.0f;
    const float r = std::sqrt(g / 3.0f);
    const float h = a * (d * f - e * e) - b * (b * f - e * c) + c * (b * e - d * c);
    const float w =
        std::acos(((27.0f * h + 2.0f * t * t * t - 9.0f * t * s) / 27.0f * 3.0f) / (2.0f * g * r)) /
        3.0f;
    const float third = t / 3.0f;
    float l[3] = {2.0f * r * std::cos(w) + third, 2.0f * r * std::cos(w + 2.0943952f) + third,
                  -2.0f * r * (std::cos(w) + std::cos(w + 2.0943952f)) + third};

    // Falling absolute value, strict comparisons.
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2 - i; ++j)
            if (std::fabs(l[j + 1]) > std::fabs(l[j])) std::swap(l[j], l[j + 1]);

    const V3 e0 = firstVector(Shifted(m, l[0]));
    const V3 e1 = secondVector(Shifted(m, l[1]), e0);
    const V3 e2 = normalised(cross(e0, e1));
    const V3 rows[3] = {e0, e1, e2};
    for (int i = 0; i < 3; ++i) {
        values[i] = l[i];
        vectors[i * 3 + 0] = rows[i].x;
        vectors[i * 3 + 1] = rows[i].y;
        vectors[i * 3 + 2] = rows[i].z;
    }
}

}  // namespace kestor
