#pragma once
// Point lists written as binary PLY or as plain text; the extension of the path decides.
#include <cstdint>

#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/rigid_transform.h"

namespace kestor {

// By the text after the last '.' of the path (the whole path without a dot), in any letter case:
// "asc" writes text, "ply" writes PLY, anything else touches no file and returns false. `normals`
// and `colors` may be null.
bool writePoints(const char* path, const float* points, const float* normals,
                 const uint8_t* colors, int count);

// Binary little-endian PLY: header, then per vertex x y z [nx ny nz] [red green blue] with the
// colour bytes in reverse order, then per face the byte 3 and three int32 indices. False only when
// the file cannot be opened; write errors are not looked at.
bool writePly(const char* path, const float* points, const float* normals, const uint8_t* colors,
              int count, const int32_t* faces, int faceCount);

// One line per point: position, then the normal if given, then the colour bytes reversed as
// integers if normals are given too. False when the file cannot be opened or fails to close.
bool writeTextPoints(const char* path, const float* points, const float* normals,
                     const uint8_t* colors, int count);

// The coloured points of colorDepthToPoints, written with writePoints. With nothing kept the file
// is still written, with no points.
bool writeColorDepthToPoints(const char* path, const ImageView<const float>& depth,
                             const ImageView<const Byte3>& color,
                             const ImageView<const uint8_t>& mask, const Intrinsics& k,
                             const RT_<float>& rt);

}  // namespace kestor
