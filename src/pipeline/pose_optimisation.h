#pragma once
#include <vector>

#include "core/fusion_instance.h"

namespace kestor {

// One pass of the background optimisation over the first `count` groups of a copy of the group
// list: loop closing for the groups from `start` on, then the pose graph that globalMode names
// (one node per group, or per frame), and the write-back of corrected poses under the lock, a
// group or a frame at a time, shaped so that the newest finished frame stays where it is.
void runOptimisationPass(RGBDFusionImpl& instance, const std::vector<_Group*>& groups, int start,
                         int count);

}  // namespace kestor
