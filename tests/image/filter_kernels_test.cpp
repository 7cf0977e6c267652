#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

#include "image/filter_kernels.h"
#include "support/filter_reference.h"
#include "support/image_compare.h"

using namespace kestor;

namespace {

using Pass = void (*)(const ImageView<const float>&, const float*, int, const ImageView<float>&);

// One pass into a separate output, or in place when `inPlace`.
std::vector<float> run(Pass pass, std::vector<float> in, int w, int h, const std::vector<float>& k,
                       bool inPlace = false) {
    std::vector<float> out(in.size(), kestor_test::kSentinel);
    const auto dst = packedView(inPlace ? in.data() : out.data(), w, h);
    pass(packedView<const float>(in.data(), w, h), k.data(), int(k.size()), dst);
    return inPlace ? in : out;
}

}  // namespace

TEST(FilterKernels, TapCountsSumsAndSigns) {
    EXPECT_EQ(smoothKernel(0.5).size(), 5u);
    EXPECT_EQ(smoothKernel(1.6).size(), 11u);
    EXPECT_EQ(derivativeKernel(1.6).size(), 13u);
    EXPECT_EQ(smoothKernel(0.05).size(), 3u);
    for (double sigma : {0.05, 0.5, 1.6, 3.0}) {
        const std::vector<float> s = smoothKernel(sigma), d = derivativeKernel(sigma);
        EXPECT_NEAR(std::accumulate(s.begin(), s.end(), 0.0), 1.0, 1e-6) << sigma;
        const size_t r = d.size() / 2;
        for (size_t i = 0; i < s.size(); ++i) EXPECT_NEAR(s[i], s[s.size() - 1 - i], 1e-7);
        for (size_t i = 0; i < r; ++i) {  // negative left of the centre, odd about it
            EXPECT_LT(d[i], 0.0f) << sigma << " tap " << i;
            EXPECT_NEAR(d[i], -d[d.size() - 1 - i], 1e-7);
        }
    }
}

TEST(FilterKernels, CentralGradientsAreTwiceTheSlopeAndGaussianGradientTheSlope) {
    // I = x^2 + 3 y^2: 4x and 12y inside, 2 (I[1] - I[0]) and 2 (I[w-1] - I[w-2]) at the borders.
    const int w = 7, h = 5;
    std::vector<float> image(size_t(w * h)), gx(image.size()), gy(image.size()), mag(image.size());
    for (int i = 0; i < w * h; ++i) image[size_t(i)] = float((i % w) * (i % w) + 3 * (i / w) * (i / w));
    centralGradientX(packedView<const float>(image.data(), w, h), packedView(gx.data(), w, h));
    centralGradientY(packedView<const float>(image.data(), w, h), packedView(gy.data(), w, h));
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            EXPECT_EQ(gx[size_t(y * w + x)], x == 0 ? 2.0f : x == w - 1 ? 2.0f * (2 * w - 3) : 4.0f * x);
            EXPECT_EQ(gy[size_t(y * w + x)], y == 0 ? 6.0f : y == h - 1 ? 6.0f * (2 * h - 3) : 12.0f * y);
        }
    }
    gradientMagnitude(packedView<const float>(gx.data(), w, h), packedView<const float>(gy.data(), w, h),
                      packedView(mag.data(), w, h));
    EXPECT_FLOAT_EQ(mag[size_t(2 * w + 3)], std::sqrt(12.0f * 12.0f + 24.0f * 24.0f));

    const int W = 64, H = 48;
    const float a = 0.25f, b = -0.5f;
    std::vector<float> ramp(size_t(W * H));
    for (int i = 0; i < W * H; ++i) ramp[size_t(i)] = a * float(i % W) + b * float(i / W) + 3.0f;
    for (bool parallel : {false, true}) {
        std::vector<float> rx(ramp.size()), ry(ramp.size());
        gaussianGradient(packedView<const float>(ramp.data(), W, H), packedView(rx.data(), W, H),
                         packedView(ry.data(), W, H), 1.6, parallel);
        for (int y = 8; y < H - 8; ++y) {
            for (int x = 8; x < W - 8; ++x) {
                EXPECT_NEAR(rx[size_t(y * W + x)], a, 0.01f * std::abs(a));
                EXPECT_NEAR(ry[size_t(y * W + x)], b, 0.01f * std::abs(b));
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
    const Case cases[] = {{37, 23, 1.6}, {13, 17, 0.5}, {1, 11, 1.0},  {5, 13, 1.6}, {3, 13, 1.6},
                          {9, 5, 0.5},   {64, 40, 3.0}, {161, 15, 0.05}, {19, 4, 1.6}};
    unsigned seed = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.w << "x" << c.h << " sigma " << c.sigma);
        const std::vector<float> in = kestor_test::randomImage(c.w, c.h, seed++, -2.0f, 5.0f);
        for (const std::vector<float>& k : {smoothKernel(c.sigma), derivativeKernel(c.sigma)}) {
            // Equal up to the rounding of a sum of |k| |x|.
            const float tol = 4e-6f * std::accumulate(k.begin(), k.end(), 0.0f,
                                                      [](float s, float v) { return s + std::abs(v); });
            const auto close = [&](const std::vector<float>& a, const std::vector<float>& e, const char* what) {
                for (size_t i = 0; i < a.size(); ++i) ASSERT_NEAR(a[i], e[i], tol) << what << " at " << i;
            };
            const std::vector<float> rows = run(filterRows, in, c.w, c.h, k);
            close(rows, run(filterRowsReference, in, c.w, c.h, k), "rows");
            EXPECT_TRUE(kestor_test::bitwiseEqual(rows, run(filterRows, in, c.w, c.h, k, true)));
            close(run(filterColumns, in, c.w, c.h, k), run(filterColumnsReference, in, c.w, c.h, k), "columns");
            close(run(filterColumns, in, c.w, c.h, k, true), run(filterColumnsReference, in, c.w, c.h, k, true),
                  "columns in place");
        }
    }
}

TEST(ColorAndSampling, GrayWeightsByteZeroAsRedAndClamps) {
    const uint8_t color[] = {255, 0, 0, 0, 255, 0, 0, 0, 255, 255, 255, 255};
    float gray[4];
    colorToGray(packedView(reinterpret_cast<const Byte3*>(color), 4, 1), packedView(gray, 4, 1));
    EXPECT_FLOAT_EQ(gray[0], 0.299f);
    EXPECT_FLOAT_EQ(gray[1], 0.587f);
    EXPECT_FLOAT_EQ(gray[2], 0.114f);
    EXPECT_EQ(gray[3], 1.0f);  // clamped
}
