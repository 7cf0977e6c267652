// Symmetric point-to-plane residuals: the source point against the target's tangent plane and
// the target point, carried back by the inverse pose, against the source's tangent plane.
#include <algorithm>
#include <cmath>

#include "core/parallel_for.h"
#include "pair/point_set_math.h"
#include "pair/point_set_solver.h"

namespace kestor {

double linearizePointToPlane(const PointIndex& index, const float* targetNormals,
                             const float* sourcePoints, const float* sourceNormals,
                             int sourceCount, const RT_<float>& pose, double maxDistance,
                             double maxAngle, PointLinearization& out, bool parallel,
                             std::vector<ResidualRows>* rows) {
    clearLinearization(out);
    std::vector<ResidualRows> own;
    if (rows == nullptr) rows = &own;
    if (rows->size() < size_t(std::max(sourceCount, 0))) rows->resize(size_t(sourceCount));
    ResidualRows* pointRows = rows->data();
    const float radiusSq = float(maxDistance * maxDistance);
    const float cosMaxAngle = float(std::cos(maxAngle));
    RT_<float> inverse;
    invertRT(pose, inverse);
    const float* targets = index.points();

    // Correspondences and rows, point by point.
    runLoop(parallel, 0, sourceCount, [&](int begin, int end, int) {
        for (int i = begin; i < end; ++i) {
            const float* p = sourcePoints + 3 * size_t(i);
            const float* m = sourceNormals + 3 * size_t(i);
            float moved[3];
            int32_t c = nearestTarget(index, pose, p, radiusSq, moved);
            if (c >= 0) {
                float movedNormal[3];
                rotateVector(pose.rotation, m, movedNormal);
                if (!(dot3(targetNormals + 3 * size_t(c), movedNormal) > cosMaxAngle)) c = -1;
            }
            out.correspondences[size_t(i)] = c;
            if (c < 0) continue;
            const float* q = targets + 3 * size_t(c);
            const float* n = targetNormals + 3 * size_t(c);
            ResidualRows& row = pointRows[i];

            const float d1[3] = {moved[0] - q[0], moved[1] - q[1], moved[2] - q[2]};
            row.r[0] = dot3(d1, n);
            rotatedPointRow(pose.rotation, p, n, row.js[0]);
            movedPointRow(n, moved, row.jt[0]);

            float back[3];
            transformPoint(inverse, q, back);
            const float d2[3] = {back[0] - p[0], back[1] - p[1], back[2] - p[2]};
            row.r[1] = dot3(d2, m);
            // Here the roles turn: the source's rows have the moved-point form and the target's
            // the rotated-point form, with the inverse pose.
            movedPointRow(m, back, row.js[1]);
            rotatedPointRow(inverse.rotation, q, m, row.jt[1]);
        }
    });

    // The sums, in point order.
    double sumSquares = 0.0;
    int matched = 0;
    for (int i = 0; i < sourceCount; ++i) {
        if (out.correspondences[size_t(i)] < 0) continue;
        ++matched;
        const ResidualRows& row = pointRows[i];
        addResidualRows(out, row.jt[0], row.js[0], row.r[0]);
        addResidualRows(out, row.jt[1], row.js[1], row.r[1]);
        sumSquares += double(row.r[0]) * double(row.r[0]) + double(row.r[1]) * double(row.r[1]);
    }
    mirrorLinearization(out);
    out.score = sourceCount > 0 ? double(matched) / double(sourceCount) : 0.0;
    return sumSquares;
}

double pointToPlaneError(const float* targetPoints, const float* targetNormals, int targetCount,
                         const float* sourcePoints, const float* sourceNormals, int sourceCount,
                         const RT_<float>& pose, const int32_t* correspondences) {
    RT_<float> inverse;
    invertRT(pose, inverse);
    double sum = 0.0;
    for (int i = 0; i < sourceCount; ++i) {
        const int32_t c = correspondences[i];
        if (!validCorrespondence(c, targetCount)) continue;
        const float* p = sourcePoints + 3 * size_t(i);
        const float* q = targetPoints + 3 * size_t(c);
        float moved[3], back[3];
        transformPoint(pose, p, moved);
        transformPoint(inverse, q, back);
        const float d1[3] = {moved[0] - q[0], moved[1] - q[1], moved[2] - q[2]};
        const float d2[3] = {back[0] - p[0], back[1] - p[1], back[2] - p[2]};
        const double r1 = dot3(d1, targetNormals + 3 * size_t(c));
        const double r2 = dot3(d2, sourceNormals + 3 * size_t(i));
        sum += r1 * r1 + r2 * r2;
    }
    return sum;
}

bool matchPointToPlane(const PointIndex& index, const float* targetNormals,
                       const float* sourcePoints, const float* sourceNormals, int sourceCount,
                       const ImageView<double>& pose, int iterations, double maxDistance,
                       double maxAngle, double minScore, bool log, const ProgressFunc& progress,
                       bool parallel) {
    const int targetCount = int(index.count());
    std::vector<ResidualRows> rows(size_t(std::max(sourceCount, 0)));
    return runPointSetSolver(
        pose, sourceCount, iterations, minScore, log, progress,
        [&](const RT_<float>& T, PointLinearization& lin) {
            return linearizePointToPlane(index, targetNormals, sourcePoints, sourceNormals,
                                         sourceCount, T, maxDistance, maxAngle, lin, parallel,
                                         &rows);
        },
        [&](const RT_<float>& T, const int32_t* correspondences) {
            return pointToPlaneError(index.points(), targetNormals, targetCount, sourcePoints,
                                     sourceNormals, sourceCount, T, correspondences);
        });
}

}  // namespace kestor
