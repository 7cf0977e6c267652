#pragma once
#include "core/image_view.h"
#include "core/rigid_transform.h"
#include "keypoint/match_report.h"

namespace kestor {

// Gauss-Newton on n packed point pairs under the Geman-McClure kernel, from `pose` (source to
// target). The kernel's scale starts at initialScale and halves after every 8th iteration; the
// loop ends when finalDistance^2 exceeds the scale or after `iterations`. Each pair enters the
// normal equations with the fourth power of w = scale / (d^2 + scale). Returns the number of
// iterations run.
int refineGemanMcClure(const float* source, const float* target, int n, RT_<float>& pose,
                       int iterations, float initialScale, float finalDistance);

// Descriptor matches, refinement of the pose in `result` (read and written), then pruning of
// the matches to those within finalDistance, reported to onMatches (if set).
void matchKeyPointsIterative(const float* targetPoints, const float* targetDescriptors,
                             int targetCount, const float* sourcePoints,
                             const float* sourceDescriptors, int sourceCount, int dimension,
                             const ImageView<double>& result, int iterations, double initialScale,
                             double finalDistance, bool crossCheck, bool parallel,
                             const MatchesFunc& onMatches);

}  // namespace kestor
