#include <immintrin.h>

#include <cstring>
#include <vector>

#include "image/float3_lanes.h"
#include "image/vertex_normal_maps.h"

namespace kestor {

namespace {

// (d (u - cx)/fx, d (v - cy)/fy, d) for pixel u of one row, or zeros where the pixel is skipped.
inline Float3 backProject(float z, float columnFactor, float rowFactor, bool keep) {
    if (keep && z > 0.0f) return Float3{z * columnFactor, z * rowFactor, z};
    return Float3{0.0f, 0.0f, 0.0f};
}

}  // namespace

void depthToVmap(const Intrinsics& k, const ImageView<const float>& depth,
                 const ImageView<const uint8_t>& mask, const ImageView<Float3>& vmap) {
    const int width = depth.width;
    const int height = depth.height;
    if (width < 1) return;

    // The column factor (u - cx) / fx is the same on every row: divide once per column. The
    // table lives as long as the thread, so repeated calls do not allocate.
    thread_local std::vector<float> columnFactor;
    if (columnFactor.size() < size_t(width)) columnFactor.resize(size_t(width));
    for (int u = 0; u < width; ++u) columnFactor[size_t(u)] = (float(u) - k.cx) / k.fx;

    const bool useMask = mask.data != nullptr && mask.width > 0 && mask.height > 0 &&
                         mask.width == width && mask.height == height;
    const __m256 zero = _mm256_setzero_ps();

    // Eight pixels at a time: the same products as the scalar form, with skipped pixels zeroed
    // by the lane mask, so every pixel of the row is written exactly once.
    for (int v = 0; v < height; ++v) {
        Float3* out = rowOf(vmap, v);
        const float rowFactor = (float(v) - k.cy) / k.fy;
        const __m256 f = _mm256_set1_ps(rowFactor);
        const float* d = rowOf(depth, v);
        const uint8_t* m = useMask ? rowOf(mask, v) : nullptr;
        int u = 0;
        for (; u + 8 <= width; u += 8) {
            const __m256 z = _mm256_loadu_ps(d + u);
            __m256 keep = _mm256_cmp_ps(z, zero, _CMP_GT_OQ);
            if (m != nullptr) {
                const __m256i bytes = _mm256_cvtepu8_epi32(
                    _mm_loadl_epi64(reinterpret_cast<const __m128i*>(m + u)));
                const __m256 closed = _mm256_castsi256_ps(
                    _mm256_cmpeq_epi32(bytes, _mm256_setzero_si256()));
                keep = _mm256_andnot_ps(closed, keep);
            }
            const Lanes3 p{
                _mm256_and_ps(keep, _mm256_mul_ps(z, _mm256_loadu_ps(&columnFactor[size_t(u)]))),
                _mm256_and_ps(keep, _mm256_mul_ps(z, f)), _mm256_and_ps(keep, z)};
            storeLanes3(&out[u].x, p);
        }
        for (; u < width; ++u)
            out[u] = backProject(d[u], columnFactor[size_t(u)], rowFactor, m == nullptr || m[u] != 0);
    }
}

}  // namespace kestor
