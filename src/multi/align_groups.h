#pragma once
#include <vector>

#include "core/intrinsics.h"
#include "core/progress.h"
#include "core/rigid_transform.h"
#include "multi/multi_options.h"

namespace kestor {

// Two-stage alignment of many frames: the frames of each group (same non-negative id) are aligned
// jointly, merged into one cloud in common coordinates and thinned on a grid of maxDistance / 3;
// then the group clouds are aligned as rigid units and each group's correction is put in front
// of its members' poses. Negative ids take no part. refreshInterval is 0 in both stages.
// From finished maps (packed, width x height); nmaps, grays and the gradients may be null.
void matchGroupsVmap(const float* const* vmaps, const float* const* nmaps,
                     const float* const* grays, const float* const* gradXs,
                     const float* const* gradYs, int width, int height, const Intrinsics& k,
                     std::vector<RT_<double>>& poses, const int* groupIds,
                     const MultiOptions& options, const ProgressFunc& progress);

// From raw depth, with optional colour and masks: the maps are computed here first.
void matchGroupsDepth(const float* const* depths, const unsigned char* const* colors,
                      const unsigned char* const* masks, int width, int height,
                      const Intrinsics& k, std::vector<RT_<double>>& poses, const int* groupIds,
                      const MultiOptions& options, const ProgressFunc& progress);

}  // namespace kestor
