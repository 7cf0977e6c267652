#include "support/filter_reference.h"

#include <algorithm>
#include <vector>

namespace kestor {

void filterRowsReference(const ImageView<const float>& in, const float* kernel, int length,
                         const ImageView<float>& out) {
    const int width = in.width;
    const int half = length >> 1;
    std::vector<float> row(size_t(std::max(width, 0)));
    for (int y = 0; y < in.height; ++y) {
        const float* src = rowOf(in, y);
        std::copy(src, src + width, row.begin());
        float* dst = rowOf(out, y);
        for (int x = 0; x < width; ++x) {
            float sum = 0.0f;
            for (int j = 0; j < length; ++j) {
                const int xs = std::min(std::max(x - half + j, 0), width - 1);
                sum += kernel[j] * row[size_t(xs)];
            }
            dst[x] = sum;
        }
    }
}

void filterColumnsReference(const ImageView<const float>& in, const float* kernel, int length,
                            const ImageView<float>& out) {
    const int width = in.width;
    const int height = in.height;
    const int half = length >> 1;
    auto filterRow = [&](int y) {
        float* dst = rowOf(out, y);
        for (int x = 0; x < width; ++x) {
            float sum = 0.0f;
            for (int j = 0; j < length; ++j) {
                const int ys = std::min(std::max(y - half + j, 0), height - 1);
                sum += kernel[j] * rowOf(in, ys)[x];
            }
            dst[x] = sum;
        }
    };
    const int innerEnd = height - half;
    const int topEnd = std::min(half, height);
    for (int y = half; y < innerEnd; ++y) filterRow(y);
    for (int y = 0; y < topEnd; ++y) filterRow(y);
    for (int y = std::max(innerEnd, topEnd); y < height; ++y) filterRow(y);
}

}  // namespace kestor
