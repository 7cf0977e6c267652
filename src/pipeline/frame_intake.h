#pragma once
// The road into the pipeline and out of it: the worker's task that makes and fills a frame, its
// pyramid, and the trace task that hands each tracked frame back to the application.
#include <functional>

#include "core/fusion_instance.h"

namespace kestor {

using FillFunc = std::function<bool(KESTORFrameInfo*)>;

// Takes a frame block, an image block and a pyramid block under the instance lock, and lays
// them out: the frame is cleared, its record numbers say "none", `attach` comes from the attach
// allocator, `id` is set and `index` and `groupId` read -1. Returns null (after a log line) if
// the frame pool gave nothing.
_Frame* newFrame(RGBDFusionImpl& instance, int32_t id);

// The pyramid of a filled frame into its own pyramid block, as KESTORCalcPyramidVmapNmap builds
// it (gray maps from the colour when the instance keeps them, gradient magnitude on). Skipped
// with device memory, without a depth plane or pyramid block, or for an empty geometry.
void buildFramePyramid(const RGBDFusionImpl& instance, _Frame* frame);

// The worker's whole task for frame `id`: make the frame, call `fill` (through host staging
// memory with device memory), stamp and build the pyramid if kept, release it if refused, wake
// the tracking thread. Returns the frame, or null when it was refused or could not be made.
_Frame* runIntakeTask(RGBDFusionImpl& instance, const FillFunc& fill, int32_t id);

// The trace stage for one frame: total time, the trace callback, then under the lock either the
// release of a frame that has no pose or the first or second reduce step.
void runTraceTask(RGBDFusionImpl& instance, _Frame* frame, bool tracked, bool relocalized);

}  // namespace kestor
