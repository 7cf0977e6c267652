#pragma once
#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/progress.h"

namespace kestor {

// Gauss-Newton alignment of two organised frames by projective association: the pose (a 3x4
// double view, read at the start, written at the end) maps the source (frame 2) into the target
// (frame 1). True: the view holds the last accepted pose. False: the match ratio fell below
// minScore or the run was cancelled, and the view is as it was (see runPairLoop for the one
// exception). `parallel` picks parallelFor with one slot per thread, or one slot and serialFor.

// Point to point.
bool matchVmapPoint(const Intrinsics& k, const ImageView<const Float3>& targetVmap,
                    const ImageView<const Float3>& sourceVmap, const ImageView<double>& pose,
                    int iterations, double maxDistance, double minScore, bool log,
                    const ProgressFunc& progress, bool parallel);

// Source points against the target's tangent planes.
bool matchVmapPlane(const Intrinsics& k, const ImageView<const Float3>& targetVmap,
                    const ImageView<const Float3>& targetNmap,
                    const ImageView<const Float3>& sourceVmap,
                    const ImageView<const Float3>& sourceNmap, const ImageView<double>& pose,
                    int iterations, double maxDistance, double maxAngle, double minScore, bool log,
                    const ProgressFunc& progress, bool parallel);

// Point to plane plus the gray difference at the projection, each kind normalised by its spread
// and the two shared by colorWeight.
bool matchVmapColored(const Intrinsics& k, const ImageView<const Float3>& targetVmap,
                      const ImageView<const Float3>& targetNmap,
                      const ImageView<const float>& targetGray,
                      const ImageView<const float>& targetGradX,
                      const ImageView<const float>& targetGradY,
                      const ImageView<const Float3>& sourceVmap,
                      const ImageView<const Float3>& sourceNmap,
                      const ImageView<const float>& sourceGray, const ImageView<double>& pose,
                      int iterations, double maxDistance, double maxAngle, double minScore,
                      double colorWeight, bool log, const ProgressFunc& progress, bool parallel);

}  // namespace kestor
