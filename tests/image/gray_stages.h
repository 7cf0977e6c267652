#pragma once
// The gray stages as the image kernels compose them, step by step: the columns then the rows of
// the smoothing kernel (in place, each pass reading what the last one wrote, or through a
// scratch buffer), the gradient magnitude in place of the gray if asked, then the central
// gradients of what the gray has become.
#include <vector>

#include "image/filter_kernels.h"

namespace kestor_test {

struct GrayStages {
    std::vector<float> gray, gx, gy;
};

inline GrayStages grayStages(std::vector<float> gray, int w, int h, double sigma, bool inPlace,
                             bool useMagnitude) {
    using namespace kestor;
    const std::vector<float> k = smoothKernel(sigma);
    std::vector<float> scratch(gray.size()), gx(gray.size()), gy(gray.size());
    const ImageView<float> g = packedView(gray.data(), w, h);
    const ImageView<float> columns = inPlace ? g : packedView(scratch.data(), w, h);
    filterColumns(constView(g), k.data(), int(k.size()), columns);
    filterRows(constView(columns), k.data(), int(k.size()), g);
    for (int pass = useMagnitude ? 0 : 1; pass < 2; ++pass) {
        centralGradientX(constView(g), packedView(gx.data(), w, h));
        centralGradientY(constView(g), packedView(gy.data(), w, h));
        if (pass == 0)
            gradientMagnitude(packedView<const float>(gx.data(), w, h),
                              packedView<const float>(gy.data(), w, h), g);
    }
    return {gray, gx, gy};
}

}  // namespace kestor_test
