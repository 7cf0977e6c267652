#pragma once
#include <cstdint>

#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/progress.h"
#include "pair/match_pair_pyramid.h"

namespace kestor {

// What every pair entry passes on to its solver. `info` may be an empty view: then no
// information matrix and no final score test.
struct PairRunOptions {
    int iterations;
    double maxDistance, maxAngle, minScore, colorWeight;
    bool parallel, log;
    ProgressFunc progress;
};

// Maps of one image size. Null normals select the point solver; both grays (and normals) the
// coloured one, with gradients of gray1 made here; otherwise the plane solver.
bool matchPairImages(const Intrinsics& k, int width, int height, const float* vertices1,
                     const float* normals1, const float* gray1, const float* vertices2,
                     const float* normals2, const float* gray2, const ImageView<double>& pose,
                     const ImageView<double>& info, const PairRunOptions& options);

// Unorganised point sets: the nearest-neighbour matchers over an index of set 1.
bool matchPairPoints(const float* points1, const float* normals1, const float* gray1, int count1,
                     const float* points2, const float* normals2, const float* gray2, int count2,
                     const ImageView<double>& pose, const ImageView<double>& info,
                     const PairRunOptions& options);

// Raw depth with colour: the coloured solver, the target's gray being its gradient magnitude and
// the source's the smoothed image.
bool matchPairDepthColor(const Intrinsics& k, int width, int height, const float* depth1,
                         const uint8_t* color1, const uint8_t* mask1, const float* depth2,
                         const uint8_t* color2, const uint8_t* mask2, const ImageView<double>& pose,
                         const ImageView<double>& info, const PairRunOptions& options);

// Raw depth alone: the plane solver; masks play no part.
bool matchPairDepthOnly(const Intrinsics& k, int width, int height, const float* depth1,
                        const float* depth2, const ImageView<double>& pose,
                        const ImageView<double>& info, const PairRunOptions& options);

// Maps with the target's gradients given by the caller.
bool matchPairVmap(const Intrinsics& k, int width, int height, const float* vmap1,
                   const float* nmap1, const float* gray1, const float* gradX1,
                   const float* gradY1, const float* vmap2, const float* nmap2,
                   const float* gray2, const ImageView<double>& pose,
                   const ImageView<double>& info, const PairRunOptions& options);

// The level loop, then the final score at full resolution with the finest distance gate.
bool matchPairPyramid(const Intrinsics& k, const PairPyramid& maps, const ImageView<double>& pose,
                      const ImageView<double>& info, const int* iterationsPerLevel,
                      const double* maxDistancePerLevel, int levels, double maxAngle,
                      double minScore, double colorWeight, bool parallel, bool log,
                      const ProgressFunc& progress);

}  // namespace kestor
