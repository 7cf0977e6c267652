#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "image/filter_kernels.h"
#include "image/gray_gradient.h"
#include "kestor.h"
#include "support/image_compare.h"

using namespace kestor;
using kestor_test::kSentinel;

namespace {

struct Maps {
    std::vector<float> gray, gx, gy;
};

Maps runExport(const std::vector<uint8_t>& color, int w, int h, double sigma, bool useMagnitude,
               bool parallel) {
    Maps m;
    m.gray.assign(size_t(w * h), kSentinel);
    m.gx = m.gray;
    m.gy = m.gray;
    EXPECT_EQ(KESTORCalcGrayAndGradient(color.data(), m.gray.data(), m.gx.data(), m.gy.data(), w,
                                        h, sigma, useMagnitude, parallel),
              0);
    return m;
}

}  // namespace

TEST(CalcGrayAndGradient, OneThreadMakesTheParallelFormEqualTheSerialForm) {
    const int w = 53, h = 29;
    const std::vector<uint8_t> color = kestor_test::randomColor(w, h, 3);
    kestor_test::ThreadScope one(1);
    for (bool useMagnitude : {false, true}) {
        const Maps serial = runExport(color, w, h, 1.6, useMagnitude, false);
        const Maps parallel = runExport(color, w, h, 1.6, useMagnitude, true);
        EXPECT_TRUE(kestor_test::bitwiseEqual(serial.gray, parallel.gray));
        EXPECT_TRUE(kestor_test::bitwiseEqual(serial.gx, parallel.gx));
        EXPECT_TRUE(kestor_test::bitwiseEqual(serial.gy, parallel.gy));
    }
}

TEST(CalcGrayAndGradient, TwoThreadsDifferOnlyInGradientXAtTheStripBorders) {
    const int w = 53, h = 29;  // strips [0, 27) and [27, 53)
    const std::vector<uint8_t> color = kestor_test::randomColor(w, h, 4);
    kestor_test::ThreadScope two(2);
    const Maps serial = runExport(color, w, h, 1.6, false, false);
    const Maps parallel = runExport(color, w, h, 1.6, false, true);
    EXPECT_TRUE(kestor_test::bitwiseEqual(serial.gray, parallel.gray));
    EXPECT_TRUE(kestor_test::bitwiseEqual(serial.gy, parallel.gy));
    int differing = 0;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const size_t i = size_t(y * w + x);
            const float* g = &parallel.gray[size_t(y * w)];
            if (x == 26) {
                EXPECT_EQ(parallel.gx[i], 2.0f * (g[26] - g[25]));
                differing += parallel.gx[i] != serial.gx[i];
            } else if (x == 27) {
                EXPECT_EQ(parallel.gx[i], 2.0f * (g[28] - g[27]));
                differing += parallel.gx[i] != serial.gx[i];
            } else {
                EXPECT_EQ(parallel.gx[i], serial.gx[i]) << x << "," << y;
            }
        }
    }
    EXPECT_GT(differing, h);  // the borders really are treated as image borders
}

TEST(CalcGrayAndGradient, GradientsAreTwiceTheSlopeInsideAndAtTheBorders) {
    // A horizontal ramp in every channel survives smoothing unchanged away from the left and
    // right edges, so gx is twice its slope there.
    const int w = 40, h = 30;
    std::vector<uint8_t> color(size_t(w * h * 3));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) color[size_t((y * w + x) * 3 + c)] = uint8_t(10 + 5 * x);
    const float slope = 5.0f / 255.0f;
    for (bool parallel : {false, true}) {
        const Maps m = runExport(color, w, h, 1.0, false, parallel);
        for (int y = 0; y < h; ++y) {
            const float* g = &m.gray[size_t(y * w)];
            const float* gx = &m.gx[size_t(y * w)];
            for (int x : {5, 19, 20, 33}) EXPECT_NEAR(gx[x], 2.0f * slope, 1e-5f) << x << "," << y;
            // The borders take twice the one-sided difference, with the sign of the slope.
            EXPECT_EQ(gx[0], 2.0f * (g[1] - g[0]));
            EXPECT_EQ(gx[w - 1], 2.0f * (g[w - 1] - g[w - 2]));
            EXPECT_GT(gx[0], 0.0f);
            if (y > 2 && y < h - 3) {
                EXPECT_NEAR(m.gy[size_t(y * w + 10)], 0.0f, 1e-5f);
            }
        }
        // With the magnitude: a constant gray of 2 slope inside, whose own gradient is 0 there.
        const Maps g = runExport(color, w, h, 1.0, true, parallel);
        EXPECT_NEAR(g.gray[size_t(15 * w + 20)], 2.0f * slope, 1e-5f);
        EXPECT_NEAR(g.gx[size_t(15 * w + 20)], 0.0f, 1e-5f);
    }
}

