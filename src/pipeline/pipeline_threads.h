#pragma once
// The one place that owns the pipeline's threads, queues and wake-ups, and the order in which a
// stop drains them.
#include "core/fusion_instance.h"

namespace kestor {

// Drains whatever runs (a full stop), then starts `workers` workers and the tracking, trace,
// group and optimisation threads.
void startPipeline(RGBDFusionImpl& instance, int workers);

// Drains the stages in order and returns when every added frame has passed them all: tracking,
// trace, the group stage (finishing what the group thread left, the open last group included),
// the last optimisation pass, then the workers. On a stopped instance only the empty steps run.
void stopPipeline(RGBDFusionImpl& instance);

}  // namespace kestor
