#include "keypoint/triangle_alignment.h"

#include <cmath>

#include "keypoint/vec3.h"

namespace kestor {

void rodriguesRotation(const double w[3], float rotation[9]) {
    const double a = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
    double A = 1.0, B = 0.5;
    if (!(a < 1e-7)) {
        A = std::sin(a) / a;
        B = (1.0 - std::cos(a)) / (a * a);
    }
    const double K[9] = {0, -w[2], w[1], w[2], 0, -w[0], -w[1], w[0], 0};
    double K2[9];
    multiplyRotations(K, K, K2);
    for (int i = 0; i < 9; ++i)
        rotation[i] = float((i % 4 == 0 ? 1.0 : 0.0) + A * K[i] + B * K2[i]);
}

namespace {

// Rotation about a unit axis by an angle, through the rotation vector axis * angle.
void rotationAbout(Vec3<float> axis, float angle, float rotation[9]) {
    const Vec3<float> w = angle * axis;
    const double v[3] = {w.x, w.y, w.z};
    rodriguesRotation(v, rotation);
}

}  // namespace

RT_<float> alignTriangles(const float* s0, const float* s1, const float* s2, const float* t0,
                          const float* t1, const float* t2) {
    using V = Vec3<float>;
    const V s[3] = {loadVec3<float>(s0), loadVec3<float>(s1), loadVec3<float>(s2)};
    const V t[3] = {loadVec3<float>(t0), loadVec3<float>(t1), loadVec3<float>(t2)};
    const float third = 1.0f / 3.0f;
    const V cs = third * (s[0] + s[1] + s[2]);
    const V ct = third * (t[0] + t[1] + t[2]);
    const V ns = normalized(cross(s[1] - s[0], s[2] - s[0]));
    const V nt = normalized(cross(t[1] - t[0], t[2] - t[0]));

    // R1 carries ns onto nt; R2 carries nt onto the z axis. acos is not clamped: a dot product
    // just above 1 gives NaN, and such a hypothesis then finds no inliers.
    float R1[9], R2[9];
    rotationAbout(normalized(cross(ns, nt)), std::acos(dot(ns, nt)), R1);
    rotationAbout(normalized(V{nt.y, -nt.x, 0.0f}), std::acos(nt.z), R2);
    float R21[9];
    multiplyRotations(R2, R1, R21);

    // Both triangles in the plane z = 0 of the target's frame.
    float ux[3], uy[3], mx[3], my[3];
    for (int k = 0; k < 3; ++k) {
        const V u = rotate(R2, t[k] - ct);
        const V m = rotate(R21, s[k] - cs);
        ux[k] = u.x;
        uy[k] = u.y;
        mx[k] = m.x;
        my[k] = m.y;
    }
    float theta = std::atan2(uy[0], ux[0]) - std::atan2(my[0], mx[0]);
    for (int step = 0; step < 3; ++step) {
        const float c = std::cos(theta), sn = std::sin(theta);
        float num = 0, den = 0;
        for (int k = 0; k < 3; ++k) {
            const float wx = c * mx[k] - sn * my[k];
            const float wy = sn * mx[k] + c * my[k];
            const float ex = wx - ux[k], ey = wy - uy[k];
            const float dx = -wy, dy = wx;
            num += ex * dx + ey * dy;
            den += dx * dx + dy * dy;
        }
        theta -= num / den;
    }

    float R3[9];
    rotationAbout(nt, theta, R3);
    RT_<float> rt;
    multiplyRotations(R3, R1, rt.rotation);
    const V rc = rotate(rt.rotation, cs);
    rt.translation[0] = ct.x - rc.x;
    rt.translation[1] = ct.y - rc.y;
    rt.translation[2] = ct.z - rc.z;
    return rt;
}

}  // namespace kestor