TEST(CalcGrayAndGradient, SmoothingIsInPlaceAndUnlikeThroughAScratchBuffer) {
    const int w = 33, h = 21;
    const std::vector<uint8_t> color = kestor_test::randomColor(w, h, 5);
    const Maps m = runExport(color, w, h, 1.6, false, false);
    std::vector<float> inPlace(size_t(w * h)), scratch(inPlace.size()), apart(inPlace.size());
    colorToGray(packedView(reinterpret_cast<const Byte3*>(color.data()), w, h),
                packedView(inPlace.data(), w, h));
    const std::vector<float> k = smoothKernel(1.6);
    const auto view = packedView(inPlace.data(), w, h);
    filterColumns(constView(view), k.data(), int(k.size()), packedView(scratch.data(), w, h));
    filterRows(packedView<const float>(scratch.data(), w, h), k.data(), int(k.size()),
               packedView(apart.data(), w, h));
    filterColumns(constView(view), k.data(), int(k.size()), view);
    filterRows(constView(view), k.data(), int(k.size()), view);
    EXPECT_TRUE(kestor_test::bitwiseEqual(m.gray, inPlace));
    EXPECT_FALSE(kestor_test::bitwiseEqual(m.gray, apart));

    // gaussianSmooth in place is the same smoothing.
    std::vector<float> gray(size_t(w * h));
    colorToGray(packedView(reinterpret_cast<const Byte3*>(color.data()), w, h),
                packedView(gray.data(), w, h));
    gaussianSmooth(packedView<const float>(gray.data(), w, h), 1.6, packedView(gray.data(), w, h));
    EXPECT_TRUE(kestor_test::bitwiseEqual(gray, inPlace));
}

TEST(CalcGrayAndGradient, BlackImageAndTinySigmaGiveZeros) {
    const int w = 17, h = 9;
    const std::vector<uint8_t> black(size_t(w * h * 3), 0);
    for (bool useMagnitude : {false, true}) {
        const Maps m = runExport(black, w, h, 1e-3, useMagnitude, true);
        for (const auto* v : {&m.gray, &m.gx, &m.gy})
            EXPECT_TRUE(std::all_of(v->begin(), v->end(), [](float x) { return x == 0.0f; }));
    }
}

TEST(CalcGrayAndGradient, BadArgumentsReturnFourAndWriteNothing) {
    const int w = 8, h = 4;
    const std::vector<uint8_t> color(size_t(w * h * 3), 100);
    std::vector<float> gray(size_t(w * h), kSentinel), gx(gray), gy(gray);
    const uint8_t* c = color.data();
    float *g = gray.data(), *x = gx.data(), *y = gy.data();
    EXPECT_EQ(KESTORCalcGrayAndGradient(nullptr, g, x, y, w, h, 1.0, false, false), 4);
    EXPECT_EQ(KESTORCalcGrayAndGradient(c, nullptr, x, y, w, h, 1.0, false, false), 4);
    EXPECT_EQ(KESTORCalcGrayAndGradient(c, g, nullptr, y, w, h, 1.0, false, false), 4);
    EXPECT_EQ(KESTORCalcGrayAndGradient(c, g, x, nullptr, w, h, 1.0, false, false), 4);
    EXPECT_EQ(KESTORCalcGrayAndGradient(c, g, x, y, 0, h, 1.0, false, false), 4);
    EXPECT_EQ(KESTORCalcGrayAndGradient(c, g, x, y, w, -1, 1.0, false, false), 4);
    for (const auto* v : {&gray, &gx, &gy})
        EXPECT_TRUE(std::all_of(v->begin(), v->end(), [](float f) { return f == kSentinel; }));
}
