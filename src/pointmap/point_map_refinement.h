#pragma once
// The offline refinement of a finished run: each group's members aligned jointly at one pyramid
// level, then the groups' thinned clouds aligned to each other as rigid point sets, both results
// written into the frames' poses.
#include <functional>

#include "core/fusion_instance.h"
#include "core/progress.h"

namespace kestor {

// A group's cloud as refined within the group, before thinning: the group's place in `groups`,
// the group, the cloud (points in the world of the first group's first frame).
using GroupCloudFunc = std::function<void(int index, const _Group& group, const _PointCloud& cloud)>;

// Stops the pipeline first. `voxelSize` thins each group's cloud, and twice it bounds the pairs of
// the alignment between groups; `iterations` limits both alignments; `level` is the pyramid level
// of the alignment within groups (outside 0..levels-1 there is none). Progress runs 0, 1..70 over
// the groups, 70..99 over the alignment between groups, then 100; a cancel ends the group loop
// and skips the alignment between groups and the rebasing. Empty callables are not called.
void optimizePointsMap(RGBDFusionImpl& instance, double voxelSize, int iterations, int level,
                       const GroupCloudFunc& cloud, const ProgressFunc& progress);

}  // namespace kestor
