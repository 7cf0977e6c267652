// Colour to gray and the 2:1 sampling between pyramid levels.
#include <algorithm>

#include "image/filter_kernels.h"
#include "image/normal_kernel.h"
#include "image/vertex_normal_maps.h"

namespace kestor {

void colorToGray(const ImageView<const Byte3>& color, const ImageView<float>& gray) {
    for (int y = 0; y < color.height; ++y) {
        const Byte3* c = rowOf(color, y);
        float* g = rowOf(gray, y);
        for (int x = 0; x < color.width; ++x) {
            const float v =
                (float(c[x].c0) * 0.299f + float(c[x].c1) * 0.587f + float(c[x].c2) * 0.114f) /
                255.0f;
            g[x] = std::min(std::max(v, 0.0f), 1.0f);
        }
    }
}

namespace {

template <typename T>
void everySecond(const ImageView<const T>& finer, const ImageView<T>& coarser) {
    for (int y = 0; y < coarser.height; ++y) {
        const T* in = rowOf(finer, 2 * y);
        T* out = rowOf(coarser, y);
        for (int x = 0; x < coarser.width; ++x) out[x] = in[2 * x];
    }
}

}  // namespace

void subsampleVmap(const ImageView<const Float3>& finer, const ImageView<Float3>& coarser) {
    everySecond(finer, coarser);
}

void subsampleVmapNmap(const ImageView<const Float3>& finer, const ImageView<Float3>& coarser,
                       const ImageView<Float3>& coarserNormals) {
    normalsFromRows(coarser.width, coarser.height, [&](int y, float* const* planes) {
        const Float3* in = rowOf(finer, 2 * y);
        Float3* out = rowOf(coarser, y);
        for (int x = 0; x < coarser.width; ++x) {
            out[x] = in[2 * x];
            planes[0][x + 1] = out[x].x;
            planes[1][x + 1] = out[x].y;
            planes[2][x + 1] = out[x].z;
        }
    }, coarserNormals);
}

void subsampleGray(const ImageView<const float>& finer, const ImageView<float>& coarser) {
    everySecond(finer, coarser);
}

}  // namespace kestor
