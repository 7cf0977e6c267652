// Colour to gray and the 2:1 sampling between pyramid levels, eight pixels at a time.
#include <immintrin.h>

#include <algorithm>

#include "core/float3_lanes.h"
#include "image/filter_kernels.h"
#include "image/normal_kernel.h"
#include "image/vertex_normal_maps.h"

namespace kestor {

namespace {

// Channel C of 8 packed 3-byte pixels as floats, from bytes 0..15 (`low`) and 8..23 (`high`):
// pixels 0..4 come from `low`, pixels 5..7 from `high`.
template <int C>
inline __m256 channel(__m128i low, __m128i high) {
    const __m128i fromLow = _mm_setr_epi8(C, 3 + C, 6 + C, 9 + C, 12 + C, -1, -1, -1, -1, -1, -1,
                                          -1, -1, -1, -1, -1);
    const __m128i fromHigh = _mm_setr_epi8(-1, -1, -1, -1, -1, 7 + C, 10 + C, 13 + C, -1, -1, -1,
                                           -1, -1, -1, -1, -1);
    const __m128i bytes =
        _mm_or_si128(_mm_shuffle_epi8(low, fromLow), _mm_shuffle_epi8(high, fromHigh));
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes));
}

inline float grayOf(const Byte3& c) {
    const float v =
        (float(c.c0) * 0.299f + float(c.c1) * 0.587f + float(c.c2) * 0.114f) / 255.0f;
    return std::min(std::max(v, 0.0f), 1.0f);
}

}  // namespace

void colorToGray(const ImageView<const Byte3>& color, const ImageView<float>& gray) {
    const __m256 w0 = _mm256_set1_ps(0.299f), w1 = _mm256_set1_ps(0.587f),
                 w2 = _mm256_set1_ps(0.114f), scale = _mm256_set1_ps(255.0f);
    for (int y = 0; y < color.height; ++y) {
        const Byte3* c = rowOf(color, y);
        float* g = rowOf(gray, y);
        int x = 0;
        // The same products, sums and division as the scalar form, so the same bits.
        for (; x + 8 <= color.width; x += 8) {
            const auto* bytes = reinterpret_cast<const uint8_t*>(c + x);
            const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
            const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + 8));
            const __m256 sum = _mm256_add_ps(
                _mm256_add_ps(_mm256_mul_ps(channel<0>(low, high), w0),
                              _mm256_mul_ps(channel<1>(low, high), w1)),
                _mm256_mul_ps(channel<2>(low, high), w2));
            const __m256 v = _mm256_div_ps(sum, scale);
            _mm256_storeu_ps(g + x, _mm256_min_ps(_mm256_max_ps(v, _mm256_setzero_ps()),
                                                  _mm256_set1_ps(1.0f)));
        }
        for (; x < color.width; ++x) g[x] = grayOf(c[x]);
    }
}

namespace {

// Lanes 0, 2, 4, 6 of a and then of b.
inline __m256 evenLanes(__m256 a, __m256 b) {
    const __m256 mixed = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));  // a0 a2 b0 b2 | a4 a6 b4 b6
    return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(mixed), _MM_SHUFFLE(3, 1, 2, 0)));
}

template <typename T>
void everySecond(const ImageView<const T>& finer, const ImageView<T>& coarser) {
    for (int y = 0; y < coarser.height; ++y) {
        const T* in = rowOf(finer, 2 * y);
        T* out = rowOf(coarser, y);
        for (int x = 0; x < coarser.width; ++x) out[x] = in[2 * x];
    }
}

}  // namespace

void subsampleVmap(const ImageView<const Float3>& finer, const ImageView<Float3>& coarser) {
    everySecond(finer, coarser);
}

void sampleVertexRow(const Float3* in, int width, Float3* out, float* const* planes) {
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        const Lanes3 a = loadLanes(&in[2 * x]), b = loadLanes(&in[2 * x + 8]);
        const Lanes3 p{evenLanes(a.x, b.x), evenLanes(a.y, b.y), evenLanes(a.z, b.z)};
        storeLanes(&out[x], p);
        if (planes == nullptr) continue;
        _mm256_storeu_ps(planes[0] + x + 1, p.x);
        _mm256_storeu_ps(planes[1] + x + 1, p.y);
        _mm256_storeu_ps(planes[2] + x + 1, p.z);
    }
    for (; x < width; ++x) {
        out[x] = in[2 * x];
        if (planes == nullptr) continue;
        planes[0][x + 1] = out[x].x;
        planes[1][x + 1] = out[x].y;
        planes[2][x + 1] = out[x].z;
    }
}

void subsampleVmapNmap(const ImageView<const Float3>& finer, const ImageView<Float3>& coarser,
                       const ImageView<Float3>& coarserNormals) {
    normalsFromRows(coarser.width, coarser.height, [&](int y, float* const* planes) {
        sampleVertexRow(rowOf(finer, 2 * y), coarser.width, rowOf(coarser, y), planes);
    }, coarserNormals);
}

void subsampleGray(const ImageView<const float>& finer, const ImageView<float>& coarser) {
    for (int y = 0; y < coarser.height; ++y) {
        const float* in = rowOf(finer, 2 * y);
        float* out = rowOf(coarser, y);
        int x = 0;
        for (; x + 8 <= coarser.width; x += 8)
            _mm256_storeu_ps(out + x, evenLanes(_mm256_loadu_ps(in + 2 * x), _mm256_loadu_ps(in + 2 * x + 8)));
        for (; x < coarser.width; ++x) out[x] = in[2 * x];
    }
}

}  // namespace kestor
