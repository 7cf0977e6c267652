#include "image/gray_gradient.h"

#include <vector>

#include "core/parallel_for.h"
#include "image/filter_kernels.h"

namespace kestor {

void gaussianSmooth(const ImageView<const float>& in, double sigma, const ImageView<float>& out) {
    const std::vector<float> kernel = smoothKernel(sigma);
    separableFilter(in, kernel, kernel, out, true);
}

void calcGrayAndGradient(const ImageView<const Byte3>& color, const ImageView<float>& gray,
                         const ImageView<float>& gx, const ImageView<float>& gy, double sigma,
                         bool useMagnitude, bool parallel) {
    runLoop(parallel, 0, color.height, [&](int begin, int end, int) {
        colorToGray(rowStrip(color, begin, end), rowStrip(gray, begin, end));
    });

    const std::vector<float> kernel = smoothKernel(sigma);
    separableFilter(constView(gray), kernel, kernel, gray, parallel);

    // Each strip of columns is an image of its own to the gradient routines.
    auto gradients = [&](int begin, int end, int) {
        const auto g = columnStrip(gray, begin, end);
        const auto x = columnStrip(gx, begin, end);
        const auto y = columnStrip(gy, begin, end);
        centralGradientX(constView(g), x);
        centralGradientY(constView(g), y);
    };
    if (useMagnitude) {
        runLoop(parallel, 0, gray.width, [&](int begin, int end, int slot) {
            gradients(begin, end, slot);
            gradientMagnitude(constView(columnStrip(gx, begin, end)),
                              constView(columnStrip(gy, begin, end)),
                              columnStrip(gray, begin, end));
        });
    }
    runLoop(parallel, 0, gray.width, gradients);
}

}  // namespace kestor
