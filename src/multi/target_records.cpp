#include "multi/target_records.h"

namespace kestor {

TargetRecords targetRecords(const FrameMaps& frame, bool normals, bool colour) {
    TargetRecords r;
    r.stride = colour ? 7 : 6;
    const int width = frame.vmap.width, height = frame.vmap.height;
    r.width = width;
    r.height = height;
    const size_t pixels = size_t(width) * size_t(height);
    r.data.assign(pixels * size_t(r.stride) + 8, 0.0f);
    if (colour) {
        r.gradX.resize(pixels);
        r.gradY.resize(pixels);
    }
    for (int row = 0; row < height; ++row) {
        const Float3* v = rowOf(frame.vmap, row);
        const Float3* n = normals ? rowOf(frame.nmap, row) : nullptr;
        for (int col = 0; col < width; ++col) {
            const size_t pixel = size_t(row) * size_t(width) + size_t(col);
            float* out = r.data.data() + pixel * size_t(r.stride);
            out[0] = v[col].x;
            out[1] = v[col].y;
            out[2] = v[col].z;
            if (normals) {
                out[3] = n[col].x;
                out[4] = n[col].y;
                out[5] = n[col].z;
            }
            if (colour) {
                out[6] = rowOf(frame.gray, row)[col];
                r.gradX[pixel] = rowOf(frame.gradX, row)[col];
                r.gradY[pixel] = rowOf(frame.gradY, row)[col];
            }
        }
    }
    return r;
}

}  // namespace kestor
