#include "image/point_lookup.h"

#include <cmath>
#include <cstring>

#include "core/parallel_for.h"
#include "image/eigen_sym3.h"

namespace kestor {

void depthToMask(const ImageView<const float>& depth, const ImageView<uint8_t>& mask) {
    for (int y = 0; y < depth.height; ++y) {
        const float* d = rowOf(depth, y);
        uint8_t* m = rowOf(mask, y);
        for (int x = 0; x < depth.width; ++x) m[x] = d[x] > 0.0f ? 255 : 0;
    }
}

bool pixelToPoint(const Intrinsics& k, const ImageView<const float>& depth, float u, float v,
                  float point[3], float normal[3]) {
    // For positive u, trunc(u) < width - 1 exactly when u < width - 1; testing the float first
    // keeps huge and NaN positions away from the conversion to int.
    if (!(u > 0.0f && v > 0.0f && u < float(depth.width - 1) && v < float(depth.height - 1)))
        return false;
    const int iu = int(u), iv = int(v);
    const float* row0 = rowOf(depth, iv);
    const float* row1 = rowOf(depth, iv + 1);
    const float d00 = row0[iu], d01 = row0[iu + 1], d10 = row1[iu], d11 = row1[iu + 1];
    if (!(d00 > 0.0f && d01 > 0.0f && d10 > 0.0f && d11 > 0.0f)) return false;

    const float fu = u - float(iu), fv = v - float(iv);
    const float d = (d01 * fu + d00 * (1.0f - fu)) * (1.0f - fv) + (d11 * fu + d10 * (1.0f - fu)) * fv;
    const float P[3] = {(u - k.cx) / k.fx * d, (v - k.cy) / k.fy * d, d};

    // Spread of the four back-projected corners about P.
    const float corners[4][3] = {{float(iu), float(iv), d00},
                                 {float(iu + 1), float(iv), d01},
                                 {float(iu), float(iv + 1), d10},
                                 {float(iu + 1), float(iv + 1), d11}};
    float M[9] = {};
    for (const auto& c : corners) {
        const float q[3] = {(c[0] - k.cx) / k.fx * c[2] - P[0], (c[1] - k.cy) / k.fy * c[2] - P[1],
                            c[2] - P[2]};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) M[i * 3 + j] += q[i] * q[j];
    }
    float values[3], vectors[9];
    eigenSym3(M, values, vectors);
    const float* e2 = vectors + 6;
    const float sign = e2[0] * P[0] + e2[1] * P[1] + e2[2] * P[2] > 0.0f ? 1.0f : -1.0f;
    for (int i = 0; i < 3; ++i) {
        point[i] = P[i];
        normal[i] = sign * e2[i];
    }
    return true;
}

void pixelsToPoints(const Intrinsics& k, const ImageView<const float>& depth, const float* uv,
                    float* points, float* normals, int count, bool parallel) {
    std::memset(points, 0xFF, sizeof(float) * 3 * size_t(count));
    std::memset(normals, 0xFF, sizeof(float) * 3 * size_t(count));
    runLoop(parallel, 0, count, [&](int begin, int end, int) {
        for (int i = begin; i < end; ++i) {
            float point[3], normal[3];
            if (pixelToPoint(k, depth, uv[2 * i], uv[2 * i + 1], point, normal)) {
                std::memcpy(points + 3 * size_t(i), point, sizeof(point));
                std::memcpy(normals + 3 * size_t(i), normal, sizeof(normal));
            }
        }
    });
}

}  // namespace kestor
