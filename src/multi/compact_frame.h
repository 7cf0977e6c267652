#pragma once
#include <cstdint>
#include <vector>

#include <immintrin.h>

#include "core/float3_lanes.h"
#include "core/image_view.h"
#include "multi/vmap_modes.h"

namespace kestor {

// Three-float values kept as three planes, so that eight neighbouring entries load as three
// vectors without a transpose.
struct Planes3 {
    std::vector<float> x, y, z;

    void reserve(size_t n) {
        x.reserve(n);
        y.reserve(n);
        z.reserve(n);
    }
    void push_back(const Float3& v) {
        x.push_back(v.x);
        y.push_back(v.y);
        z.push_back(v.z);
    }
    void resize(size_t n) {
        x.resize(n);
        y.resize(n);
        z.resize(n);
    }
    Float3 operator[](size_t i) const { return Float3{x[i], y[i], z[i]}; }
    Lanes3 lanes(size_t i) const {
        return Lanes3{_mm256_loadu_ps(&x[i]), _mm256_loadu_ps(&y[i]), _mm256_loadu_ps(&z[i])};
    }
};

// The source elements of one frame that projective association looks at, in row order, made once
// per run so that every pass walks only valid elements. `pixels` holds row * width + column.
struct CompactFrame {
    Planes3 points, normals;
    std::vector<int32_t> pixels;
    std::vector<float> gray;  // the frame's gray at each element, when it has a gray map
    std::vector<int> rowStarts;  // the first element of each image row, then the count

    int size() const { return int(pixels.size()); }
};

// With normals an element counts when its z is not 0 and its normal is not all zero; without,
// when its z is above 0.
CompactFrame compactFrame(const FrameMaps& frame, bool useNormals);

}  // namespace kestor
