#pragma once
#include <vector>

#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/progress.h"

namespace kestor {

// The maps of both frames, one view per level, 0 the finest. An absent kind of map is an empty
// vector; which kinds are present picks the solver once for all levels.
struct PairPyramid {
    std::vector<ImageView<const Float3>> vmaps1, nmaps1, vmaps2, nmaps2;
    std::vector<ImageView<const float>> grays1, gradXs1, gradYs1, grays2;
};

// Coarse to fine: each level runs its solver with its own iterations and distance gate, and hands
// its pose to the next through the pose view. A failing level ends the run with false and leaves
// the pose of the last completed level.
bool runPyramidLevels(const Intrinsics& k, const PairPyramid& maps, const ImageView<double>& pose,
                      const int* iterationsPerLevel, const double* maxDistancePerLevel,
                      int levels, double maxAngle, double minScore, double colorWeight, bool log,
                      const ProgressFunc& progress, bool parallel);

}  // namespace kestor
