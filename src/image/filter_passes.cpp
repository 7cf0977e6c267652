// The two separable filter passes. Both reduce to one inner routine: out[x] = sum_j w[j] s_j[x]
// over a list of source rows, 8 pixels at a time with fused multiply-add and four taps a round.
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "image/filter_kernels.h"

namespace kestor {

namespace {

// Tap j always goes to accumulator j % 4 and the four are added as (a0 + a1) + (a2 + a3), in the
// vector lanes and in the scalar tail alike. A pixel therefore gets the same bits whether it falls
// in a vector block or in the tail, which keeps strips of columns independent of their grouping.
void correlate(const float* const* sources, const float* weights, int taps, float* out,
               int width) {
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        __m256 a0 = _mm256_setzero_ps(), a1 = _mm256_setzero_ps();
        __m256 a2 = _mm256_setzero_ps(), a3 = _mm256_setzero_ps();
        int j = 0;
        for (; j + 4 <= taps; j += 4) {
            a0 = _mm256_fmadd_ps(_mm256_set1_ps(weights[j]), _mm256_loadu_ps(sources[j] + x), a0);
            a1 = _mm256_fmadd_ps(_mm256_set1_ps(weights[j + 1]),
                                 _mm256_loadu_ps(sources[j + 1] + x), a1);
            a2 = _mm256_fmadd_ps(_mm256_set1_ps(weights[j + 2]),
                                 _mm256_loadu_ps(sources[j + 2] + x), a2);
            a3 = _mm256_fmadd_ps(_mm256_set1_ps(weights[j + 3]),
                                 _mm256_loadu_ps(sources[j + 3] + x), a3);
        }
        if (j < taps)
            a0 = _mm256_fmadd_ps(_mm256_set1_ps(weights[j]), _mm256_loadu_ps(sources[j] + x), a0);
        if (j + 1 < taps)
            a1 = _mm256_fmadd_ps(_mm256_set1_ps(weights[j + 1]),
                                 _mm256_loadu_ps(sources[j + 1] + x), a1);
        if (j + 2 < taps)
            a2 = _mm256_fmadd_ps(_mm256_set1_ps(weights[j + 2]),
                                 _mm256_loadu_ps(sources[j + 2] + x), a2);
        _mm256_storeu_ps(out + x, _mm256_add_ps(_mm256_add_ps(a0, a1), _mm256_add_ps(a2, a3)));
    }
    for (; x < width; ++x) {
        float a[4] = {0.0f, 0.0f, 0.0f, 0.0f};
        for (int j = 0; j < taps; ++j) a[j & 3] = std::fma(weights[j], sources[j][x], a[j & 3]);
        out[x] = (a[0] + a[1]) + (a[2] + a[3]);
    }
}

}  // namespace

void filterRows(const ImageView<const float>& in, const float* kernel, int length,
                const ImageView<float>& out) {
    const int width = in.width;
    if (width < 1 || in.height < 1 || length < 1) return;
    const int half = length >> 1;
    std::vector<float> scratch(size_t(width + 2 * half));
    std::vector<const float*> sources(static_cast<size_t>(length));
    for (int j = 0; j < length; ++j) sources[size_t(j)] = scratch.data() + j;
    for (int y = 0; y < in.height; ++y) {
        const float* src = rowOf(in, y);
        std::memcpy(scratch.data() + half, src, sizeof(float) * size_t(width));
        std::fill(scratch.begin(), scratch.begin() + half, src[0]);
        std::fill(scratch.end() - half, scratch.end(), src[width - 1]);
        correlate(sources.data(), kernel, length, rowOf(out, y), width);
    }
}

void filterColumns(const ImageView<const float>& in, const float* kernel, int length,
                   const ImageView<float>& out) {
    const int width = in.width;
    const int height = in.height;
    if (width < 1 || height < 1 || length < 1) return;
    const int half = length >> 1;
    std::vector<const float*> sources(static_cast<size_t>(length));
    std::vector<float> weights(static_cast<size_t>(length));

    // One output row from its taps. Taps that fall off the image are summed once into a single
    // weight on the first or last row instead of reading that row repeatedly.
    auto filterRow = [&](int y) {
        int taps = 0;
        int j = 0;
        if (y < half) {
            float above = 0.0f;
            for (; j < half - y && j < length; ++j) above += kernel[j];
            sources[size_t(taps)] = rowOf(in, 0);
            weights[size_t(taps++)] = above;
        }
        for (; j < length && y - half + j < height; ++j) {
            sources[size_t(taps)] = rowOf(in, y - half + j);
            weights[size_t(taps++)] = kernel[j];
        }
        if (j < length) {
            float below = 0.0f;
            for (; j < length; ++j) below += kernel[j];
            sources[size_t(taps)] = rowOf(in, height - 1);
            weights[size_t(taps++)] = below;
        }
        correlate(sources.data(), weights.data(), taps, rowOf(out, y), width);
    };

    const int innerEnd = height - half;
    const int topEnd = std::min(half, height);
    for (int y = half; y < innerEnd; ++y) filterRow(y);
    for (int y = 0; y < topEnd; ++y) filterRow(y);
    for (int y = std::max(innerEnd, topEnd); y < height; ++y) filterRow(y);
}

}  // namespace kestor
