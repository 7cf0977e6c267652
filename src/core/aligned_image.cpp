#include "core/aligned_image.h"

#include <cstdlib>
#include <cstring>

namespace kestor {

AlignedImage::AlignedImage(int width, int height, int elementBytes)
    : stride_(strideFor(width, elementBytes)), width_(width), height_(height) {
    void* raw = std::malloc(size_t(height) * size_t(stride_) + 39);
    const uintptr_t aligned = (reinterpret_cast<uintptr_t>(raw) + 39) & ~uintptr_t(31);
    data_ = reinterpret_cast<uint8_t*>(aligned);
    std::memcpy(data_ - 8, &raw, sizeof(raw));
}

AlignedImage::~AlignedImage() {
    void* raw;
    std::memcpy(&raw, data_ - 8, sizeof(raw));
    std::free(raw);
}

}  // namespace kestor
