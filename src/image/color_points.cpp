#include "image/color_points.h"

#include <memory>

#include "core/aligned_image.h"
#include "image/vertex_normal_maps.h"

namespace kestor {

void gatherColoredPoints(const Intrinsics& k, const ImageView<const float>& depth,
                         const ImageView<const Byte3>& color, const ImageView<const uint8_t>& mask,
                         ColoredPoints& out) {
    const int width = depth.width, height = depth.height;
    const bool withColor = color.data != nullptr && color.width > 0 && color.height > 0 &&
                           color.width == width && color.height == height;
    // Scratch maps with rows on 32-byte boundaries.
    AlignedImage vmapBlock(width, height, int(sizeof(Float3)));
    AlignedImage nmapBlock(width, height, int(sizeof(Float3)));
    const auto vmap = vmapBlock.view<Float3>();
    const auto nmap = nmapBlock.view<Float3>();
    depthToVmapNmap(k, depth, mask, vmap, nmap);

    out.points.clear();
    out.normals.clear();
    out.colors.clear();
    for (int y = 0; y < height; ++y) {
        const Float3* v = rowOf(vmap, y);
        const Float3* n = rowOf(nmap, y);
        const Byte3* c = withColor ? rowOf(color, y) : nullptr;
        for (int x = 0; x < width; ++x) {
            if (!(v[x].z > 0.0f) || (n[x].x == 0.0f && n[x].y == 0.0f && n[x].z == 0.0f)) continue;
            out.points.insert(out.points.end(), {v[x].x, v[x].y, v[x].z});
            out.normals.insert(out.normals.end(), {n[x].x, n[x].y, n[x].z});
            if (c != nullptr) out.colors.insert(out.colors.end(), {c[x].c0, c[x].c1, c[x].c2});
        }
    }
}

void colorDepthToPoints(const Intrinsics& k, const ImageView<const float>& depth,
                        const ImageView<const Byte3>& color, const ImageView<const uint8_t>& mask,
                        const RT_<float>& rt, const PointsCallback& callback) {
    ColoredPoints kept;
    gatherColoredPoints(k, depth, color, mask, kept);
    const int count = kept.count();
    if (count == 0) {
        callback(nullptr, nullptr, nullptr, 0);
        return;
    }
    std::unique_ptr<float[]> points(new float[size_t(count) * 3]);
    std::unique_ptr<float[]> normals(new float[size_t(count) * 3]);
    rotateNormals(rt, kept.normals.data(), normals.get(), count);
    transformPoints(rt, kept.points.data(), points.get(), count);
    callback(points.get(), normals.get(), kept.colors.empty() ? nullptr : kept.colors.data(), count);
}

}  // namespace kestor
