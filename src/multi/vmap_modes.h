#pragma once
#include <vector>

#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/progress.h"
#include "core/rigid_transform.h"
#include "multi/multi_options.h"

namespace kestor {

// The maps of one frame for the joint alignment on image grids. All frames share one size;
// maps a mode does not use may be empty views.
struct FrameMaps {
    ImageView<const Float3> vmap, nmap;
    ImageView<const float> gray, gradX, gradY;
};

// Joint alignment of frames by projective association. poses[k] maps frame k into the common
// frame and poses[0] stays put. Each returns alignFrames' result.
// Point to point on the vertex maps, with the correction applied on the left.
bool alignVmaps(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                std::vector<RT_<double>>& poses, const MultiOptions& options,
                const ProgressFunc& progress);
// One-sided point to plane on the target normals.
bool alignVmapNmaps(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                    std::vector<RT_<double>>& poses, const MultiOptions& options,
                    const ProgressFunc& progress);
// Point to plane plus the gray difference, each kind scaled by its spread over all pairs.
bool alignVmapNmapsColored(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                           std::vector<RT_<double>>& poses, const MultiOptions& options,
                           const ProgressFunc& progress);

}  // namespace kestor
