#pragma once
// A group's cloud for the point-map refinement: its members' level-0 points in the common frame,
// with gray values and colours, and its thinning on the voxel grid.
#include <cstdint>

#include "core/fusion_instance.h"

namespace kestor {

// Appends every pixel of one member whose vertex has z above 0 and whose normal is not all zero,
// in pixel order: the vertex moved by `pose`, the normal turned by it, the gray value where
// `level0` has a gray map and the three colour bytes where `color` is given.
void appendMemberPoints(const RGBDFusionImpl& instance, const FrameLevel& level0,
                        const uint8_t* color, const RT_<float>& pose, _PointCloud& cloud);

// Keeps, in their order, the points the voxel filter selects (the highest voxel gives none), with
// their normals, and their gray values and colours where those lists have one entry a point; a
// list of another length is left as it is. An empty cloud stays empty.
void thinCloud(_PointCloud& cloud, double voxelSize);

}  // namespace kestor
