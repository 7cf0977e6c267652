#pragma once
// The two ways a closed group is aligned inside before it is finished. Both fill frameRTs.
#include "core/fusion_instance.h"

namespace kestor {

// groupMode 2: one joint alignment of all members at level 0, started from the tracked poses
// relative to member 0, which stays the key frame. Needs two members; without kernels (device
// memory) the start transforms stand.
void alignGroupJointly(const RGBDFusionImpl& instance, _Group& group);

// groupMode 1: the application's estimate refined by the built-in match for every pair of
// members that are not neighbours, then a pose graph over chain and inner edges. Inner edges the
// graph switched off keep weight 0; the best-connected member becomes the key frame.
void alignGroupByPoseGraph(const RGBDFusionImpl& instance, _Group& group);

}  // namespace kestor
