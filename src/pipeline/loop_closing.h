#pragma once
#include "core/fusion_instance.h"

namespace kestor {

// Looks for loops between a newly finished group, at `position` in `groups`, and the groups
// before it: candidates by the application's score (the five lowest) or drawn at random, each
// matched from the application's estimate with the built-in match, every success appended to
// the group's loopEdges with weight 127 from its key frame. Groups 0 and 1 get nothing.
void closeGroupLoops(RGBDFusionImpl& instance, _Group* const* groups, int position,
                     _Group& group);

}  // namespace kestor
