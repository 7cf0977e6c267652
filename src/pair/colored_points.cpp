// Coloured point-set residuals: a geometric term against the target's tangent plane and a
// photometric term from the target's intensity gradient, both robustly weighted by their spread.
#include <algorithm>
#include <cmath>

#include "core/parallel_for.h"
#include "pair/point_set_math.h"
#include "pair/point_set_solver.h"

namespace kestor {

double linearizeColoredPoints(const PointIndex& index, const float* targetNormals,
                              const float* targetIntensities, const float* targetGradients,
                              const float* sourcePoints, const float* sourceNormals,
                              const float* sourceIntensities, int sourceCount,
                              const RT_<float>& pose, double maxDistance, double maxAngle,
                              double colorWeight, PointLinearization& out, ColoredWeights& weights,
                              bool parallel, std::vector<ResidualRows>* scratch) {
    clearLinearization(out);
    const float radiusSq = float(maxDistance * maxDistance);
    const float cosMaxAngle = float(std::cos(maxAngle));
    const float* R = pose.rotation;
    const float* targets = index.points();
    const size_t count = size_t(sourceCount > 0 ? sourceCount : 0);
    std::vector<ResidualRows> own;
    if (scratch == nullptr) scratch = &own;
    if (scratch->size() < count) scratch->resize(count);
    // Per matched source point: the geometric (0) and photometric (1) residual and rows.
    ResidualRows* rows = scratch->data();
    weights.geometric.assign(count, 0.0f);
    weights.photometric.assign(count, 0.0f);

    // First pass: residuals and rows, point by point.
    runLoop(parallel, 0, int(count), [&](int begin, int end, int) {
        for (size_t i = size_t(begin); i < size_t(end); ++i) {
            const float* p = sourcePoints + 3 * i;
            float moved[3];
            int32_t c = nearestTarget(index, pose, p, radiusSq, moved);
            if (c >= 0) {
                float movedNormal[3];
                rotateVector(R, sourceNormals + 3 * i, movedNormal);
                if (!(dot3(targetNormals + 3 * size_t(c), movedNormal) > cosMaxAngle)) c = -1;
            }
            out.correspondences[i] = c;
            if (c < 0) continue;
            const float* q = targets + 3 * size_t(c);
            const float* n = targetNormals + 3 * size_t(c);
            const float* g = targetGradients + 3 * size_t(c);
            ResidualRows& row = rows[i];

            const float d1[3] = {moved[0] - q[0], moved[1] - q[1], moved[2] - q[2]};
            row.r[0] = dot3(d1, n);
            rotatedPointRow(R, p, n, row.js[0]);
            movedPointRow(n, moved, row.jt[0]);

            row.r[1] = photometricResidual(moved, row.r[0], q, n, g, targetIntensities[c],
                                           sourceIntensities[i]);
            const float gn = dot3(g, n);
            const float d[3] = {g[0] - gn * n[0], g[1] - gn * n[1], g[2] - gn * n[2]};
            rotatedPointRow(R, p, d, row.js[1]);
            // The first entry takes R[1][1] in its third term where the pattern has R[2][1]; the
            // system has always been solved with this term, so it stays.
            row.js[1][0] = d[0] * (p[1] * R[2] - p[2] * R[1]) + d[1] * (p[1] * R[5] - p[2] * R[4]) +
                           d[2] * (p[1] * R[8] - p[2] * R[4]);
            movedPointRow(d, moved, row.jt[1]);
        }
    });
    double sumG = 0.0, sumC = 0.0;
    int matched = 0;
    for (size_t i = 0; i < count; ++i) {
        if (out.correspondences[i] < 0) continue;
        ++matched;
        sumG += rows[i].r[0];
        sumC += rows[i].r[1];
    }

    // The scales of both residual kinds, and the balance between them.
    const double meanG = sumG / matched, meanC = sumC / matched;
    double varG = 0.0, varC = 0.0;
    for (size_t i = 0; i < count; ++i) {
        if (out.correspondences[i] < 0) continue;
        varG += (rows[i].r[0] - meanG) * (rows[i].r[0] - meanG);
        varC += (rows[i].r[1] - meanC) * (rows[i].r[1] - meanC);
    }
    double sg = std::sqrt(varG / matched), sc = std::sqrt(varC / matched);
    if (!(sg > 1e-5 && sc > 1e-5)) sg = sc = 1.0;
    const double balance = std::min(1.0, std::max(0.0, colorWeight));
    const double a = std::sqrt(balance);
    const float wg0 = float(std::sqrt(1.0 - a));
    const float wc0 = float(std::min(1.0, std::max(0.0, a * sg / sc)));
    const float scaleG = float(sg), scaleC = float(sc);

    // Second pass: weights first, then the sums.
    double sumSquares = 0.0;
    for (size_t i = 0; i < count; ++i) {
        if (out.correspondences[i] < 0) continue;
        ResidualRows& row = rows[i];
        const float ug = row.r[0] / scaleG, uc = row.r[1] / scaleC;
        const float wg = wg0 / (ug * ug + 1.0f);
        const float wc = wc0 / (uc * uc + 1.0f);
        weights.geometric[i] = wg;
        weights.photometric[i] = wc;
        const float rg = row.r[0] * wg, rc = row.r[1] * wc;
        for (int j = 0; j < 6; ++j) {
            row.jt[0][j] *= wg;
            row.js[0][j] *= wg;
            row.jt[1][j] *= wc;
            row.js[1][j] *= wc;
        }
        addResidualRows(out, row.jt[0], row.js[0], rg);
        addResidualRows(out, row.jt[1], row.js[1], rc);
        sumSquares += double(rg) * double(rg) + double(rc) * double(rc);
    }
    mirrorLinearization(out);
    out.score = sourceCount > 0 ? double(matched) / double(sourceCount) : 0.0;
    return sumSquares;
}

double coloredPointsError(const float* targetPoints, const float* targetNormals,
                          const float* targetIntensities, const float* targetGradients,
                          int targetCount, const float* sourcePoints,
                          const float* sourceIntensities, int sourceCount, const RT_<float>& pose,
                          const int32_t* correspondences, const ColoredWeights& weights) {
    double sum = 0.0;
    for (int i = 0; i < sourceCount; ++i) {
        const int32_t c = correspondences[i];
        if (!validCorrespondence(c, targetCount)) continue;
        const float* q = targetPoints + 3 * size_t(c);
        const float* n = targetNormals + 3 * size_t(c);
        float moved[3];
        transformPoint(pose, sourcePoints + 3 * size_t(i), moved);
        const float d1[3] = {moved[0] - q[0], moved[1] - q[1], moved[2] - q[2]};
        const float rg = dot3(d1, n);
        const float rc = photometricResidual(moved, rg, q, n, targetGradients + 3 * size_t(c),
                                             targetIntensities[c], sourceIntensities[i]);
        const double eg = double(weights.geometric[size_t(i)] * rg);
        const double ec = double(weights.photometric[size_t(i)] * rc);
        sum += eg * eg + ec * ec;
    }
    return sum;
}

bool matchColoredPoints(const PointIndex& index, const float* targetNormals,
                        const float* targetIntensities, const float* targetGradients,
                        const float* sourcePoints, const float* sourceNormals,
                        const float* sourceIntensities, int sourceCount,
                        const ImageView<double>& pose, int iterations, double maxDistance,
                        double maxAngle, double minScore, double colorWeight, bool log,
                        const ProgressFunc& progress, bool parallel) {
    const int targetCount = int(index.count());
    ColoredWeights weights;
    std::vector<ResidualRows> rows(size_t(std::max(sourceCount, 0)));
    return runPointSetSolver(
        pose, sourceCount, iterations, minScore, log, progress,
        [&](const RT_<float>& T, PointLinearization& lin) {
            return linearizeColoredPoints(index, targetNormals, targetIntensities, targetGradients,
                                          sourcePoints, sourceNormals, sourceIntensities,
                                          sourceCount, T, maxDistance, maxAngle, colorWeight, lin,
                                          weights, parallel, &rows);
        },
        [&](const RT_<float>& T, const int32_t* correspondences) {
            return coloredPointsError(index.points(), targetNormals, targetIntensities,
                                      targetGradients, targetCount, sourcePoints,
                                      sourceIntensities, sourceCount, T, correspondences, weights);
        });
}

}  // namespace kestor
