#include <immintrin.h>

#include <cstring>
#include <vector>

#include "core/float3_lanes.h"
#include "image/normal_kernel.h"
#include "image/vertex_normal_maps.h"

namespace kestor {

namespace {

// (d (u - cx)/fx, d (v - cy)/fy, d) for pixel u of one row, or zeros where the pixel is skipped.
inline Float3 backProject(float z, float columnFactor, float rowFactor, bool keep) {
    if (keep && z > 0.0f) return Float3{z * columnFactor, z * rowFactor, z};
    return Float3{0.0f, 0.0f, 0.0f};
}

// Back-projects row v into the vertex map and, when `planes` is given, into planes x, y, z at
// index u + 1 as well.
void backProjectRow(const ImageView<const float>& depth, const uint8_t* mask, int v,
                    const std::vector<float>& columnFactor, float rowFactor,
                    const ImageView<Float3>& vmap, float* const* planes) {
    const int width = depth.width;
    Float3* out = rowOf(vmap, v);
    const float* d = rowOf(depth, v);
    const __m256 zero = _mm256_setzero_ps();
    const __m256 f = _mm256_set1_ps(rowFactor);
    // Eight pixels at a time: the same products as the scalar form, with skipped pixels zeroed
    // by the lane mask, so every pixel of the row is written exactly once.
    int u = 0;
    for (; u + 8 <= width; u += 8) {
        const __m256 z = _mm256_loadu_ps(d + u);
        __m256 keep = _mm256_cmp_ps(z, zero, _CMP_GT_OQ);
        if (mask != nullptr) keep = _mm256_and_ps(flagLanes(mask + u), keep);
        const Lanes3 p{
            _mm256_and_ps(keep, _mm256_mul_ps(z, _mm256_loadu_ps(&columnFactor[size_t(u)]))),
            _mm256_and_ps(keep, _mm256_mul_ps(z, f)), _mm256_and_ps(keep, z)};
        storeLanes(&out[u], p);
        if (planes != nullptr) {
            _mm256_storeu_ps(planes[0] + u + 1, p.x);
            _mm256_storeu_ps(planes[1] + u + 1, p.y);
            _mm256_storeu_ps(planes[2] + u + 1, p.z);
        }
    }
    for (; u < width; ++u) {
        out[u] = backProject(d[u], columnFactor[size_t(u)], rowFactor, mask == nullptr || mask[u] != 0);
        if (planes != nullptr) {
            planes[0][u + 1] = out[u].x;
            planes[1][u + 1] = out[u].y;
            planes[2][u + 1] = out[u].z;
        }
    }
}

// The column factors (u - cx) / fx, the same on every row: one division per column. The table
// lives as long as the thread, so repeated calls do not allocate.
const std::vector<float>& columnFactors(const Intrinsics& k, int width) {
    thread_local std::vector<float> table;
    if (table.size() < size_t(width)) table.resize(size_t(width));
    for (int u = 0; u < width; ++u) table[size_t(u)] = (float(u) - k.cx) / k.fx;
    return table;
}

// The mask counts only with data and the size of the depth image.
bool maskCounts(const ImageView<const uint8_t>& mask, int width, int height) {
    return mask.data != nullptr && mask.width > 0 && mask.height > 0 && mask.width == width &&
           mask.height == height;
}

}  // namespace

void depthToVmap(const Intrinsics& k, const ImageView<const float>& depth,
                 const ImageView<const uint8_t>& mask, const ImageView<Float3>& vmap) {
    const int width = depth.width;
    if (width < 1) return;
    const std::vector<float>& columnFactor = columnFactors(k, width);
    const bool useMask = maskCounts(mask, width, depth.height);
    for (int v = 0; v < depth.height; ++v)
        backProjectRow(depth, useMask ? rowOf(mask, v) : nullptr, v, columnFactor,
                       (float(v) - k.cy) / k.fy, vmap, nullptr);
}

void depthToVmapNmap(const Intrinsics& k, const ImageView<const float>& depth,
                     const ImageView<const uint8_t>& mask, const ImageView<Float3>& vmap,
                     const ImageView<Float3>& nmap, const ImageView<Float3>* sampled) {
    const int width = depth.width;
    if (width < 1) return;
    const std::vector<float>& columnFactor = columnFactors(k, width);
    const bool useMask = maskCounts(mask, width, depth.height);
    normalsFromRows(width, depth.height, [&](int v, float* const* planes) {
        backProjectRow(depth, useMask ? rowOf(mask, v) : nullptr, v, columnFactor,
                       (float(v) - k.cy) / k.fy, vmap, planes);
        if (sampled != nullptr && v % 2 == 0 && v / 2 < sampled->height && sampled->width > 0)
            sampleVertexRow(rowOf(vmap, v), sampled->width, rowOf(*sampled, v / 2), nullptr);
    }, nmap);
}

}  // namespace kestor
