#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

#include "image/filter_kernels.h"
#include "image/filter_reference.h"
#include "support/image_compare.h"

using namespace kestor;
using kestor_test::randomImage;

namespace {

using Pass = void (*)(const ImageView<const float>&, const float*, int, const ImageView<float>&);

std::vector<float> run(Pass pass, const std::vector<float>& in, int w, int h,
                       const std::vector<float>& k) {
    std::vector<float> out(in.size(), kestor_test::kSentinel);
    pass(packedView(in.data(), w, h), k.data(), int(k.size()), packedView(out.data(), w, h));
    return out;
}

std::vector<float> runInPlace(Pass pass, std::vector<float> image, int w, int h,
                              const std::vector<float>& k) {
    const auto view = packedView(image.data(), w, h);
    pass(constView(view), k.data(), int(k.size()), view);
    return image;
}

// Vector result against the scalar reference: equal up to the rounding of a sum of |k| |x|.
void expectClose(const std::vector<float>& a, const std::vector<float>& b,
                 const std::vector<float>& k, const char* what) {
    float scale = 0.0f;
    for (float v : k) scale += std::abs(v);
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i)
        ASSERT_NEAR(a[i], b[i], 4e-6f * scale) << what << " at " << i;
}

}  // namespace

TEST(FilterKernels, TapCountsSumsAndSigns) {
    EXPECT_EQ(smoothKernel(0.5).size(), 5u);
    EXPECT_EQ(smoothKernel(1.6).size(), 11u);
    EXPECT_EQ(derivativeKernel(1.6).size(), 13u);
    const std::vector<float> tiny = smoothKernel(0.05);
    ASSERT_EQ(tiny.size(), 3u);
    EXPECT_GT(tiny[1], 0.999f);

    for (double sigma : {0.05, 0.5, 1.0, 1.6, 3.0}) {
        const std::vector<float> s = smoothKernel(sigma);
        EXPECT_NEAR(std::accumulate(s.begin(), s.end(), 0.0), 1.0, 1e-6) << sigma;
        for (size_t i = 0; i < s.size(); ++i) EXPECT_NEAR(s[i], s[s.size() - 1 - i], 1e-7);
        const std::vector<float> d = derivativeKernel(sigma);
        const size_t r = d.size() / 2;
        EXPECT_NEAR(d[r], 0.0f, 1e-7);
        for (size_t i = 0; i < r; ++i) {
            EXPECT_LT(d[i], 0.0f) << sigma << " tap " << i;
            EXPECT_NEAR(d[i], -d[d.size() - 1 - i], 1e-7);
        }
    }
}

TEST(FilterKernels, CentralGradientsAreDoubleSlopeWithOneSidedBorders) {
    // I = x^2 + 3 y^2: 4x and 12y inside, 2 (I[1] - I[0]) and 2 (I[w-1] - I[w-2]) at the borders.
    const int w = 7, h = 5;
    std::vector<float> image(size_t(w * h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) image[size_t(y * w + x)] = float(x * x + 3 * y * y);
    std::vector<float> gx(image.size()), gy(image.size());
    centralGradientX(packedView<const float>(image.data(), w, h), packedView(gx.data(), w, h));
    centralGradientY(packedView<const float>(image.data(), w, h), packedView(gy.data(), w, h));
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const float ex = x == 0 ? 2.0f : x == w - 1 ? 2.0f * float(2 * w - 3) : 4.0f * x;
            const float ey = y == 0 ? 6.0f : y == h - 1 ? 6.0f * float(2 * h - 3) : 12.0f * y;
            EXPECT_EQ(gx[size_t(y * w + x)], ex) << x << "," << y;
            EXPECT_EQ(gy[size_t(y * w + x)], ey) << x << "," << y;
        }
    }
    std::vector<float> mag(image.size());
    gradientMagnitude(packedView<const float>(gx.data(), w, h),
                      packedView<const float>(gy.data(), w, h), packedView(mag.data(), w, h));
    EXPECT_FLOAT_EQ(mag[size_t(2 * w + 3)], std::sqrt(12.0f * 12.0f + 24.0f * 24.0f));
}

