// Sizes whose products do not fit an int: refused before any buffer is touched, even though the
// buffers here are far too small for what the sizes claim.
#include <gtest/gtest.h>

#include <vector>

#include "kestor.h"

TEST(PairExports, SizesWhoseProductsOverflowAreRefusedBeforeAnyWrite) {
    const std::vector<float> map(96, 1.0f);
    const float* m = map.data();
    const float* levels[1] = {m};
    const double K[9] = {500, 0, 4, 0, 500, 4, 0, 0, 1};
    std::vector<double> rt(12, 7.0), info(36, 7.0);
    double *r = rt.data(), *i = info.data();
    const int its[1] = {3};
    const double dist[1] = {0.1};
    struct Case {
        const char* name;
        int width, height;  // an image's, or with no camera the two point counts
    };
    const Case cases[] = {{"70000 x 70000", 70000, 70000},
                          {"pixels times three", 30000, 30000},
                          {"one long row", 1 << 28, 1},
                          {"points times three", 1 << 30, 8}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const int w = c.width, h = c.height, sizes[2] = {w, h}, swapped[2] = {h, w};
        const bool points = h == 8;
        if (!points) {
            EXPECT_EQ(KESTORMatchPair(m, m, m, m, m, m, sizes, K, r, i, 3, 0.1, 1.0, 0.1, 0.5, false,
                                      false, nullptr, nullptr), 4);
            EXPECT_EQ(KESTORMatchPairDepth(m, nullptr, nullptr, m, nullptr, nullptr, w, h, K, r, i, 3,
                                           0.1, 1.0, 0.1, 0.5, false, false, nullptr, nullptr), 4);
            EXPECT_EQ(KESTORMatchPairVmapNmap(m, m, m, m, m, m, m, m, w, h, K, r, i, 3, 0.1, 1.0, 0.1,
                                              0.5, false, false, nullptr, nullptr), 4);
            EXPECT_EQ(KESTORMatchPairVmapNmapPyramid(levels, levels, levels, levels, levels, levels,
                                                     levels, levels, w, h, K, r, i, its, dist, 1,
                                                     1.0, 0.1, 0.5, false, false, nullptr, nullptr),
                      4);
            EXPECT_EQ(KESTORCalcVmapMatchInfo(m, m, m, m, w, h, K, r, i, 0.1, 1.0, 0.1), 4);
            EXPECT_EQ(KESTORCalcVmapSelfMatchInfo(m, w, h, r, i), 4);
        } else {
            // Either count too large, without a camera.
            for (const int* s : {sizes, swapped})
                EXPECT_EQ(KESTORMatchPair(m, m, m, m, m, m, s, nullptr, r, i, 3, 0.1, 1.0, 0.1, 0.5,
                                          false, false, nullptr, nullptr), 4);
            EXPECT_EQ(KESTORCalcPointMatchInfo(m, m, w, m, m, h, r, i, 0.1, 1.0, 0.1), 4);
            EXPECT_EQ(KESTORCalcPointMatchInfo(m, m, h, m, m, w, r, i, 0.1, 1.0, 0.1), 4);
        }
        EXPECT_EQ(rt, std::vector<double>(12, 7.0));
        EXPECT_EQ(info, std::vector<double>(36, 7.0));
    }
}
