#pragma once
#include "core/fusion_instance.h"

namespace kestor {

// The tracking step for one frame, in order of addition: matched against the last accepted
// frame (the application's estimate first, then the built-in match), else relocalised against
// a finished group, then appended to the open group, closing it when it is full. Queues the
// frame's trace task and wakes the group thread when a group closed. A null frame is skipped.
void trackFrame(RGBDFusionImpl& instance, _Frame* frame);

}  // namespace kestor
