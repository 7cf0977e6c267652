#pragma once
// Size checks of the exports. Sizes arrive as ints and the workers index with ints, so an image
// or a list is refused when the number of values it holds would not fit one: its products would
// wrap and reach memory outside the caller's buffers.
#include <cstdint>

namespace kestor {

// Values a list may hold at most.
constexpr int64_t kLargestValueCount = INT32_MAX;

// count items of `values` numbers each (a point: 3 floats, a pose: 12 doubles): at least one
// item, and the values countable with an int.
inline bool countFits(int count, int values) {
    return count >= 1 && int64_t(count) * values <= kLargestValueCount;
}

// The largest map of an image (three floats a pixel) has an int count of values, and its rows
// an int count of bytes.
inline bool imageValuesFit(int width, int height) {
    return int64_t(width) * height * 3 <= kLargestValueCount &&
           int64_t(width) * 3 * int64_t(sizeof(float)) <= kLargestValueCount;
}

// An image of at least one pixel whose maps fit as above.
inline bool imageFits(int width, int height) {
    return width >= 1 && height >= 1 && imageValuesFit(width, height);
}

// A pyramid of `levels` levels, level l being (width >> l) by (height >> l): at least one level,
// and the coarsest still with pixels (which also keeps the shifts in range).
inline bool pyramidFits(int width, int height, int levels) {
    return imageFits(width, height) && levels >= 1 && levels <= 30 &&
           (width >> (levels - 1)) >= 1 && (height >> (levels - 1)) >= 1;
}

}  // namespace kestor
