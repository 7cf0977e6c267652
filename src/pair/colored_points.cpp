// Coloured point-set residuals: a geometric term against the target's tangent plane and a
// photometric term from the target's intensity gradient, both robustly weighted by their spread.
#include <algorithm>
#include <cmath>

#include "pair/point_set_math.h"
#include "pair/point_set_solver.h"

namespace kestor {

namespace {

// Per matched source point: the two residuals and their four rows, kept between the passes.
struct ColoredRows {
    float rg, rc;
    float jtG[6], jsG[6], jtC[6], jsC[6];
};

}  // namespace

double linearizeColoredPoints(const PointIndex& index, const float* targetNormals,
                              const float* targetIntensities, const float* targetGradients,
                              const float* sourcePoints, const float* sourceNormals,
                              const float* sourceIntensities, int sourceCount,
                              const RT_<float>& pose, double maxDistance, double maxAngle,
                              double colorWeight, PointLinearization& out, ColoredWeights& weights) {
    clearLinearization(out);
    const float radiusSq = float(maxDistance * maxDistance);
    const float cosMaxAngle = float(std::cos(maxAngle));
    const float* R = pose.rotation;
    const float* targets = index.points();
    const size_t count = size_t(sourceCount > 0 ? sourceCount : 0);
    std::vector<ColoredRows> rows(count);
    weights.geometric.assign(count, 0.0f);
    weights.photometric.assign(count, 0.0f);

    // First pass: residuals and rows.
    double sumG = 0.0, sumC = 0.0;
    int matched = 0;
    for (size_t i = 0; i < count; ++i) {
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
        ++matched;
        const float* q = targets + 3 * size_t(c);
        const float* n = targetNormals + 3 * size_t(c);
        const float* g = targetGradients + 3 * size_t(c);
        ColoredRows& row = rows[i];

        const float d1[3] = {moved[0] - q[0], moved[1] - q[1], moved[2] - q[2]};
        row.rg = dot3(d1, n);
        rotatedPointRow(R, p, n, row.jsG);
        movedPointRow(n, moved, row.jtG);

        row.rc = photometricResidual(moved, row.rg, q, n, g, targetIntensities[c],
                                     sourceIntensities[i]);
        const float gn = dot3(g, n);
        const float d[3] = {g[0] - gn * n[0], g[1] - gn * n[1], g[2] - gn * n[2]};
        rotatedPointRow(R, p, d, row.jsC);
        // The first entry takes R[1][1] in its third term where the pattern has R[2][1]; the
        // system has always been solved with this term, so it stays.
        row.jsC[0] = d[0] * (p[1] * R[2] - p[2] * R[1]) + d[1] * (p[1] * R[5] - p[2] * R[4]) +
                     d[2] * (p[1] * R[8] - p[2] * R[4]);
        movedPointRow(d, moved, row.jtC);
        sumG += row.rg;
        sumC += row.rc;
    }

    // The scales of both residual kinds, and the balance between them.
    const double meanG = sumG / matched, meanC = sumC / matched;
    double varG = 0.0, varC = 0.0;
    for (size_t i = 0; i < count; ++i) {
        if (out.correspondences[i] < 0) continue;
        varG += (rows[i].rg - meanG) * (rows[i].rg - meanG);
        varC += (rows[i].rc - meanC) * (rows[i].rc - meanC);
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
        ColoredRows& row = rows[i];
        const float ug = row.rg / scaleG, uc = row.rc / scaleC;
        const float wg = wg0 / (ug * ug + 1.0f);
        const float wc = wc0 / (uc * uc + 1.0f);
        weights.geometric[i] = wg;
        weights.photometric[i] = wc;
        const float rg = row.rg * wg, rc = row.rc * wc;
        for (int j = 0; j < 6; ++j) {
            row.jtG[j] *= wg;
            row.jsG[j] *= wg;
            row.jtC[j] *= wc;
            row.jsC[j] *= wc;
        }
        addResidualRows(out, row.jtG, row.jsG, rg);
        addResidualRows(out, row.jtC, row.jsC, rc);
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
                        const ProgressFunc& progress) {
    const int targetCount = int(index.count());
    ColoredWeights weights;
    return runPointSetSolver(
        pose, sourceCount, iterations, minScore, log, progress,
        [&](const RT_<float>& T, PointLinearization& lin) {
            return linearizeColoredPoints(index, targetNormals, targetIntensities, targetGradients,
                                          sourcePoints, sourceNormals, sourceIntensities,
                                          sourceCount, T, maxDistance, maxAngle, colorWeight, lin,
                                          weights);
        },
        [&](const RT_<float>& T, const int32_t* correspondences) {
            return coloredPointsError(index.points(), targetNormals, targetIntensities,
                                      targetGradients, targetCount, sourcePoints,
                                      sourceIntensities, sourceCount, T, correspondences, weights);
        });
}

}  // namespace kestor
