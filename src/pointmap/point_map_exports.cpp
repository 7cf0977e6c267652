// Export of the voxel filter: argument check, then the kept positions through the callback.
#include <vector>

#include "kestor.h"
#include "pointmap/voxel_filter.h"

using namespace kestor;

extern "C" {

int KESTORVoxelFilter(const float* points, int count, double voxelSize,
                      KESTORIndicesFunc callback, void* user) {
    if (points == nullptr || count < 1) return KESTOR_STATUS_BAD_ARGUMENT;
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
