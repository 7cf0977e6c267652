// Intensity gradient of each point of a set, in its tangent plane, by Gaussian-weighted least
// squares over its neighbours.
#include <cmath>
#include <vector>

#include "core/parallel_for.h"
#include "pair/point_set_math.h"

namespace kestor {

void calcPointGradient(const PointIndex& index, const float* targetNormals,
                       const float* targetIntensities, float* gradients, int count, double radius,
                       bool parallel) {
    // The radius is about 3.09 standard deviations of the weight, its 0.999 quantile.
    const float sigma = float(radius / 3.09023230616781);
    const float gain = float(0.3989422804014327 / sigma);
    const float expScale = -2.0f * sigma * sigma;
    const float radiusSq = float(radius * radius);
    const float* points = index.points();
    runLoop(parallel, 0, count, [&](int begin, int end, int) {
        std::vector<int> neighbours;
        std::vector<float> distancesSq;
        for (int i = begin; i < end; ++i) {
            const float* pi = points + 3 * size_t(i);
            const float* ni = targetNormals + 3 * size_t(i);
            const float Ii = targetIntensities[i];
            neighbours.clear();
            distancesSq.clear();
            index.allWithin(pi, radiusSq, neighbours, distancesSq);
            // Symmetric A (xx, xy, xz, yy, yz, zz) and b.
            float A[6] = {0, 0, 0, 0, 0, 0}, b[3] = {0, 0, 0};
            for (size_t k = 0; k < neighbours.size(); ++k) {
                const float* pj = points + 3 * size_t(neighbours[k]);
                const float v[3] = {pj[0] - pi[0], pj[1] - pi[1], pj[2] - pi[2]};
                const float vn = dot3(v, ni);
                const float w = std::exp(distancesSq[k] / expScale) * gain;
                const float u[3] = {(v[0] - vn * ni[0]) * w, (v[1] - vn * ni[1]) * w,
                                    (v[2] - vn * ni[2]) * w};
                const float dI = (targetIntensities[neighbours[k]] - Ii) * w;
                b[0] += u[0] * dI;
                b[1] += u[1] * dI;
                b[2] += u[2] * dI;
                A[0] += u[0] * u[0];
                A[1] += u[0] * u[1];
                A[2] += u[0] * u[2];
                A[3] += u[1] * u[1];
                A[4] += u[1] * u[2];
                A[5] += u[2] * u[2];
            }
            // The normal direction, weighted by the neighbour count, keeps the gradient in the
            // tangent plane and the system regular.
            const float c = float(neighbours.size());
            const float cn[3] = {c * ni[0], c * ni[1], c * ni[2]};
            A[0] += cn[0] * cn[0];
            A[1] += cn[0] * cn[1];
            A[2] += cn[0] * cn[2];
            A[3] += cn[1] * cn[1];
            A[4] += cn[1] * cn[2];
            A[5] += cn[2] * cn[2];
            // Cofactors of the symmetric matrix.
            const float c00 = A[3] * A[5] - A[4] * A[4];
            const float c01 = A[2] * A[4] - A[1] * A[5];
            const float c02 = A[1] * A[4] - A[2] * A[3];
            const float c11 = A[0] * A[5] - A[2] * A[2];
            const float c12 = A[1] * A[2] - A[0] * A[4];
            const float c22 = A[0] * A[3] - A[1] * A[1];
            const float det = A[0] * c00 + A[1] * c01 + A[2] * c02;
            float* out = gradients + 3 * size_t(i);
            if (!(double(std::fabs(det)) >= 1e-6) || std::isinf(det)) {
                out[0] = out[1] = out[2] = 0.0f;
                continue;
            }
            out[0] = (c00 * b[0] + c01 * b[1] + c02 * b[2]) / det;
            out[1] = (c01 * b[0] + c11 * b[1] + c12 * b[2]) / det;
            out[2] = (c02 * b[0] + c12 * b[1] + c22 * b[2]) / det;
        }
    });
}

}  // namespace kestor
