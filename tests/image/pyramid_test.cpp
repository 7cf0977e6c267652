#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "image/filter_kernels.h"
#include "image/vertex_normal_maps.h"
#include "kestor.h"
#include "gray_stages.h"
#include "support/image_compare.h"
#include "support/synthetic_scene.h"

using namespace kestor;
using kestor_test::bitwiseEqual;
using kestor_test::kSentinel;

namespace {

constexpr size_t kGuard = 64;  // sentinels past each level's size

// Output arrays of every level, filled with sentinels.
struct Pyramid {
    int w, h, levels;
    std::vector<std::vector<float>> map[5];  // vmap, nmap, gray, gx, gy
    std::vector<float*> ptr[5];
    Pyramid(int w_, int h_, int n) : w(w_), h(h_), levels(n) {
        for (int m = 0; m < 5; ++m)
            for (int l = 0; l < n; ++l) {
                map[m].emplace_back(size_t((w >> l) * (h >> l) * (m < 2 ? 3 : 1)) + kGuard, kSentinel);
                ptr[m].push_back(map[m].back().data());
            }
    }
    int run(const std::vector<double>& K, const kestor_test::Frame& f, const uint8_t* color, bool grays,
            bool grads, bool useMagnitude, bool oneGradient = false) {
        return KESTORCalcPyramidVmapNmap(K.data(), f.depth.data(), color, nullptr, ptr[0].data(), ptr[1].data(),
                                         grays ? ptr[2].data() : nullptr, grads ? ptr[3].data() : nullptr,
                                         grads && !oneGradient ? ptr[4].data() : nullptr, w, h, levels,
                                         useMagnitude);
    }
    std::vector<float> values(int m, int l) const { return {map[m][size_t(l)].begin(), map[m][size_t(l)].end() - kGuard}; }
    bool untouched(int m, int l, size_t from = 0) const {
        const auto& v = map[m][size_t(l)];
        return std::all_of(v.begin() + long(from), v.end(), [](float x) { return x == kSentinel; });
    }
};

struct Input {
    kestor_test::Camera cam;
    kestor_test::Frame frame;
    std::vector<double> K;
    std::vector<float> gray0;  // the unsmoothed gray of level 0
    Input(int w, int h) : cam(kestor_test::Camera().scaled(w, h)), gray0(size_t(w * h)) {
        cam.width = w, cam.height = h;
        frame = kestor_test::Scene::texturedRoom().render(cam, kestor_test::Pose());
        K = cam.matrix();
        colorToGray(packedView(reinterpret_cast<const Byte3*>(frame.color.data()), w, h), packedView(gray0.data(), w, h));
    }
};

}  // namespace

