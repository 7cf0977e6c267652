#include <cstring>
#include <vector>

#include "image/vertex_normal_maps.h"

namespace kestor {

void depthToVmap(const Intrinsics& k, const ImageView<const float>& depth,
                 const ImageView<const uint8_t>& mask, const ImageView<Float3>& vmap) {
    const int width = depth.width;
    const int height = depth.height;

    // The column factor (u - cx) / fx is the same on every row: divide once per column.
    std::vector<float> columnFactor(size_t(width > 0 ? width : 0));
    for (int u = 0; u < width; ++u) columnFactor[size_t(u)] = (float(u) - k.cx) / k.fx;

    const bool useMask = mask.data != nullptr && mask.width > 0 && mask.height > 0 &&
                         mask.width == width && mask.height == height;

    for (int v = 0; v < height; ++v) {
        Float3* out = rowOf(vmap, v);
        std::memset(static_cast<void*>(out), 0, sizeof(Float3) * size_t(width));
        const float rowFactor = (float(v) - k.cy) / k.fy;
        const float* d = rowOf(depth, v);
        const uint8_t* m = useMask ? rowOf(mask, v) : nullptr;
        for (int u = 0; u < width; ++u) {
            if (m != nullptr && m[u] == 0) continue;
            const float z = d[u];
            if (z > 0.0f) out[u] = Float3{z * columnFactor[size_t(u)], z * rowFactor, z};
        }
    }
}

}  // namespace kestor
