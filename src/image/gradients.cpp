// Gradient maps: central differences, their magnitude, and the Gaussian-derivative gradient.
#include <immintrin.h>

#include <cmath>

#include "core/parallel_for.h"
#include "image/filter_kernels.h"

namespace kestor {

void centralGradientX(const ImageView<const float>& gray, const ImageView<float>& out) {
    const int width = gray.width;
    for (int y = 0; y < gray.height; ++y) {
        const float* in = rowOf(gray, y);
        float* g = rowOf(out, y);
        if (width < 2) {
            if (width == 1) g[0] = 0.0f;
            continue;
        }
        g[0] = 2.0f * (in[1] - in[0]);
        int x = 1;
        for (; x + 8 <= width - 1; x += 8)
            _mm256_storeu_ps(g + x, _mm256_sub_ps(_mm256_loadu_ps(in + x + 1), _mm256_loadu_ps(in + x - 1)));
        for (; x < width - 1; ++x) g[x] = in[x + 1] - in[x - 1];
        g[width - 1] = 2.0f * (in[width - 1] - in[width - 2]);
    }
}

void centralGradientY(const ImageView<const float>& gray, const ImageView<float>& out) {
    const int width = gray.width;
    const int height = gray.height;
    if (width < 1 || height < 1) return;
    if (height == 1) {
        float* g = rowOf(out, 0);
        for (int x = 0; x < width; ++x) g[x] = 0.0f;
        return;
    }
    for (int y = 0; y < height; ++y) {
        const bool top = y == 0, bottom = y == height - 1;
        const float* next = rowOf(gray, bottom ? y : y + 1);
        const float* prev = rowOf(gray, top ? y : y - 1);
        const float scale = (top || bottom) ? 2.0f : 1.0f;
        float* g = rowOf(out, y);
        const __m256 s = _mm256_set1_ps(scale);
        int x = 0;
        for (; x + 8 <= width; x += 8)
            _mm256_storeu_ps(g + x, _mm256_mul_ps(s, _mm256_sub_ps(_mm256_loadu_ps(next + x),
                                                                   _mm256_loadu_ps(prev + x))));
        for (; x < width; ++x) g[x] = scale * (next[x] - prev[x]);
    }
}

void gradientMagnitude(const ImageView<const float>& gx, const ImageView<const float>& gy,
                       const ImageView<float>& out) {
    for (int y = 0; y < gx.height; ++y) {
        const float* a = rowOf(gx, y);
        const float* b = rowOf(gy, y);
        float* m = rowOf(out, y);
        int x = 0;
        for (; x + 8 <= gx.width; x += 8) {
            const __m256 u = _mm256_loadu_ps(a + x), v = _mm256_loadu_ps(b + x);
            _mm256_storeu_ps(m + x, _mm256_sqrt_ps(_mm256_add_ps(_mm256_mul_ps(u, u), _mm256_mul_ps(v, v))));
        }
        for (; x < gx.width; ++x) m[x] = std::sqrt(a[x] * a[x] + b[x] * b[x]);
    }
}

void separableFilter(const ImageView<const float>& in, const std::vector<float>& vertical,
               const std::vector<float>& horizontal, const ImageView<float>& out, bool parallel) {
    runLoop(parallel, 0, in.width, [&](int begin, int end, int) {
        filterColumns(columnStrip(in, begin, end), vertical.data(), int(vertical.size()),
                      columnStrip(out, begin, end));
    });
    runLoop(parallel, 0, in.height, [&](int begin, int end, int) {
        const ImageView<float> strip = rowStrip(out, begin, end);
        filterRows(constView(strip), horizontal.data(), int(horizontal.size()), strip);
    });
}

void gaussianGradient(const ImageView<const float>& gray, const ImageView<float>& gx,
                      const ImageView<float>& gy, double sigma, bool parallel) {
    const std::vector<float> smooth = smoothKernel(sigma);
    const std::vector<float> derivative = derivativeKernel(sigma);
    separableFilter(gray, smooth, derivative, gx, parallel);
    separableFilter(gray, derivative, smooth, gy, parallel);
}

}  // namespace kestor
