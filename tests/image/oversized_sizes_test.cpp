// Sizes whose products do not fit an int: refused before any buffer is touched, even though the
// buffers here are far too small for what the sizes claim.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kestor.h"

namespace {

constexpr float kUntouched = -7.5f;

void noPoints(const float*, const float*, const uint8_t*, int, void*) {}

}  // namespace

TEST(ImageExports, SizesWhoseProductsOverflowAreRefusedBeforeAnyWrite) {
    std::vector<float> out(64, kUntouched), out2(out), out3(out);
    std::vector<uint8_t> bytes(64, 7);
    const std::vector<float> in(64, 1.0f);
    const std::vector<uint8_t> color(64, 100);
    const double K[9] = {500, 0, 32, 0, 500, 24, 0, 0, 1}, rt[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    float* levels[3] = {out.data(), out2.data(), out3.data()};
    struct Case {
        const char* name;
        int width, height, count;
    };
    // 70000^2 pixels wrap an int; 30000^2 fit as pixels but not as three floats a pixel; a row
    // of 2^28 vertices is more bytes than an int counts; 2^30 points hold 3 * 2^30 floats.
    const Case cases[] = {{"70000 x 70000", 70000, 70000, 1},
                          {"pixels times three", 30000, 30000, 1},
                          {"one long row", 1 << 28, 1, 1},
                          {"points times three", 8, 8, 1 << 30}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const int w = c.width, h = c.height;
        const bool pointsOnly = c.count > 1;
        if (!pointsOnly) {
            EXPECT_EQ(KESTORDepthToVmapNmap(K, in.data(), nullptr, out.data(), out2.data(), w, h), 4);
            EXPECT_EQ(KESTORCalcPyramidVmapNmap(K, in.data(), color.data(), nullptr, levels, levels,
                                                levels, levels, levels, w, h, 1, true), 4);
            EXPECT_EQ(KESTORCalcGrayAndGradient(color.data(), out.data(), out2.data(), out3.data(), w,
                                                h, 1.0, false, true), 4);
            EXPECT_EQ(KESTORDepthToMask(in.data(), bytes.data(), w, h), 4);
            EXPECT_EQ(KESTORColorDepthToPoints(in.data(), nullptr, nullptr, w, h, K, rt, noPoints,
                                               nullptr), 4);
            EXPECT_EQ(KESTORWriteColorDepthToPoints("/nonexistent/oversized.ply", in.data(), nullptr,
                                                    nullptr, w, h, K, rt), 4);
        }
        EXPECT_EQ(KESTORCvtUVToPointFromDepth(K, in.data(), w, h, in.data(), out.data(), out2.data(),
                                              c.count, false), 4);
        if (pointsOnly) {
            EXPECT_EQ(KESTORWritePoints("/nonexistent/oversized.ply", in.data(), nullptr, nullptr,
                                        c.count), 4);
        }
        for (const auto* v : {&out, &out2, &out3})
            EXPECT_TRUE(std::all_of(v->begin(), v->end(), [](float x) { return x == kUntouched; }));
        EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 7; }));
    }
}
