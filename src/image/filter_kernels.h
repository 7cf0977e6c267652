#pragma once
// The image filters shared by the pyramid, the gray and gradient maps and the registration
// entries: two Gaussian kernels, two separable passes, central gradients, gradient magnitude,
// colour to gray and 2:1 sampling. All work on float views and honour each view's stride.
#include <cstdint>
#include <vector>

#include "core/image_view.h"

namespace kestor {

// A Gaussian integrated over each tap, normalised to sum 1: 2 r + 1 taps with
// r = max(1, round(3.09 sigma)). Sigma 0.5 gives 5 taps, sigma 1.6 gives 11.
std::vector<float> smoothKernel(double sigma);

// The derivative of a Gaussian integrated over each tap, not normalised: negative left of the
// centre, positive right of it, so correlation gives intensity per pixel. 2 ceil(3.46 sigma) + 1
// taps; sigma 1.6 gives 13.
std::vector<float> derivativeKernel(double sigma);

// Horizontal correlation with the edge pixel replicated: out[x] = sum_j k[j] in[x - half + j].
// Each row is copied before it is filtered, so `in` may be `out`. Any kernel length works, also
// one longer than the row.
void filterRows(const ImageView<const float>& in, const float* kernel, int length,
                const ImageView<float>& out);

// Vertical correlation with the row index clamped to the image. Rows run in a fixed order: the
// inner rows [half, h - half) rising, then the top rows, then the bottom rows. Called in place, a
// row reads rows this pass has already written, and that order defines the result. Columns are
// independent and bitwise equal whatever strip of columns they are computed in. The image should
// be at least as tall as the kernel; a shorter one is filtered with the clamping, each row once.
void filterColumns(const ImageView<const float>& in, const float* kernel, int length,
                   const ImageView<float>& out);

// Central differences that are not halved: I[x + 1] - I[x - 1] inside, and twice the one-sided
// difference at the borders, so the whole map is twice the slope per pixel. A single column
// (row) has no difference and gives 0.
void centralGradientX(const ImageView<const float>& gray, const ImageView<float>& out);
void centralGradientY(const ImageView<const float>& gray, const ImageView<float>& out);

// centralGradientX into gx and centralGradientY into gy.
void centralGradients(const ImageView<const float>& gray, const ImageView<float>& gx,
                      const ImageView<float>& gy);

// The gray map replaced, in place, by gradientMagnitude of its own central gradients: the same
// values as centralGradientX and centralGradientY into scratch maps and the magnitude of those
// back into the gray map, without the two full maps.
void centralGradientMagnitude(const ImageView<float>& gray);

// sqrt(gx^2 + gy^2) per pixel. `out` may be either input.
void gradientMagnitude(const ImageView<const float>& gx, const ImageView<const float>& gy,
                       const ImageView<float>& out);

// (0.299 b0 + 0.587 b1 + 0.114 b2) / 255 per pixel, clamped to [0, 1]; byte 0 carries the 0.299
// weight and no channel is swapped.
void colorToGray(const ImageView<const Byte3>& color, const ImageView<float>& gray);

// out[y][x] = in[2 y][2 x] over the coarser size: no averaging, so invalid vertices stay invalid.
void subsampleVmap(const ImageView<const Float3>& finer, const ImageView<Float3>& coarser);
void subsampleGray(const ImageView<const float>& finer, const ImageView<float>& coarser);

// filterColumns with `vertical` from `in` into `out`, then filterRows with `horizontal` on `out`
// in place. With `parallel` the column pass runs over strips of columns and the row pass over
// strips of rows through parallelFor; otherwise each runs once over the whole image. `in` may be
// `out`, which makes the column pass read rows it has already filtered.
void separableFilter(const ImageView<const float>& in, const std::vector<float>& vertical,
                     const std::vector<float>& horizontal, const ImageView<float>& out,
                     bool parallel);

// True slope per pixel of the Gaussian-smoothed image: gx = rows(D) after columns(S), gy =
// rows(S) after columns(D). With `parallel` the column passes run over strips of columns and the
// row passes over strips of rows.
void gaussianGradient(const ImageView<const float>& gray, const ImageView<float>& gx,
                      const ImageView<float>& gy, double sigma, bool parallel);

// Views of a part of an image, for strips handed to the loop bodies. The stride stays that of
// the whole image.
template <typename T>
inline ImageView<T> columnStrip(const ImageView<T>& view, int x0, int x1) {
    const int32_t stride = view.stride > 0 ? view.stride : int32_t(view.width * int(sizeof(T)));
    return ImageView<T>{view.data + x0, stride, x1 - x0, view.height};
}
template <typename T>
inline ImageView<T> rowStrip(const ImageView<T>& view, int y0, int y1) {
    const int32_t stride = view.stride > 0 ? view.stride : int32_t(view.width * int(sizeof(T)));
    return ImageView<T>{rowOf(view, y0), stride, view.width, y1 - y0};
}

}  // namespace kestor