TEST(FilterKernels, GaussianGradientGivesTheTrueSlopeOfARamp) {
    const int w = 64, h = 48;
    const float a = 0.25f, b = -0.5f;
    std::vector<float> ramp(size_t(w * h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) ramp[size_t(y * w + x)] = a * x + b * y + 3.0f;
    for (bool parallel : {false, true}) {
        std::vector<float> gx(ramp.size()), gy(ramp.size());
        gaussianGradient(packedView<const float>(ramp.data(), w, h), packedView(gx.data(), w, h),
                         packedView(gy.data(), w, h), 1.6, parallel);
        for (int y = 8; y < h - 8; ++y) {
            for (int x = 8; x < w - 8; ++x) {
                EXPECT_NEAR(gx[size_t(y * w + x)], a, 0.01f * std::abs(a));
                EXPECT_NEAR(gy[size_t(y * w + x)], b, 0.01f * std::abs(b));
            }
        }
    }
}

TEST(FilterPasses, VectorPassesMatchTheScalarReference) {
    struct Case {
        int w, h;
        double sigma;
    };
    // Odd sizes, rows shorter than one vector, kernels longer than the row or the column.
    const Case cases[] = {{37, 23, 1.6}, {13, 17, 0.5}, {1, 11, 1.0},  {5, 13, 1.6},
                          {3, 13, 1.6},  {9, 5, 0.5},   {64, 40, 3.0}, {161, 15, 0.05},
                          {19, 4, 1.6}};
    unsigned seed = 1;
    for (const Case& c : cases) {
        const std::vector<float> in = randomImage(c.w, c.h, seed++, -2.0f, 5.0f);
        for (const std::vector<float>& k : {smoothKernel(c.sigma), derivativeKernel(c.sigma)}) {
            const std::vector<float> rows = run(filterRows, in, c.w, c.h, k);
            expectClose(rows, run(filterRowsReference, in, c.w, c.h, k), k, "rows");
            EXPECT_TRUE(kestor_test::bitwiseEqual(rows, runInPlace(filterRows, in, c.w, c.h, k)));
            // Images shorter than the kernel are clamped at both ends, each row once.
            expectClose(run(filterColumns, in, c.w, c.h, k),
                        run(filterColumnsReference, in, c.w, c.h, k), k, "columns");
            expectClose(runInPlace(filterColumns, in, c.w, c.h, k),
                        runInPlace(filterColumnsReference, in, c.w, c.h, k), k, "in place");
        }
    }
}

TEST(FilterPasses, ColumnsInPlaceFollowTheFixedRowOrder) {
    // One column of 5 rows, kernel (a, b, c): rows 1..3 first, then row 0, then row 4, each
    // reading the rows already written.
    const float a = 0.25f, b = 0.5f, c = 0.125f;
    const std::vector<float> k{a, b, c};
    std::vector<float> col{1.0f, 2.0f, 4.0f, 8.0f, 16.0f};
    std::vector<double> e(col.begin(), col.end());
    for (int y : {1, 2, 3}) e[size_t(y)] = a * e[size_t(y - 1)] + b * e[size_t(y)] + c * e[size_t(y + 1)];
    e[0] = (a + b) * e[0] + c * e[1];
    e[4] = a * e[3] + (b + c) * e[4];
    const std::vector<float> got = runInPlace(filterColumns, col, 1, 5, k);
    for (int y = 0; y < 5; ++y) EXPECT_NEAR(got[size_t(y)], e[size_t(y)], 1e-5) << y;
    // Through a separate output the same kernel gives another, symmetric result.
    const std::vector<float> apart = run(filterColumns, col, 1, 5, k);
    EXPECT_NEAR(apart[2], a * 2.0f + b * 4.0f + c * 8.0f, 1e-6);
    EXPECT_NE(apart[2], got[2]);
}

TEST(FilterPasses, ColumnStripsGiveTheSameBitsInAnyGrouping) {
    const int w = 45, h = 21;
    const std::vector<float> in = randomImage(w, h, 7);
    const std::vector<float> k = smoothKernel(1.6);
    const std::vector<float> whole = run(filterColumns, in, w, h, k);
    std::vector<float> strips(in.size());
    const auto src = packedView(in.data(), w, h);
    const auto dst = packedView(strips.data(), w, h);
    for (auto s : {std::pair<int, int>{0, 3}, {3, 20}, {20, 21}, {21, 45}})
        filterColumns(columnStrip(src, s.first, s.second), k.data(), int(k.size()),
                      columnStrip(dst, s.first, s.second));
    EXPECT_TRUE(kestor_test::bitwiseEqual(whole, strips));
}

TEST(ColorAndSampling, GrayWeightsByteZeroAsRedAndClamps) {
    const uint8_t color[] = {255, 0, 0, 0, 255, 0, 0, 0, 255, 255, 255, 255};
    float gray[4];
    colorToGray(packedView(reinterpret_cast<const Byte3*>(color), 4, 1), packedView(gray, 4, 1));
    EXPECT_FLOAT_EQ(gray[0], 0.299f);
    EXPECT_FLOAT_EQ(gray[1], 0.587f);
    EXPECT_FLOAT_EQ(gray[2], 0.114f);
    EXPECT_LE(gray[3], 1.0f);
    EXPECT_FLOAT_EQ(gray[3], 1.0f);
}

TEST(ColorAndSampling, SubsamplingTakesEverySecondPixelAndSkipsTheOddLastColumn) {
    const int w = 5, h = 3;  // coarser: 2 by 1
    std::vector<float> fine(size_t(w * h));
    std::iota(fine.begin(), fine.end(), 0.0f);
    float coarse[2];
    subsampleGray(packedView<const float>(fine.data(), w, h), packedView(coarse, 2, 1));
    EXPECT_EQ(coarse[0], 0.0f);
    EXPECT_EQ(coarse[1], 2.0f);
    std::vector<Float3> vfine(size_t(w * h), Float3{1, 2, 3});
    vfine[2] = Float3{0, 0, 0};
    Float3 vcoarse[2];
    subsampleVmap(packedView<const Float3>(vfine.data(), w, h), packedView(vcoarse, 2, 1));
    EXPECT_EQ(vcoarse[0].z, 3.0f);
    EXPECT_EQ(vcoarse[1].z, 0.0f);  // invalid stays invalid, never blended
}
