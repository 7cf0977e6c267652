#include "multi/compact_frame.h"

#include "multi/projective_association.h"

namespace kestor {

CompactFrame compactFrame(const FrameMaps& frame, bool useNormals) {
    CompactFrame c;
    const int width = frame.vmap.width, height = frame.vmap.height;
    const bool withGray = frame.gray.data != nullptr;
    const size_t most = size_t(width) * size_t(height);
    c.points.reserve(most);
    c.pixels.reserve(most);
    if (useNormals) c.normals.reserve(most);
    if (withGray) c.gray.reserve(most);
    for (int row = 0; row < height; ++row) {
        c.rowStarts.push_back(c.size());
        const Float3* v = rowOf(frame.vmap, row);
        const Float3* n = useNormals ? rowOf(frame.nmap, row) : nullptr;
        const float* g = withGray ? rowOf(frame.gray, row) : nullptr;
        for (int col = 0; col < width; ++col) {
            const Float3& p = v[col];
            if (useNormals ? (p.z == 0.0f || isZero(n[col])) : !(p.z > 0.0f)) continue;
            c.points.push_back(p);
            if (useNormals) c.normals.push_back(n[col]);
            if (withGray) c.gray.push_back(g[col]);
            c.pixels.push_back(row * width + col);
        }
    }
    c.rowStarts.push_back(c.size());
    return c;
}

}  // namespace kestor
