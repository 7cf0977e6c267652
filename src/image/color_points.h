#pragma once
// Flat lists of points with normals and colours from a depth image, moved by a pose.
#include <cstdint>
#include <functional>
#include <vector>

#include "core/image_view.h"
#include "core/intrinsics.h"
#include "core/rigid_transform.h"

namespace kestor {

// Kept pixels in row order: 3 floats a point and a normal, 3 bytes a colour (empty without a
// colour image).
struct ColoredPoints {
    std::vector<float> points;
    std::vector<float> normals;
    std::vector<uint8_t> colors;
    int count() const { return int(points.size() / 3); }
};

// Vertex and normal maps of the depth (with the mask), then every pixel whose vertex has z > 0
// and whose normal is not all zero, with the colour bytes unchanged. The colour image counts only
// when it has data and the size of the depth image.
void gatherColoredPoints(const Intrinsics& k, const ImageView<const float>& depth,
                         const ImageView<const Byte3>& color, const ImageView<const uint8_t>& mask,
                         ColoredPoints& out);

// Receives the transformed points, normals, colours (null without a colour image) and the count;
// with nothing kept, count 0 and null pointers. The arrays live for the call only.
using PointsCallback = std::function<void(const float* points, const float* normals,
                                          const uint8_t* colors, int count)>;

// gatherColoredPoints, the pose applied in bulk (transformPoints and rotateNormals on packed
// arrays, core/rigid_transform.h) to exactly sized arrays, then one call of
// `callback`. Serial on the calling thread.
void colorDepthToPoints(const Intrinsics& k, const ImageView<const float>& depth,
                        const ImageView<const Byte3>& color, const ImageView<const uint8_t>& mask,
                        const RT_<float>& rt, const PointsCallback& callback);

}  // namespace kestor
