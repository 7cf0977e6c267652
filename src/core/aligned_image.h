#pragma once
#include <cstddef>
#include <cstdint>

#include "core/image_view.h"

namespace kestor {

// Scratch image whose rows each start on a 32-byte boundary. The raw block pointer sits in the
// 8 bytes below the aligned start, and release frees that pointer. The allocation is not tested.
class AlignedImage {
public:
    AlignedImage(int width, int height, int elementBytes);
    ~AlignedImage();
    AlignedImage(const AlignedImage&) = delete;
    AlignedImage& operator=(const AlignedImage&) = delete;

    uint8_t* data() const { return data_; }
    int stride() const { return stride_; }
    int width() const { return width_; }
    int height() const { return height_; }

    template <typename T>
    ImageView<T> view() const {
        return ImageView<T>{reinterpret_cast<T*>(data_), stride_, width_, height_};
    }

    // Row stride for a width and element size: rounded up to a multiple of 32 bytes.
    static int strideFor(int width, int elementBytes) { return (width * elementBytes + 31) & ~31; }

private:
    uint8_t* data_;
    int stride_;
    int width_;
    int height_;
};

}  // namespace kestor
