#pragma once
#include <cstdint>

#include "core/image_view.h"
#include "keypoint/match_report.h"

namespace kestor {

// Three-point RANSAC over n correspondences (packed triples; normals may be null, and are used
// only when both are given). Draws `iterations` triangle hypotheses, split over the threads when
// `parallel` is set, and stops early once one explains more than max(6, 3n/4) pairs. On success
// writes the best hypothesis (source to target) to `result`, sets the mask bytes of its inliers
// to 255 and returns their number; returns 0 with nothing written when no hypothesis reaches 3.
int searchRigidMotion(const float* source, const float* target, const float* sourceNormals,
                      const float* targetNormals, int n, const ImageView<double>& result,
                      const ImageView<uint8_t>& mask, int iterations, double edgeRatio,
                      double inlierDistance, bool parallel);

// Descriptor matches (source queries against target train), then the search over them.
// `matches` has one entry per source point; on return it holds the target index of each inlier
// and -1 elsewhere. Returns the number of inliers.
int matchKeyPointsRansacCore(const float* targetPoints, const float* targetNormals,
                             const float* targetDescriptors, int targetCount,
                             const float* sourcePoints, const float* sourceNormals,
                             const float* sourceDescriptors, int sourceCount, int dimension,
                             const ImageView<double>& result, const ImageView<int>& matches,
                             int iterations, double edgeRatio, double inlierDistance,
                             bool crossCheck, bool parallel);

// The whole key-point RANSAC: the core above, then the inlier pairs to onMatches (if set).
void matchKeyPointsRansac(const float* targetPoints, const float* targetNormals,
                          const float* targetDescriptors, int targetCount,
                          const float* sourcePoints, const float* sourceNormals,
                          const float* sourceDescriptors, int sourceCount, int dimension,
                          const ImageView<double>& result, int iterations, double edgeRatio,
                          double inlierDistance, bool crossCheck, bool parallel,
                          const MatchesFunc& onMatches);

}  // namespace kestor
