// Symmetric point-to-plane residuals: the source point against the target's tangent plane and
// the target point, carried back by the inverse pose, against the source's tangent plane.
#include <cmath>

#include "pair/point_set_math.h"
#include "pair/point_set_solver.h"

namespace kestor {

double linearizePointToPlane(const PointIndex& index, const float* targetNormals,
                             const float* sourcePoints, const float* sourceNormals,
                             int sourceCount, const RT_<float>& pose, double maxDistance,
                             double maxAngle, PointLinearization& out) {
    clearLinearization(out);
    const float radiusSq = float(maxDistance * maxDistance);
    const float cosMaxAngle = float(std::cos(maxAngle));
    RT_<float> inverse;
    invertRT(pose, inverse);
    const float* targets = index.points();
    double sumSquares = 0.0;
    int matched = 0;
    for (int i = 0; i < sourceCount; ++i) {
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
        ++matched;
        const float* q = targets + 3 * size_t(c);
        const float* n = targetNormals + 3 * size_t(c);
        float jt[6], js[6];

        const float d1[3] = {moved[0] - q[0], moved[1] - q[1], moved[2] - q[2]};
        const float r1 = dot3(d1, n);
        rotatedPointRow(pose.rotation, p, n, js);
        movedPointRow(n, moved, jt);
        addResidualRows(out, jt, js, r1);

        float back[3];
        transformPoint(inverse, q, back);
        const float d2[3] = {back[0] - p[0], back[1] - p[1], back[2] - p[2]};
        const float r2 = dot3(d2, m);
        // Here the roles turn: the source's rows have the moved-point form and the target's
        // the rotated-point form, with the inverse pose.
        movedPointRow(m, back, js);
        rotatedPointRow(inverse.rotation, q, m, jt);
        addResidualRows(out, jt, js, r2);

        sumSquares += double(r1) * double(r1) + double(r2) * double(r2);
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
                       double maxAngle, double minScore, bool log, const ProgressFunc& progress) {
    const int targetCount = int(index.count());
    return runPointSetSolver(
        pose, sourceCount, iterations, minScore, log, progress,
        [&](const RT_<float>& T, PointLinearization& lin) {
            return linearizePointToPlane(index, targetNormals, sourcePoints, sourceNormals,
                                         sourceCount, T, maxDistance, maxAngle, lin);
        },
        [&](const RT_<float>& T, const int32_t* correspondences) {
            return pointToPlaneError(index.points(), targetNormals, targetCount, sourcePoints,
                                     sourceNormals, sourceCount, T, correspondences);
        });
}

}  // namespace kestor
