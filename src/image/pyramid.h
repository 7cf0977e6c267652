#pragma once
// Pyramids of vertex, normal, gray and gradient maps from one depth and one colour image.
#include <cstdint>

#include "core/intrinsics.h"

namespace kestor {

// Level l is (width >> l) by (height >> l), every map packed; each of the five arrays holds
// `levels` caller buffers. Vertices come from level 0 with the mask and are sampled 2:1 for the
// coarser levels, where normals are recomputed. Gray maps need both `color` and `grays`; they are
// sampled from the unsmoothed level 0. Only with `gradXs` and `gradYs` as well is each level
// smoothed (sigma, through the gradient x buffer) and given central gradients; with
// `useMagnitude` the gray map is first replaced by its gradient magnitude, and the gradients are
// those of the magnitude. `color` and `mask` may be null. Serial on the calling thread.
void calcPyramid(const Intrinsics& k, const float* depth, const uint8_t* color,
                 const uint8_t* mask, float* const* vmaps, float* const* nmaps,
                 float* const* grays, float* const* gradXs, float* const* gradYs, int width,
                 int height, int levels, bool useMagnitude, double sigma);

}  // namespace kestor
