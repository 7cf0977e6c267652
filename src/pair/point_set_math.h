#pragma once
// Small float geometry shared by the point-set linearisations and trial errors.
#include <cmath>

#include "core/rigid_transform.h"
#include "pair/point_set_registration.h"

namespace kestor {

inline float dot3(const float* a, const float* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

inline void cross3(const float* a, const float* b, float* out) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

// The row (dir . R(ex x p), dir . R(ey x p), dir . R(ez x p), R^T dir): how a residual
// dir . (R p + ...) answers a correction applied to p before R.
inline void rotatedPointRow(const float* R, const float* p, const float* dir, float* row) {
    row[0] = dir[0] * (p[1] * R[2] - p[2] * R[1]) + dir[1] * (p[1] * R[5] - p[2] * R[4]) +
             dir[2] * (p[1] * R[8] - p[2] * R[7]);
    row[1] = dir[0] * (p[2] * R[0] - p[0] * R[2]) + dir[1] * (p[2] * R[3] - p[0] * R[5]) +
             dir[2] * (p[2] * R[6] - p[0] * R[8]);
    row[2] = dir[0] * (p[0] * R[1] - p[1] * R[0]) + dir[1] * (p[0] * R[4] - p[1] * R[3]) +
             dir[2] * (p[0] * R[7] - p[1] * R[6]);
    row[3] = R[0] * dir[0] + R[3] * dir[1] + R[6] * dir[2];
    row[4] = R[1] * dir[0] + R[4] * dir[1] + R[7] * dir[2];
    row[5] = R[2] * dir[0] + R[5] * dir[1] + R[8] * dir[2];
}

// The row (dir x p', -dir): a residual dir . (p' - q) against a correction of the target.
inline void movedPointRow(const float* dir, const float* moved, float* row) {
    cross3(dir, moved, row);
    row[3] = -dir[0];
    row[4] = -dir[1];
    row[5] = -dir[2];
}

// Moves a source point by the pose and finds its nearest target point strictly within the
// radius: the target position, or -1.
inline int32_t nearestTarget(const PointIndex& index, const RT_<float>& T, const float* p,
                             float radiusSq, float* moved) {
    transformPoint(T, p, moved);
    return index.nearestWithin(moved, radiusSq);
}

// The photometric residual of a moved source point against its target partner: the point is
// projected on the tangent plane at q and the intensity is carried there by the gradient.
inline float photometricResidual(const float* moved, float rg, const float* q, const float* n,
                                 const float* g, float targetIntensity, float sourceIntensity) {
    const float x[3] = {moved[0] - rg * n[0], moved[1] - rg * n[1], moved[2] - rg * n[2]};
    const float dx[3] = {x[0] - q[0], x[1] - q[1], x[2] - q[2]};
    return dot3(dx, g) + targetIntensity - sourceIntensity;
}

// Clears the sums of a linearisation (not its correspondences).
void clearLinearization(PointLinearization& out);

// Adds one residual with its target-side and source-side rows to the upper triangles and the
// gradients, products in double.
inline void addResidualRows(PointLinearization& out, const float* jt, const float* js, float r) {
    for (int i = 0; i < 6; ++i) {
        const double ti = jt[i], si = js[i];
        for (int j = i; j < 6; ++j) {
            out.hessianTT[i * 6 + j] += ti * double(jt[j]);
            out.hessianTS[i * 6 + j] += ti * double(js[j]);
            out.hessianSS[i * 6 + j] += si * double(js[j]);
        }
        out.gradientT[i] += double(r) * ti;
        out.gradientS[i] += double(r) * si;
    }
}

// Completes the three blocks from their upper triangles.
void mirrorLinearization(PointLinearization& out);

// Within range of the target arrays: the trial errors skip anything else.
inline bool validCorrespondence(int32_t c, int targetCount) { return c >= 0 && c < targetCount; }

}  // namespace kestor
