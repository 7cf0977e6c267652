#pragma once
#include <cstdint>
#include <vector>

#include "core/image_view.h"
#include "multi/vmap_modes.h"

namespace kestor {

// The source elements of one frame that projective association looks at, in row order, made once
// per run so that every pass walks only valid elements. `pixels` holds row * width + column.
struct CompactFrame {
    std::vector<Float3> points, normals;
    std::vector<int32_t> pixels;
    std::vector<float> gray;  // the frame's gray at each element, when it has a gray map
    std::vector<int> rowStarts;  // the first element of each image row, then the count

    int size() const { return int(pixels.size()); }
};

// With normals an element counts when its z is not 0 and its normal is not all zero; without,
// when its z is above 0.
CompactFrame compactFrame(const FrameMaps& frame, bool useNormals);

}  // namespace kestor
