#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "kestor.h"
#include "support/image_compare.h"

using kestor_test::kSentinel;

namespace {

int callbackCalls = 0;
void countPoints(const float*, const float*, const uint8_t*, int, void*) { ++callbackCalls; }

}  // namespace

// Each row breaks one argument of an image export: status 4, no output written, no file made, no
// callback. Sizes whose products do not fit an int (70000^2 pixels wrap; 30000^2 pixels fit but
// not three floats each; a row of 2^28 vertices is more bytes than an int counts; 2^30 points
// hold 3 * 2^30 floats) are refused although the buffers are far too small for what they claim.
TEST(ImageExports, BadArgumentsAndOversizedSizesWriteNothing) {
    std::vector<float> a(8 * 8 * 3, kSentinel), b(a), c(a);
    std::vector<uint8_t> bytes(64, 7);
    const std::vector<float> in(64, 1.0f);
    const std::vector<uint8_t> color(64 * 3, 100);
    const double K[9] = {500, 0, 3.5, 0, 500, 3.5, 0, 0, 1}, rt[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    float* levels[3] = {a.data(), b.data(), c.data()};
    const std::string file = testing::TempDir() + "kestor_refused.ply";
    const char* path = file.c_str();
    const float* d = in.data();
    const uint8_t* rgb = color.data();
    float *o1 = a.data(), *o2 = b.data(), *o3 = c.data();
    std::vector<std::pair<std::string, std::function<int()>>> rows = {
        {"DepthToVmapNmap K", [&] { return KESTORDepthToVmapNmap(nullptr, d, nullptr, o1, o2, 8, 8); }},
        {"DepthToVmapNmap depth", [&] { return KESTORDepthToVmapNmap(K, nullptr, nullptr, o1, o2, 8, 8); }},
        {"DepthToVmapNmap vmap", [&] { return KESTORDepthToVmapNmap(K, d, nullptr, nullptr, o2, 8, 8); }},
        {"Pyramid K", [&] { return KESTORCalcPyramidVmapNmap(nullptr, d, rgb, nullptr, levels, levels, levels, levels, levels, 8, 8, 1, false); }},
        {"Pyramid depth", [&] { return KESTORCalcPyramidVmapNmap(K, nullptr, rgb, nullptr, levels, levels, levels, levels, levels, 8, 8, 1, false); }},
        {"Pyramid vmaps", [&] { return KESTORCalcPyramidVmapNmap(K, d, rgb, nullptr, nullptr, levels, levels, levels, levels, 8, 8, 1, false); }},
        {"Pyramid nmaps", [&] { return KESTORCalcPyramidVmapNmap(K, d, rgb, nullptr, levels, nullptr, levels, levels, levels, 8, 8, 1, false); }},
        {"Pyramid no level", [&] { return KESTORCalcPyramidVmapNmap(K, d, rgb, nullptr, levels, levels, levels, levels, levels, 8, 8, 0, false); }},
        {"Gray color", [&] { return KESTORCalcGrayAndGradient(nullptr, o1, o2, o3, 8, 8, 1.0, false, false); }},
        {"Gray gray", [&] { return KESTORCalcGrayAndGradient(rgb, nullptr, o2, o3, 8, 8, 1.0, false, false); }},
        {"Gray gradX", [&] { return KESTORCalcGrayAndGradient(rgb, o1, nullptr, o3, 8, 8, 1.0, false, false); }},
        {"Gray gradY", [&] { return KESTORCalcGrayAndGradient(rgb, o1, o2, nullptr, 8, 8, 1.0, false, false); }},
        {"DepthToMask depth", [&] { return KESTORDepthToMask(nullptr, bytes.data(), 8, 8); }},
        {"DepthToMask mask", [&] { return KESTORDepthToMask(d, nullptr, 8, 8); }},
        {"CvtUV K", [&] { return KESTORCvtUVToPointFromDepth(nullptr, d, 8, 8, d, o1, o2, 1, false); }},
        {"CvtUV depth", [&] { return KESTORCvtUVToPointFromDepth(K, nullptr, 8, 8, d, o1, o2, 1, false); }},
        {"CvtUV uv", [&] { return KESTORCvtUVToPointFromDepth(K, d, 8, 8, nullptr, o1, o2, 1, false); }},
        {"CvtUV points", [&] { return KESTORCvtUVToPointFromDepth(K, d, 8, 8, d, nullptr, o2, 1, false); }},
        {"CvtUV normals", [&] { return KESTORCvtUVToPointFromDepth(K, d, 8, 8, d, o1, nullptr, 1, false); }},
        {"CvtUV no point", [&] { return KESTORCvtUVToPointFromDepth(K, d, 8, 8, d, o1, o2, 0, false); }},
        {"CvtUV points times three", [&] { return KESTORCvtUVToPointFromDepth(K, d, 8, 8, d, o1, o2, 1 << 30, false); }},
        {"ColorDepthToPoints depth", [&] { return KESTORColorDepthToPoints(nullptr, rgb, nullptr, 8, 8, K, rt, countPoints, nullptr); }},
        {"ColorDepthToPoints callback", [&] { return KESTORColorDepthToPoints(d, rgb, nullptr, 8, 8, K, rt, nullptr, nullptr); }},
        {"WritePoints points", [&] { return KESTORWritePoints(path, nullptr, d, rgb, 2); }},
        {"WritePoints no point", [&] { return KESTORWritePoints(path, d, d, rgb, 0); }},
        {"WritePoints points times three", [&] { return KESTORWritePoints(path, d, nullptr, nullptr, 1 << 30); }},
        {"WriteColorDepth depth", [&] { return KESTORWriteColorDepthToPoints(path, nullptr, rgb, nullptr, 8, 8, K, rt); }},
        {"WriteColorDepth K", [&] { return KESTORWriteColorDepthToPoints(path, d, rgb, nullptr, 8, 8, nullptr, rt); }},
        {"WriteColorDepth rt", [&] { return KESTORWriteColorDepthToPoints(path, d, rgb, nullptr, 8, 8, K, nullptr); }},
    };
    // Every export that takes an image size, at sizes without pixels and sizes that overflow.
    const std::pair<std::string, std::function<int(int, int)>> sized[] = {
        {"DepthToVmapNmap", [&](int w, int h) { return KESTORDepthToVmapNmap(K, d, nullptr, o1, o2, w, h); }},
        {"Pyramid", [&](int w, int h) { return KESTORCalcPyramidVmapNmap(K, d, rgb, nullptr, levels, levels, levels, levels, levels, w, h, 1, true); }},
        {"Gray", [&](int w, int h) { return KESTORCalcGrayAndGradient(rgb, o1, o2, o3, w, h, 1.0, false, true); }},
        {"DepthToMask", [&](int w, int h) { return KESTORDepthToMask(d, bytes.data(), w, h); }},
        {"CvtUV", [&](int w, int h) { return KESTORCvtUVToPointFromDepth(K, d, w, h, d, o1, o2, 1, false); }},
        {"ColorDepthToPoints", [&](int w, int h) { return KESTORColorDepthToPoints(d, rgb, nullptr, w, h, K, rt, countPoints, nullptr); }},
        {"WriteColorDepth", [&](int w, int h) { return KESTORWriteColorDepthToPoints(path, d, rgb, nullptr, w, h, K, rt); }},
    };
    for (const auto& [name, call] : sized)
        for (const auto& [w, h] : {std::pair{0, 8}, {8, 0}, {8, -1}, {70000, 70000}, {30000, 30000}, {1 << 28, 1}})
            rows.push_back({name + " " + std::to_string(w) + "x" + std::to_string(h), [&, w = w, h = h] { return call(w, h); }});
    // sigma sets the kernel's length: NaN, infinite or huge is refused, not converted to an int.
    for (double sigma : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e300, 1000.5})
        rows.push_back({"Gray sigma " + std::to_string(sigma), [&, sigma] { return KESTORCalcGrayAndGradient(rgb, o1, o2, o3, 8, 8, sigma, false, true); }});
    // Past 32 levels a level's size would be a shift beyond an int's bits (x86 takes a shift by 32
    // as none, and level 32 came out full size).
    std::vector<float*> deep(33, a.data());
    rows.push_back({"Pyramid 33 levels", [&] { return KESTORCalcPyramidVmapNmap(K, d, nullptr, nullptr, deep.data(), deep.data(), nullptr, nullptr, nullptr, 8, 8, 33, false); }});
    for (const auto& [name, call] : rows) {
        EXPECT_EQ(call(), 4) << name;
        for (const auto* v : {&a, &b, &c})
            EXPECT_TRUE(std::all_of(v->begin(), v->end(), [](float x) { return x == kSentinel; })) << name;
        EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](uint8_t x) { return x == 7; })) << name;
        EXPECT_FALSE(std::filesystem::exists(file)) << name;
    }
    EXPECT_EQ(callbackCalls, 0);
}
