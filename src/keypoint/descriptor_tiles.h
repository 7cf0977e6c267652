#pragma once
#include <cstddef>
#include <memory>

namespace kestor {

// Descriptors regrouped for the matcher: tiles of 16 descriptors, each tile stored element by
// element (element e of descriptors 0..15, then element e + 1, ...), so that one 8-lane load
// holds the same element of eight descriptors. Lanes past the last descriptor hold NaN, which no
// comparison accepts. Rows are 32-byte aligned.
struct DescriptorTiles {
    static constexpr int kWidth = 16;

    int count = 0;
    int dimension = 0;
    int tiles = 0;
    std::unique_ptr<float[], void (*)(float*)> data{nullptr, nullptr};

    const float* tile(int t) const { return data.get() + size_t(t) * size_t(dimension) * kWidth; }
};

// Regroups `count` packed descriptors of `dimension` floats. The copy runs on the loop runner
// the flag picks.
DescriptorTiles buildDescriptorTiles(const float* descriptors, int count, int dimension,
                                     bool parallel);

}  // namespace kestor
