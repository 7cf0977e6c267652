// Sizes whose products do not fit an int: refused before any buffer is touched, even though the
// buffers here are far too small for what the sizes claim.
#include <gtest/gtest.h>

#include <vector>

#include "kestor.h"

TEST(MultiExports, SizesWhoseProductsOverflowAreRefusedBeforeAnyWrite) {
    const std::vector<float> map(96, 1.0f);
    const float* frames[3] = {map.data(), map.data(), map.data()};
    const std::vector<unsigned char> bytes(96, 1);
    const unsigned char* images[3] = {bytes.data(), bytes.data(), bytes.data()};
    const double K[9] = {500, 0, 4, 0, 500, 4, 0, 0, 1};
    const int ids[3] = {0, 0, 1};
    std::vector<double> rts(36, 7.0);
    double* r = rts.data();
    struct Case {
        const char* name;
        int width, height, frameCount;
    };
    // The first three overflow an image's values or a row's bytes; 2^28 frames hold more pose
    // values than an int counts (their ids and depths are never read).
    const Case cases[] = {{"70000 x 70000", 70000, 70000, 3},
                          {"pixels times three", 30000, 30000, 3},
                          {"one long row", 1 << 28, 1, 3},
                          {"frames times twelve", 8, 4, 1 << 28}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const int w = c.width, h = c.height, n = c.frameCount, sizes[2] = {w, h};
        EXPECT_EQ(KESTORMatchMulti(frames, frames, frames, sizes, K, r, n, 3, 0.1, 1.0, 0.1, 0.5, 0,
                                   false, false, nullptr, nullptr), 4);
        EXPECT_EQ(KESTORMatchMultiDepth(frames, images, images, w, h, K, r, n, 3, 0.1, 1.0, 0.1, 0.5,
                                        0, false, false, nullptr, nullptr), 4);
        EXPECT_EQ(KESTORMatchMultiVmapNmap(frames, frames, frames, frames, frames, w, h, K, r, n, 3,
                                           0.1, 1.0, 0.1, 0.5, 0, false, false, nullptr, nullptr), 4);
        EXPECT_EQ(KESTORMatchMultiDepthInGroup(frames, images, images, w, h, K, r, ids, n, 3, 0.1,
                                               1.0, 0.1, 0.5, false, false, nullptr, nullptr), 4);
        EXPECT_EQ(KESTORMatchMultiVmapNmapInGroup(frames, frames, frames, frames, frames, w, h, K, r,
                                                  ids, n, 3, 0.1, 1.0, 0.1, 0.5, false, false,
                                                  nullptr, nullptr), 4);
        EXPECT_EQ(rts, std::vector<double>(36, 7.0));
    }
    // Point sets without a camera: a count whose floats overflow, or a negative one.
    for (int bad : {1 << 30, -1}) {
        const int counts[3] = {8, bad, 8};
        EXPECT_EQ(KESTORMatchMulti(frames, nullptr, nullptr, counts, nullptr, r, 3, 3, 0.1, 1.0, 0.1,
                                   0.5, 0, false, false, nullptr, nullptr), 4) << bad;
    }
    EXPECT_EQ(rts, std::vector<double>(36, 7.0));
}
