#include "keypoint/inlier_count.h"

#include <immintrin.h>

#include <limits>

#include "core/fused_rows.h"

namespace kestor {

CorrespondenceLanes buildCorrespondenceLanes(const float* source, const float* target,
                                             const float* sourceNormals,
                                             const float* targetNormals, int count) {
    CorrespondenceLanes lanes;
    lanes.count = count;
    lanes.normals = sourceNormals != nullptr && targetNormals != nullptr;
    const size_t padded = size_t((count + 7) & ~7);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    auto spread = [&](const float* packed, std::vector<float>* out) {
        for (int i = 0; i < 3; ++i) {
            out[i].assign(padded, nan);
            for (int k = 0; k < count; ++k) out[i][size_t(k)] = packed[k * 3 + i];
        }
    };
    spread(source, lanes.source);
    spread(target, lanes.target);
    if (lanes.normals) {
        spread(sourceNormals, lanes.sourceNormal);
        spread(targetNormals, lanes.targetNormal);
    }
    return lanes;
}

int countInliers(const CorrespondenceLanes& lanes, const RT_<float>& rt, float radius2,
                 uint8_t* mask) {
    __m256 R[9];
    broadcastRotation(rt.rotation, R);
    const __m256 limit = _mm256_set1_ps(radius2);
    const __m256 zero = _mm256_setzero_ps();
    __m256 t[3];
    for (int i = 0; i < 3; ++i) t[i] = _mm256_set1_ps(rt.translation[i]);
    int inliers = 0;
    for (int k = 0; k < lanes.count; k += 8) {
        const __m256 sx = _mm256_loadu_ps(&lanes.source[0][size_t(k)]);
        const __m256 sy = _mm256_loadu_ps(&lanes.source[1][size_t(k)]);
        const __m256 sz = _mm256_loadu_ps(&lanes.source[2][size_t(k)]);
        __m256 d2 = zero;
        for (int i = 0; i < 3; ++i) {
            const __m256 e = _mm256_sub_ps(fusedRow(R, i, sx, sy, sz, t[i]),
                                           _mm256_loadu_ps(&lanes.target[i][size_t(k)]));
            d2 = _mm256_fmadd_ps(e, e, d2);
        }
        // NaN padding fails the ordered comparison.
        __m256 in = _mm256_cmp_ps(d2, limit, _CMP_LT_OQ);
        if (lanes.normals) {
            const __m256 nx = _mm256_loadu_ps(&lanes.sourceNormal[0][size_t(k)]);
            const __m256 ny = _mm256_loadu_ps(&lanes.sourceNormal[1][size_t(k)]);
            const __m256 nz = _mm256_loadu_ps(&lanes.sourceNormal[2][size_t(k)]);
            __m256 cosine = zero;
            for (int i = 0; i < 3; ++i)
                cosine = _mm256_fmadd_ps(fusedRow(R, i, nx, ny, nz, zero),
                                         _mm256_loadu_ps(&lanes.targetNormal[i][size_t(k)]),
                                         cosine);
            in = _mm256_and_ps(in, _mm256_cmp_ps(cosine, zero, _CMP_GT_OQ));
        }
        const unsigned bits = unsigned(_mm256_movemask_ps(in));
        inliers += __builtin_popcount(bits);
        if (mask != nullptr)
            for (int b = 0; b < 8; ++b)
                if (bits & (1u << b)) mask[k + b] = 255;
    }
    return inliers;
}

}  // namespace kestor
