#pragma once
// How well two aligned sets overlap (the score: matched source points over source points) and
// how well the overlap pins the pose (a 6x6 information matrix over rotation x, y, z then
// translation x, y, z, summed from the moved source points alone).
#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/rigid_transform.h"
#include "pair/point_index.h"

namespace kestor {

// Nearest-neighbour association of set 2 moved by the pose against the indexed set 1. Normals
// are used only when both are given; a pair passes the angle test at equality. Every point of
// set 2 is in the denominator. Returns 0 without touching anything when `info` is not a 6x6
// view or there is nothing to match.
double calcPointMatchScore(const PointIndex& index, const float* normals1, const float* points2,
                           const float* normals2, int count2, const RT_<float>& pose,
                           const ImageView<double>& info, double maxDistance, double maxAngle);

// Projective association of the source map (2) into the target map (1). Only valid source
// pixels are in the denominator; with none the score is NaN. Distance and angle tests are strict.
double calcVmapMatchScore(const ImageView<const Float3>& vmap1, const ImageView<const Float3>& nmap1,
                          const ImageView<const Float3>& vmap2, const ImageView<const Float3>& nmap2,
                          const Intrinsics& k, const RT_<float>& pose,
                          const ImageView<double>& info, double maxDistance, double maxAngle);

// The information of one map with itself: every pixel whose z is not exactly 0.
void calcVmapSelfInfo(const ImageView<const Float3>& vmap, const RT_<float>& pose,
                      const ImageView<double>& info);

}  // namespace kestor
