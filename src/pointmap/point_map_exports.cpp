// Exports of the point-map family: per-frame clouds, the fused map, the refinement of the whole
// map, and the voxel filter. Argument checks, then the workers with the callbacks wrapped.
#include <vector>

#include "core/argument_sizes.h"
#include "core/progress.h"
#include "kestor.h"
#include "pointmap/frame_clouds.h"
#include "pointmap/point_map_refinement.h"
#include "pointmap/voxel_filter.h"

using namespace kestor;

namespace {

RGBDFusionImpl* instanceOf(void* handle) { return static_cast<RGBDFusionImpl*>(handle); }

KESTORPointCloud flatView(int32_t id, const _PointCloud& cloud) {
    return KESTORPointCloud{id, int32_t(cloud.points.size() / 3), cloud.points.data(),
                            cloud.normals.data(),
                            cloud.colors.empty() ? nullptr : cloud.colors.data()};
}

template <typename T>
void append(std::vector<T>& to, const std::vector<T>& from) {
    to.insert(to.end(), from.begin(), from.end());
}

}  // namespace

extern "C" {

int KESTORGetPointsPerFrame(void* instance, KESTORCloudFunc callback, KESTORProgressFunc progress,
                            void* user) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    if (callback == nullptr) return KESTOR_STATUS_BAD_ARGUMENT;
    forEachFrameCloud(
        *instanceOf(instance),
        [callback, user](int index, const _PointCloud& cloud) {
            const KESTORPointCloud view = flatView(index, cloud);
            callback(&view, user);
        },
        wrapProgress(progress, user));
    return KESTOR_STATUS_OK;
}

int KESTORFusePointsMap(void* instance, KESTORCloudFunc callback, KESTORProgressFunc progress,
                        void* user) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    if (callback == nullptr) return KESTOR_STATUS_BAD_ARGUMENT;
    // Fusing is concatenation in frame order; a cancelled walk still delivers what it has.
    _PointCloud fused;
    forEachFrameCloud(
        *instanceOf(instance),
        [&fused](int, const _PointCloud& cloud) {
            append(fused.colors, cloud.colors);
            append(fused.points, cloud.points);
            append(fused.normals, cloud.normals);
        },
        wrapProgress(progress, user));
    const KESTORPointCloud view = flatView(-1, fused);
    callback(&view, user);
    return KESTOR_STATUS_OK;
}

int KESTOROptimizePointsMap(void* instance, double voxelSize, int iterations, int level,
                            KESTORCloudFunc callback, KESTORProgressFunc progress, void* user) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    if (callback == nullptr) return KESTOR_STATUS_BAD_ARGUMENT;
    optimizePointsMap(
        *instanceOf(instance), voxelSize, iterations, level,
        [callback, user](int, const _Group& group, const _PointCloud& cloud) {
            const KESTORPointCloud view = flatView(group.id, cloud);
            callback(&view, user);
        },
        wrapProgress(progress, user));
    return KESTOR_STATUS_OK;
}

int KESTORVoxelFilter(const float* points, int count, double voxelSize,
                      KESTORIndicesFunc callback, void* user) {
    if (points == nullptr || !countFits(count, 3)) return KESTOR_STATUS_BAD_ARGUMENT;
    std::vector<unsigned char> selected(static_cast<size_t>(count));
    ImageView<unsigned char> selection{selected.data(), 1, 1, count};
    voxelFilter(points, int32_t(count), float(voxelSize), selection);
    std::vector<int> kept;
    for (int i = 0; i < count; ++i)
        if (selected[size_t(i)] != 0) kept.push_back(i);
    if (callback != nullptr) callback(kept.data(), int(kept.size()), user);
    return KESTOR_STATUS_OK;
}

}  // extern "C"
