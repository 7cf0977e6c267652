#pragma once
#include <cstdint>
#include <vector>

#include "core/image_view.h"

namespace kestor {

// Thins a cloud on a grid anchored at the lowest corner of its bounding box: of the points in one
// voxel, the one nearest the voxel's centre is marked 255 in `selection`, every other byte is 0.
// The voxel with the highest key gives no point: its winner is never marked. `selection` must
// hold count bytes (width * height == count); otherwise, or for null points or a count of 0,
// nothing happens. The form with 32-bit counts serves the export, the 64-bit one internal callers.
void voxelFilter(const float* points, int32_t count, float voxelSize,
                 ImageView<unsigned char>& selection);
void voxelFilter(const float* points, int64_t count, float voxelSize,
                 ImageView<unsigned char>& selection);

// In-place thinning of vectors: points survive in their order, and normals and intensities
// follow them when their size equals that of points; a vector of any other size ends empty.
void voxelFilterCloud(double voxelSize, std::vector<Float3>& points, std::vector<Float3>& normals,
                      std::vector<float>& intensities);

}  // namespace kestor
