#include "pointmap/group_cloud.h"

#include <vector>

#include "image/color_points.h"
#include "pointmap/voxel_filter.h"

namespace kestor {

namespace {

// Moves the kept entries (selected[i] != 0) of a list of `width` values a point to the front.
template <typename T>
void keepSelected(std::vector<T>& list, const std::vector<unsigned char>& selected, size_t width) {
    if (list.size() != selected.size() * width) return;
    size_t kept = 0;
    for (size_t i = 0; i < selected.size(); ++i) {
        if (selected[i] == 0) continue;
        for (size_t e = 0; e < width; ++e) list[kept * width + e] = list[i * width + e];
        ++kept;
    }
    list.resize(kept * width);
}

}  // namespace

void appendMemberPoints(const RGBDFusionImpl& instance, const FrameLevel& level0,
                        const uint8_t* color, const RT_<float>& pose, _PointCloud& cloud) {
    if (level0.vmap == nullptr || level0.nmap == nullptr) return;
    const size_t first = cloud.points.size() / 3;
    const Float3* v = reinterpret_cast<const Float3*>(level0.vmap);
    const Float3* n = reinterpret_cast<const Float3*>(level0.nmap);
    for (int i = 0; i < instance.pixels; ++i) {
        if (!(v[i].z > 0.0f) || (n[i].x == 0.0f && n[i].y == 0.0f && n[i].z == 0.0f)) continue;
        cloud.points.insert(cloud.points.end(), {v[i].x, v[i].y, v[i].z});
        cloud.normals.insert(cloud.normals.end(), {n[i].x, n[i].y, n[i].z});
        if (level0.gray != nullptr) cloud.grays.push_back(level0.gray[i]);
        if (color != nullptr)
            cloud.colors.insert(cloud.colors.end(), color + 3 * size_t(i), color + 3 * size_t(i) + 3);
    }
    // The member's points are moved in bulk, in place.
    const int added = int(cloud.points.size() / 3 - first);
    float* points = cloud.points.data() + 3 * first;
    float* normals = cloud.normals.data() + 3 * first;
    transformPoints(pose, points, points, added);
    rotateNormals(pose, normals, normals, added);
}

void thinCloud(_PointCloud& cloud, double voxelSize) {
    const size_t count = cloud.points.size() / 3;
    if (count < 1) return;
    std::vector<unsigned char> selected(count);
    ImageView<unsigned char> selection{selected.data(), 1, 1, int32_t(count)};
    voxelFilter(cloud.points.data(), int32_t(count), float(voxelSize), selection);
    keepSelected(cloud.points, selected, 3);
    keepSelected(cloud.normals, selected, 3);
    keepSelected(cloud.grays, selected, 1);
    keepSelected(cloud.colors, selected, 3);
}

}  // namespace kestor
