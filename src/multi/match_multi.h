#pragma once
#include <vector>

#include "core/intrinsics.h"
#include "core/progress.h"
#include "core/rigid_transform.h"
#include "multi/multi_options.h"
#include "multi/vmap_modes.h"

namespace kestor {

using VmapMode = bool (*)(const std::vector<FrameMaps>&, const Intrinsics&,
                          std::vector<RT_<double>>&, const MultiOptions&, const ProgressFunc&);

// Runs a mode on a copy of the poses and copies rotation and translation back, whatever the
// mode's result: a failed or cancelled run leaves its last accepted step.
void runVmapMode(VmapMode mode, const std::vector<FrameMaps>& frames, const Intrinsics& k,
                 std::vector<RT_<double>>& poses, const MultiOptions& options,
                 ProgressFunc progress);

// Joint alignment of finished maps (packed, width x height, one pointer per frame). The mode
// follows what is given: normals, gray and both gradients for the coloured mode, normals for
// point to plane, vertices alone for point to point. A frame whose map the mode needs is
// missing stops the call with the poses unchanged.
void matchMultiVmap(const float* const* vmaps, const float* const* nmaps,
                    const float* const* grays, const float* const* gradXs,
                    const float* const* gradYs, int width, int height, const Intrinsics& k,
                    std::vector<RT_<double>>& poses, const MultiOptions& options,
                    const ProgressFunc& progress);

// Joint alignment of point sets, one pointer per frame and sizes[f] points each. Each frame gets
// an index; with normals and intensities also an intensity gradient over a radius of twice
// maxDistance, for the coloured mode. Without normals point to point, with normals alone point to
// plane. Fewer than two frames, or a frame whose array the mode needs is missing, leave the poses
// unchanged.
void matchMultiPoints(const float* const* points, const float* const* normals,
                      const float* const* intensities, const int* sizes,
                      std::vector<RT_<double>>& poses, const MultiOptions& options,
                      const ProgressFunc& progress);

// Joint alignment of vertex maps (width x height): without normals point to point, with normals
// and gray maps the coloured mode on gradients computed here at sigma 1.6, with normals alone
// point to plane.
void matchMultiImages(const float* const* vmaps, const float* const* nmaps,
                      const float* const* grays, int width, int height, const Intrinsics& k,
                      std::vector<RT_<double>>& poses, const MultiOptions& options,
                      const ProgressFunc& progress);

// Joint alignment from raw depth images (packed, width x height), with optional colour and
// masks: vertex and normal maps from each depth, and with colour, gray and gradient maps at
// sigma 1.6 for the coloured mode; otherwise point to plane. A frame with a missing image stops
// the call with a message and the poses unchanged.
void matchMultiDepth(const float* const* depths, const unsigned char* const* colors,
                     const unsigned char* const* masks, int width, int height,
                     const Intrinsics& k, std::vector<RT_<double>>& poses,
                     const MultiOptions& options, const ProgressFunc& progress);

}  // namespace kestor
