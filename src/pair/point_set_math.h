#pragma once
// Small float geometry shared by the point-set linearisations and trial errors.
#include <immintrin.h>

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
// gradients, products in double. Each product of two floats is exact in double, so a fused
// multiply-add rounds as a product and a sum did; whole rows are summed four entries at a time,
// and the lower triangles, summed along, are replaced by the mirror of the upper ones at the end.
inline void addResidualRows(PointLinearization& out, const float* jt, const float* js, float r) {
    const __m256d t03 = _mm256_cvtps_pd(_mm_loadu_ps(jt));
    const __m256d s03 = _mm256_cvtps_pd(_mm_loadu_ps(js));
    const __m128d t45 = _mm_setr_pd(double(jt[4]), double(jt[5]));
    const __m128d s45 = _mm_setr_pd(double(js[4]), double(js[5]));
    const auto addRow = [](double* row, __m256d f, __m256d lo, __m128d hi) {
        _mm256_storeu_pd(row, _mm256_fmadd_pd(f, lo, _mm256_loadu_pd(row)));
        _mm_storeu_pd(row + 4, _mm_fmadd_pd(_mm256_castpd256_pd128(f), hi, _mm_loadu_pd(row + 4)));
    };
    for (int i = 0; i < 6; ++i) {
        const __m256d ti = _mm256_set1_pd(double(jt[i])), si = _mm256_set1_pd(double(js[i]));
        addRow(out.hessianTT + 6 * i, ti, t03, t45);
        addRow(out.hessianTS + 6 * i, ti, s03, s45);
        addRow(out.hessianSS + 6 * i, si, s03, s45);
    }
    const __m256d rr = _mm256_set1_pd(double(r));
    addRow(out.gradientT, rr, t03, t45);
    addRow(out.gradientS, rr, s03, s45);
}

// Completes the three blocks from their upper triangles.
void mirrorLinearization(PointLinearization& out);

// Within range of the target arrays: the trial errors skip anything else.
inline bool validCorrespondence(int32_t c, int targetCount) { return c >= 0 && c < targetCount; }

}  // namespace kestor
