#pragma once
// Gray, gradient x and gradient y maps of one colour image at one resolution.
#include "core/image_view.h"

namespace kestor {

// Gray from colour, smoothed in place with the smoothing kernel of `sigma` (the column pass reads
// rows it has already filtered), optionally replaced by its gradient magnitude, then central
// gradients of the gray map into gx and gy. With `parallel` every pass runs through parallelFor,
// and the gradients over one strip of columns per thread, each strip taken as an image of its own:
// the first and last column of every strip get the border rule of centralGradientX, so the result
// there depends on the thread count. Without it every pass runs once over the whole image.
void calcGrayAndGradient(const ImageView<const Byte3>& color, const ImageView<float>& gray,
                         const ImageView<float>& gx, const ImageView<float>& gy, double sigma,
                         bool useMagnitude, bool parallel);

// Smoothing alone: columns from `in` into `out`, then rows on `out` in place, over strips through
// parallelFor. `in` may be `out`.
void gaussianSmooth(const ImageView<const float>& in, double sigma, const ImageView<float>& out);

}  // namespace kestor
