#pragma once
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace kestor {

// Element types of the organised maps: a vertex or normal is three floats, a colour three bytes.
struct Float3 {
    float x, y, z;
};
struct Byte3 {
    uint8_t c0, c1, c2;
};

// A view of an image in somebody else's memory. It owns nothing. A stride of 0 or less means
// packed rows (width elements).
template <typename T>
struct ImageView {
    T* data = nullptr;
    int32_t stride = 0;
    int32_t width = 0;
    int32_t height = 0;
};

template <typename T>
inline ImageView<T> packedView(T* data, int width, int height) {
    return ImageView<T>{data, int32_t(width * int(sizeof(T))), width, height};
}

// Start of row y; null for an empty view. y itself is not checked.
template <typename T>
inline T* rowOf(const ImageView<T>& view, int y) {
    if (view.data == nullptr || view.width < 1 || view.height < 1) return nullptr;
    using Byte = typename std::conditional<std::is_const<T>::value, const char, char>::type;
    Byte* base = reinterpret_cast<Byte*>(view.data);
    if (view.stride > 0) return reinterpret_cast<T*>(base + ptrdiff_t(y) * view.stride);
    return reinterpret_cast<T*>(base + ptrdiff_t(y) * view.width * ptrdiff_t(sizeof(T)));
}

template <typename T>
inline ImageView<const T> constView(const ImageView<T>& view) {
    return ImageView<const T>{view.data, view.stride, view.width, view.height};
}

// Interface pose (3x4 doubles) and information matrix (6x6 doubles) as the workers see them.
inline ImageView<double> poseView(double* pose) { return ImageView<double>{pose, 32, 4, 3}; }
inline ImageView<double> infoView(double* info) { return ImageView<double>{info, 48, 6, 6}; }

}  // namespace kestor
