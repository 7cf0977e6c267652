#pragma once
#include <vector>

#include "core/progress.h"
#include "core/rigid_transform.h"
#include "multi/multi_options.h"
#include "pair/point_index.h"

namespace kestor {

// One unorganised frame of the joint alignment on point sets: its points (also the index's
// array), 3 floats each, and what the mode needs besides. Arrays a mode does not use may be null.
struct PointFrame {
    const PointIndex* index = nullptr;
    const float* points = nullptr;
    const float* normals = nullptr;
    const float* intensities = nullptr;
    const float* gradients = nullptr;  // 3 floats a point, in the tangent plane
    int count = 0;
};

// Joint alignment of point sets by nearest-neighbour association; the corrections go on the
// right of the poses and poses[0] stays put. Each returns alignFrames' result.
// Point to point, with both sides' rows as in the pair matcher.
bool alignPoints(const std::vector<PointFrame>& frames, std::vector<RT_<double>>& poses,
                 const MultiOptions& options, const ProgressFunc& progress);
// One-sided point to plane on the target normals.
bool alignPointNormals(const std::vector<PointFrame>& frames, std::vector<RT_<double>>& poses,
                       const MultiOptions& options, const ProgressFunc& progress);
// Point to plane plus the intensity carried by the target gradient, each kind centred and scaled
// by its spread over all pairs.
bool alignPointNormalsColored(const std::vector<PointFrame>& frames,
                              std::vector<RT_<double>>& poses, const MultiOptions& options,
                              const ProgressFunc& progress);

}  // namespace kestor
