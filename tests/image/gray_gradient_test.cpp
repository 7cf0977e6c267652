#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "image/filter_kernels.h"
#include "image/gray_gradient.h"
#include "kestor.h"
#include "gray_stages.h"
#include "support/image_compare.h"

using namespace kestor;
using kestor_test::bitwiseEqual;
using kestor_test::kSentinel;

namespace {

struct Maps {
    std::vector<float> gray, gx, gy;
};

Maps runExport(const std::vector<uint8_t>& color, int w, int h, double sigma, bool useMagnitude, bool parallel) {
    Maps m{std::vector<float>(size_t(w * h), kSentinel), {}, {}};
    m.gx = m.gy = m.gray;
    EXPECT_EQ(KESTORCalcGrayAndGradient(color.data(), m.gray.data(), m.gx.data(), m.gy.data(), w, h, sigma,
                                        useMagnitude, parallel), 0);
    return m;
}

}  // namespace

TEST(CalcGrayAndGradient, ParallelEqualsSerialExceptGradientXAtTheStripBorders) {
    const int w = 53, h = 29;  // two threads: strips [0, 27) and [27, 53)
    const std::vector<uint8_t> color = kestor_test::randomColor(w, h, 3);
    for (int threads : {1, 2}) {
        kestor_test::ThreadScope scope(threads);
        // With two threads the magnitude carries the strip borders into the gray map itself.
        for (bool useMagnitude : {false, threads == 1}) {
            SCOPED_TRACE(::testing::Message() << threads << " threads, magnitude " << useMagnitude);
            const Maps s = runExport(color, w, h, 1.6, useMagnitude, false);
            const Maps p = runExport(color, w, h, 1.6, useMagnitude, true);
            EXPECT_TRUE(bitwiseEqual(s.gray, p.gray));
            EXPECT_TRUE(bitwiseEqual(s.gy, p.gy));
            int differing = 0;
            for (int y = 0; y < h; ++y) {
                const float* g = &p.gray[size_t(y * w)];
                const float* gx = &p.gx[size_t(y * w)];
                for (int x = 0; x < w; ++x) {
                    if (threads == 2 && (x == 26 || x == 27)) {  // a strip's own border rule
                        EXPECT_EQ(gx[x], x == 26 ? 2.0f * (g[26] - g[25]) : 2.0f * (g[28] - g[27]));
                        differing += gx[x] != s.gx[size_t(y * w + x)];
                    } else {
                        EXPECT_EQ(gx[x], s.gx[size_t(y * w + x)]) << x << "," << y;
                    }
                }
            }
            EXPECT_GT(differing, threads == 2 ? h : -1);
        }
    }
}

// Bit for bit the steps: the gray smoothed in place (each pass reading what the last one wrote,
// which differs from smoothing through a scratch buffer), the optional magnitude, the gradients.
TEST(CalcGrayAndGradient, GrayIsSmoothedInPlaceThenOptionalMagnitudeThenCentralGradients) {
    const int w = 33, h = 21;
    const std::vector<uint8_t> color = kestor_test::randomColor(w, h, 5);
    std::vector<float> gray(size_t(w * h));
    colorToGray(packedView(reinterpret_cast<const Byte3*>(color.data()), w, h), packedView(gray.data(), w, h));
    const std::vector<float> apart = kestor_test::grayStages(gray, w, h, 1.6, false, false).gray;
    for (bool useMagnitude : {false, true}) {
        const Maps m = runExport(color, w, h, 1.6, useMagnitude, false);
        const kestor_test::GrayStages s = kestor_test::grayStages(gray, w, h, 1.6, true, useMagnitude);
        EXPECT_TRUE(bitwiseEqual(m.gray, s.gray) && bitwiseEqual(m.gx, s.gx) && bitwiseEqual(m.gy, s.gy)) << useMagnitude;
        EXPECT_TRUE(useMagnitude || !bitwiseEqual(m.gray, apart));
    }
    // The smoothing of a single gray image works in place the same way.
    const std::vector<float> inPlace = kestor_test::grayStages(gray, w, h, 1.6, true, false).gray;
    gaussianSmooth(packedView<const float>(gray.data(), w, h), 1.6, packedView(gray.data(), w, h));
    EXPECT_TRUE(bitwiseEqual(gray, inPlace));
}
