#pragma once
// The normal-map kernel over vertex rows handed in as planes, so that a caller that makes the
// vertex rows itself (back-projection, 2:1 sampling) feeds them straight in, without a second
// pass over the vertex map.
#include <functional>

#include "core/image_view.h"

namespace kestor {

// Fills vertex row y as three planes, x, y and z, pixel x at index x + 1 of each. It must write
// indices 1 .. width and nothing else. Called once per row, for y rising from 0.
using VertexRowSource = std::function<void(int y, float* const* planes)>;

// The normal map of the rows `source` delivers: the same bits as vmapToNmap on those rows.
void normalsFromRows(int width, int height, const VertexRowSource& source,
                     const ImageView<Float3>& nmap);

// Every second vertex of the finer row `in` into `out` (width coarser pixels), and into planes as
// above when `planes` is not null.
void sampleVertexRow(const Float3* in, int width, Float3* out, float* const* planes);

}  // namespace kestor
