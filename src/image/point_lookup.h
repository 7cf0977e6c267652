#pragma once
// A byte mask of the valid depth pixels, and the lookup of a 3D point with a surface normal at
// sub-pixel image positions.
#include <cstdint>

#include "core/image_view.h"
#include "core/intrinsics.h"

namespace kestor {

// 255 where depth > 0, else 0 (NaN gives 0).
void depthToMask(const ImageView<const float>& depth, const ImageView<uint8_t>& mask);

// The point at (u, v) from the bilinear depth of the four surrounding pixels, and the normal of
// those four back-projected corners about it, turned to point away from the camera. Returns false,
// writing nothing, unless u > 0, v > 0, the 2x2 block lies inside the image and all four depths
// are above 0.
bool pixelToPoint(const Intrinsics& k, const ImageView<const float>& depth, float u, float v,
                  float point[3], float normal[3]);

// pixelToPoint over `count` (u, v) pairs into `count` points and normals, after filling both with
// the byte 0xFF, the mark of a position that could not be resolved. `parallel` picks the runner.
void pixelsToPoints(const Intrinsics& k, const ImageView<const float>& depth, const float* uv,
                    float* points, float* normals, int count, bool parallel);

}  // namespace kestor
