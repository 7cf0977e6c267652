// The two one-dimensional Gaussian kernels, computed in double and stored as float.
#include <algorithm>
#include <cmath>

#include "image/filter_kernels.h"

namespace kestor {

namespace {

// Mass of the unit-area Gaussian of this sigma below x.
double massBelow(double x, double sigma) {
    return 0.5 * std::erfc(-x / (sigma * std::sqrt(2.0)));
}

}  // namespace

std::vector<float> smoothKernel(double sigma) {
    int r = int(std::round(sigma * 3.09023230616781));
    if (r < 1) r = 1;
    const int n = 2 * r + 1;
    std::vector<float> w(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        w[size_t(i)] = float(massBelow(r + 0.5 - i, sigma) - massBelow(r - 0.5 - i, sigma));
    // The end taps never exceed the tail masses beyond them.
    w[0] = std::min(w[0], float(1.0 - massBelow(r - 0.5, sigma)));
    w[size_t(n - 1)] = std::min(w[size_t(n - 1)], float(massBelow(0.5 - r, sigma)));
    float sum = 0.0f;
    for (float v : w) sum += v;
    for (float& v : w) v /= sum;
    return w;
}

std::vector<float> derivativeKernel(double sigma) {
    const int r = int(std::ceil(sigma * 3.46087178201605));
    const int n = 2 * r + 1;
    const double c = 0.3989422804014327 / sigma;
    auto G = [&](double a) { return c * std::exp(-0.5 * (a / sigma) * (a / sigma)); };
    std::vector<float> w(static_cast<size_t>(n));
    for (int i = 1; i < n - 1; ++i) {
        const int k = r - i;
        w[size_t(i)] = float(G(k + 0.5) - G(k - 0.5));
    }
    w[0] = float(-G(r - 0.5));
    w[size_t(n - 1)] = float(G(0.5 - r));
    return w;
}

}  // namespace kestor
