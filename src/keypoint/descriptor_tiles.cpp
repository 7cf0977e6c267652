#include "keypoint/descriptor_tiles.h"

#include <cstdlib>
#include <limits>
#include <new>

#include "core/parallel_for.h"

namespace kestor {

DescriptorTiles buildDescriptorTiles(const float* descriptors, int count, int dimension,
                                     bool parallel) {
    constexpr int W = DescriptorTiles::kWidth;
    DescriptorTiles out;
    out.count = count;
    out.dimension = dimension;
    out.tiles = (count + W - 1) / W;
    // A whole tile is a multiple of 64 bytes, as aligned_alloc wants a multiple of the alignment.
    const size_t floats = size_t(out.tiles) * size_t(dimension) * W;
    float* block = static_cast<float*>(std::aligned_alloc(32, floats * sizeof(float)));
    if (block == nullptr) throw std::bad_alloc();
    out.data = std::unique_ptr<float[], void (*)(float*)>(block, [](float* p) { std::free(p); });

    const float nan = std::numeric_limits<float>::quiet_NaN();
    runLoop(parallel, 0, out.tiles, [&](int begin, int end, int) {
        for (int t = begin; t < end; ++t) {
            float* tile = block + size_t(t) * size_t(dimension) * W;
            for (int lane = 0; lane < W; ++lane) {
                const int k = t * W + lane;
                const float* row = descriptors + size_t(k) * size_t(dimension);
                for (int e = 0; e < dimension; ++e)
                    tile[size_t(e) * W + lane] = k < count ? row[e] : nan;
            }
        }
    });
    return out;
}

}  // namespace kestor
