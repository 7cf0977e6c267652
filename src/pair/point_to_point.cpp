// Point-to-point residuals: the three components of p' - q per pair.
#include "pair/point_set_math.h"
#include "pair/point_set_solver.h"

namespace kestor {

double linearizePointToPoint(const PointIndex& index, const float* sourcePoints, int sourceCount,
                             const RT_<float>& pose, double maxDistance, PointLinearization& out) {
    clearLinearization(out);
    const float radiusSq = float(maxDistance * maxDistance);
    const float* R = pose.rotation;
    const float* targets = index.points();
    double sumSquares = 0.0;
    int matched = 0;
    for (int i = 0; i < sourceCount; ++i) {
        const float* p = sourcePoints + 3 * size_t(i);
        float moved[3];
        const int32_t c = nearestTarget(index, pose, p, radiusSq, moved);
        out.correspondences[size_t(i)] = c;
        if (c < 0) continue;
        ++matched;
        const float* q = targets + 3 * size_t(c);
        // Target-side rows for e = p' - q, one per component.
        const float jt[3][6] = {{0.0f, -q[2], q[1], -1.0f, 0.0f, 0.0f},
                                {q[2], 0.0f, -q[0], 0.0f, -1.0f, 0.0f},
                                {-q[1], q[0], 0.0f, 0.0f, 0.0f, -1.0f}};
        for (int k = 0; k < 3; ++k) {
            const float* Rk = R + 3 * k;
            const float js[6] = {p[1] * Rk[2] - p[2] * Rk[1], p[2] * Rk[0] - p[0] * Rk[2],
                                 p[0] * Rk[1] - p[1] * Rk[0], Rk[0], Rk[1], Rk[2]};
            const float e = moved[k] - q[k];
            addResidualRows(out, jt[k], js, e);
            sumSquares += double(e) * double(e);
        }
    }
    mirrorLinearization(out);
    out.score = sourceCount > 0 ? double(matched) / double(sourceCount) : 0.0;
    return sumSquares;
}

double pointToPointError(const float* targetPoints, int targetCount, const float* sourcePoints,
                         int sourceCount, const RT_<float>& pose, const int32_t* correspondences) {
    double sum = 0.0;
    for (int i = 0; i < sourceCount; ++i) {
        const int32_t c = correspondences[i];
        if (!validCorrespondence(c, targetCount)) continue;
        float moved[3];
        transformPoint(pose, sourcePoints + 3 * size_t(i), moved);
        const float* q = targetPoints + 3 * size_t(c);
        for (int k = 0; k < 3; ++k) {
            const double d = q[k] - moved[k];
            sum += d * d;
        }
    }
    return sum;
}

bool matchPointToPoint(const PointIndex& index, const float* sourcePoints, int sourceCount,
                       const ImageView<double>& pose, int iterations, double maxDistance,
                       double minScore, bool log, const ProgressFunc& progress) {
    const int targetCount = int(index.count());
    return runPointSetSolver(
        pose, sourceCount, iterations, minScore, log, progress,
        [&](const RT_<float>& T, PointLinearization& lin) {
            return linearizePointToPoint(index, sourcePoints, sourceCount, T, maxDistance, lin);
        },
        [&](const RT_<float>& T, const int32_t* correspondences) {
            return pointToPointError(index.points(), targetCount, sourcePoints, sourceCount, T,
                                     correspondences);
        });
}

}  // namespace kestor
