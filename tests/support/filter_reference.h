#pragma once
// Plain scalar forms of the two filter passes, one tap at a time with the clamping spelled out.
// They define what the vector passes must compute (up to float rounding) and are the baseline
// the benchmarks measure those against; they live with the tests because the library never
// calls them.
#include "core/image_view.h"

namespace kestor {

void filterRowsReference(const ImageView<const float>& in, const float* kernel, int length,
                         const ImageView<float>& out);

// Same row order as filterColumns, so the in-place result is comparable too.
void filterColumnsReference(const ImageView<const float>& in, const float* kernel, int length,
                            const ImageView<float>& out);

}  // namespace kestor