TEST(CalcPyramid, OddSizesAreSampledLevelByLevelWithNormalsAndGradientsPerLevel) {
    const int w = 81, h = 61, levels = 3;  // levels 81x61, 40x30, 20x15
    const Input in(w, h);
    for (bool useMagnitude : {false, true}) {
        SCOPED_TRACE(useMagnitude ? "magnitude" : "gray");
        Pyramid p(w, h, levels);
        ASSERT_EQ(p.run(in.K, in.frame, in.frame.color.data(), true, true, useMagnitude), 0);
        std::vector<float> raw = in.gray0;  // unsmoothed gray, sampled level by level
        for (int l = 0; l < levels; ++l) {
            const int wl = w >> l, hl = h >> l, wf = w >> (l ? l - 1 : 0);
            for (int m = 0; m < 5; ++m) EXPECT_TRUE(p.untouched(m, l, p.map[m][size_t(l)].size() - kGuard)) << l;
            const std::vector<float> vmap = p.values(0, l), fine = p.values(0, l ? l - 1 : 0);
            if (l > 0) {
                std::vector<float> sampled(size_t(wl * hl));
                for (int y = 0; y < hl; ++y)
                    for (int x = 0; x < wl; ++x) {
                        sampled[size_t(y * wl + x)] = raw[size_t(2 * y * wf + 2 * x)];
                        for (int c = 0; c < 3; ++c)
                            ASSERT_EQ(vmap[size_t((y * wl + x) * 3 + c)], fine[size_t((2 * y * wf + 2 * x) * 3 + c)]);
                    }
                raw = sampled;
            }
            std::vector<float> nmap(vmap.size());  // normals recomputed, not sampled
            vmapToNmap(packedView(reinterpret_cast<const Float3*>(vmap.data()), wl, hl),
                       packedView(reinterpret_cast<Float3*>(nmap.data()), wl, hl));
            EXPECT_TRUE(bitwiseEqual(nmap, p.values(1, l))) << l;
            // Gray: smoothed through a scratch buffer, optionally its gradient magnitude; then the
            // central gradients of it.
            const kestor_test::GrayStages g = kestor_test::grayStages(raw, wl, hl, 0.5, false, useMagnitude);
            EXPECT_TRUE(bitwiseEqual(g.gray, p.values(2, l))) << l;
            EXPECT_TRUE(bitwiseEqual(g.gx, p.values(3, l))) << l;
            EXPECT_TRUE(bitwiseEqual(g.gy, p.values(4, l))) << l;
        }
    }
}

TEST(CalcPyramid, MissingColourGrayOrGradientArraysSkipTheirSteps) {
    const int w = 40, h = 30;
    const Input in(w, h);
    // Colour without gray arrays, or gray arrays without colour: vertices and normals only.
    for (bool withColor : {true, false}) {
        Pyramid p(w, h, 2);
        ASSERT_EQ(p.run(in.K, in.frame, withColor ? in.frame.color.data() : nullptr, !withColor, true, true), 0);
        for (int l = 0; l < 2; ++l) {
            EXPECT_FALSE(p.untouched(0, l) || p.untouched(1, l)) << l;
            EXPECT_TRUE(p.untouched(2, l) && p.untouched(3, l) && p.untouched(4, l)) << l;
        }
    }
    // Gray arrays without both gradient arrays: unsmoothed gray, sampled, no magnitude.
    for (bool oneGradient : {false, true}) {
        Pyramid p(w, h, 2);
        ASSERT_EQ(p.run(in.K, in.frame, in.frame.color.data(), true, oneGradient, true, oneGradient), 0);
        EXPECT_TRUE(bitwiseEqual(in.gray0, p.values(2, 0)));
        EXPECT_TRUE(p.map[2][1][0] == in.gray0[0] && p.map[2][1][1] == in.gray0[2]);
        EXPECT_TRUE(p.untouched(3, 0) && p.untouched(4, 0));
    }
}

TEST(CalcPyramid, OneLevelGivesTheSingleImageMapsAndAnEmptyLevelIsSkipped) {
    const int w = 16, h = 12;
    const Input in(w, h);
    Pyramid p(w, h, 1);
    // One level: the maps of the single-image export.
    ASSERT_EQ(p.run(in.K, in.frame, nullptr, false, false, false), 0);
    std::vector<float> vmap(size_t(w * h * 3)), nmap(vmap.size());
    ASSERT_EQ(KESTORDepthToVmapNmap(in.K.data(), in.frame.depth.data(), nullptr, vmap.data(), nmap.data(), w, h), 0);
    EXPECT_TRUE(bitwiseEqual(vmap, p.values(0, 0)) && bitwiseEqual(nmap, p.values(1, 0)));
    // A one-pixel-wide image has an empty level 1: it succeeds and nothing is written there.
    Pyramid thin(1, h, 2);
    ASSERT_EQ(thin.run(in.K, in.frame, in.frame.color.data(), true, true, true), 0);
    for (int m = 0; m < 5; ++m) EXPECT_TRUE(thin.untouched(m, 1)) << m;
    EXPECT_FALSE(thin.untouched(0, 0));
}
