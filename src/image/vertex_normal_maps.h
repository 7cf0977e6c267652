#pragma once
#include <cstdint>

#include "core/image_view.h"
#include "core/intrinsics.h"

namespace kestor {

// Back-projects every pixel of good depth (d > 0, mask byte not 0) to (d (u-cx)/fx, d (v-cy)/fy, d);
// every other pixel of the vertex map becomes (0, 0, 0). The mask is used only when it has data
// and the size of the depth image.
void depthToVmap(const Intrinsics& k, const ImageView<const float>& depth,
                 const ImageView<const uint8_t>& mask, const ImageView<Float3>& vmap);

// Unit normals from the triangles of the pixel grid: each triangle's normal is added to its three
// corners when it faces the camera at less than 1.5 rad from its first corner's viewing ray, and
// each vertex then takes the direction of its sum. Vertices without such a triangle get (0, 0, 0).
void vmapToNmap(const ImageView<const Float3>& vmap, const ImageView<Float3>& nmap);

// depthToVmap then vmapToNmap in one pass over the rows, with the same result: the vertex rows go
// to the normal kernel as they are made instead of being read back. With `sampled`, the vertex
// map's 2:1 sample (subsampleVmap) is written as well, from each even row while it is at hand.
void depthToVmapNmap(const Intrinsics& k, const ImageView<const float>& depth,
                     const ImageView<const uint8_t>& mask, const ImageView<Float3>& vmap,
                     const ImageView<Float3>& nmap, const ImageView<Float3>* sampled = nullptr);

// subsampleVmap then vmapToNmap on the coarser map, in one pass.
void subsampleVmapNmap(const ImageView<const Float3>& finer, const ImageView<Float3>& coarser,
                       const ImageView<Float3>& coarserNormals);

// Triangles seen at 1.5 rad or more from the viewing ray of their first corner are dropped.
constexpr double kMaxViewAngle = 1.5;

// True when 1.5 > acos(c): c is the cosine between a triangle's normal and the reversed ray.
bool withinViewAngle(double c);

}  // namespace kestor
