// Gradient maps: central differences, their magnitude, and the Gaussian-derivative gradient.
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include "core/parallel_for.h"
#include "image/filter_kernels.h"

namespace kestor {

namespace {

// One row of centralGradientX.
void gradientXRow(const float* in, int width, float* out) {
    if (width < 2) {
        if (width == 1) out[0] = 0.0f;
        return;
    }
    out[0] = 2.0f * (in[1] - in[0]);
    int x = 1;
    for (; x + 8 <= width - 1; x += 8)
        _mm256_storeu_ps(out + x, _mm256_sub_ps(_mm256_loadu_ps(in + x + 1), _mm256_loadu_ps(in + x - 1)));
    for (; x < width - 1; ++x) out[x] = in[x + 1] - in[x - 1];
    out[width - 1] = 2.0f * (in[width - 1] - in[width - 2]);
}

// One row of centralGradientY: scale (next - prev), with the rows and the scale of row y (twice
// the one-sided difference at the top and bottom). A single row has no difference: all 0.
void gradientYRow(const float* prev, const float* next, float scale, bool single, int width,
                  float* out) {
    if (single) {
        std::fill(out, out + width, 0.0f);
        return;
    }
    const __m256 s = _mm256_set1_ps(scale);
    int x = 0;
    for (; x + 8 <= width; x += 8)
        _mm256_storeu_ps(out + x, _mm256_mul_ps(s, _mm256_sub_ps(_mm256_loadu_ps(next + x),
                                                                 _mm256_loadu_ps(prev + x))));
    for (; x < width; ++x) out[x] = scale * (next[x] - prev[x]);
}

inline float edgeScale(int y, int height) { return (y == 0 || y == height - 1) ? 2.0f : 1.0f; }

// sqrt(a^2 + b^2) per pixel of one row.
void magnitudeRow(const float* a, const float* b, int width, float* out) {
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        const __m256 u = _mm256_loadu_ps(a + x), v = _mm256_loadu_ps(b + x);
        _mm256_storeu_ps(out + x, _mm256_sqrt_ps(_mm256_add_ps(_mm256_mul_ps(u, u), _mm256_mul_ps(v, v))));
    }
    for (; x < width; ++x) out[x] = std::sqrt(a[x] * a[x] + b[x] * b[x]);
}

}  // namespace

void centralGradientX(const ImageView<const float>& gray, const ImageView<float>& out) {
    for (int y = 0; y < gray.height; ++y) gradientXRow(rowOf(gray, y), gray.width, rowOf(out, y));
}

void centralGradientY(const ImageView<const float>& gray, const ImageView<float>& out) {
    const int height = gray.height;
    if (gray.width < 1) return;
    for (int y = 0; y < height; ++y)
        gradientYRow(rowOf(gray, y == 0 ? y : y - 1), rowOf(gray, y == height - 1 ? y : y + 1),
                     edgeScale(y, height), height == 1, gray.width, rowOf(out, y));
}

void centralGradients(const ImageView<const float>& gray, const ImageView<float>& gx,
                      const ImageView<float>& gy) {
    const int height = gray.height;
    if (gray.width < 1) return;
    // Row by row, so that each gray row is read for both while it is in cache.
    for (int y = 0; y < height; ++y) {
        gradientXRow(rowOf(gray, y), gray.width, rowOf(gx, y));
        gradientYRow(rowOf(gray, y == 0 ? y : y - 1), rowOf(gray, y == height - 1 ? y : y + 1),
                     edgeScale(y, height), height == 1, gray.width, rowOf(gy, y));
    }
}

void gradientMagnitude(const ImageView<const float>& gx, const ImageView<const float>& gy,
                       const ImageView<float>& out) {
    for (int y = 0; y < gx.height; ++y) magnitudeRow(rowOf(gx, y), rowOf(gy, y), gx.width, rowOf(out, y));
}

void centralGradientMagnitude(const ImageView<float>& gray) {
    const int width = gray.width, height = gray.height;
    if (width < 1 || height < 1) return;
    // Row y needs the rows above and below as they were; the one above is already overwritten,
    // so the originals of the current and the previous row are kept aside.
    thread_local std::vector<float> scratch;
    if (scratch.size() < size_t(4 * width)) scratch.resize(size_t(4 * width));
    float* previous = scratch.data();
    float* current = previous + width;
    float* gx = current + width;
    float* gy = gx + width;
    for (int y = 0; y < height; ++y) {
        float* row = rowOf(gray, y);
        std::memcpy(current, row, sizeof(float) * size_t(width));
        gradientXRow(current, width, gx);
        gradientYRow(y == 0 ? current : previous, y == height - 1 ? current : rowOf(gray, y + 1),
                     edgeScale(y, height), height == 1, width, gy);
        magnitudeRow(gx, gy, width, row);
        std::swap(previous, current);
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
