#pragma once
// Per-frame point clouds of a finished run: each frame's points rebuilt from its stored planes
// (in memory or in the spill cache) and moved by the pose the frame holds now.
#include <cstdint>
#include <functional>
#include <vector>

#include "core/fusion_instance.h"
#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/progress.h"

namespace kestor {

// One frame's planes as the walk hands them out; colour and mask may be null, and all of them
// are valid during the call only.
using FramePlanesFunc =
    std::function<void(int index, const float* depth, const unsigned char (*colors)[3],
                       const unsigned char* mask, const RT_<double>& pose)>;

// One frame's cloud in the common frame, valid during the call only.
using FrameCloudFunc = std::function<void(int index, const _PointCloud& cloud)>;

// The points of one frame in its own coordinates: every pixel that the mask (when a mask view is
// in use) lets through, with z above 0 and a normal that is not all zero, in row order. Colours
// come along when the colour view has the depth's size; otherwise outColors ends empty.
void frameCloud(const Intrinsics& k, const ImageView<const float>& depth,
                const ImageView<const Byte3>& colors, const ImageView<const uint8_t>& mask,
                std::vector<uint8_t>& outColors, std::vector<float>& outPoints,
                std::vector<float>& outNormals);

// Walks `frames` in order and hands each one's planes and pose to `frame`. Planes come from the
// frame itself, or, with the spill cache open, are read into three work buffers allocated once
// for the call; with device memory they are those buffers' zeros. A frame whose depth cannot be
// read is skipped; an unreadable colour or mask plane is passed as null. `progress` (may be
// empty) is asked at most about fifty times, and once more with 100 unless it cancelled.
void forEachFrame(RGBDFusionImpl& instance, _Frame* const* frames, int frameCount,
                  const FramePlanesFunc& frame, const ProgressFunc& progress);

// forEachFrame over the instance's frame list, each frame's cloud built and moved by its pose.
// An empty `cloud` returns at once.
void forEachFrameCloud(RGBDFusionImpl& instance, const FrameCloudFunc& cloud,
                       const ProgressFunc& progress);

}  // namespace kestor
