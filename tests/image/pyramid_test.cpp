#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "image/filter_kernels.h"
#include "image/vertex_normal_maps.h"
#include "kestor.h"
#include "support/image_compare.h"
#include "support/synthetic_scene.h"

using namespace kestor;
using kestor_test::kSentinel;

namespace {

// Per-level buffers with a guard of sentinels past each level's size.
struct Level {
    std::vector<float> vmap, nmap, gray, gx, gy;
};

constexpr size_t kGuard = 64;

struct Pyramid {
    int width, height, levels;
    std::vector<Level> level;
    std::vector<float*> vmaps, nmaps, grays, gxs, gys;

    Pyramid(int w, int h, int n) : width(w), height(h), levels(n), level(size_t(n)) {
        for (int l = 0; l < n; ++l) {
            const size_t px = size_t(w >> l) * size_t(h >> l);
            Level& L = level[size_t(l)];
            L.vmap.assign(px * 3 + kGuard, kSentinel);
            L.nmap.assign(px * 3 + kGuard, kSentinel);
            L.gray.assign(px + kGuard, kSentinel);
            L.gx.assign(px + kGuard, kSentinel);
            L.gy.assign(px + kGuard, kSentinel);
            vmaps.push_back(L.vmap.data());
            nmaps.push_back(L.nmap.data());
            grays.push_back(L.gray.data());
            gxs.push_back(L.gx.data());
            gys.push_back(L.gy.data());
        }
    }
    int run(const double* K, const float* depth, const uint8_t* color, bool grays_, bool grads,
            bool useMagnitude) {
        return KESTORCalcPyramidVmapNmap(K, depth, color, nullptr, vmaps.data(), nmaps.data(),
                                         grays_ ? grays.data() : nullptr,
                                         grads ? gxs.data() : nullptr,
                                         grads ? gys.data() : nullptr, width, height, levels,
                                         useMagnitude);
    }
    // Values of one map of one level, without the guard.
    std::vector<float> values(int l, std::vector<float> Level::*map) const {
        const std::vector<float>& v = level[size_t(l)].*map;
        return std::vector<float>(v.begin(), v.end() - kGuard);
    }
    bool untouched(int l, std::vector<float> Level::*map) const {
        const std::vector<float>& v = level[size_t(l)].*map;
        return std::all_of(v.begin(), v.end(), [](float x) { return x == kSentinel; });
    }
    bool guardIntact(int l, std::vector<float> Level::*map) const {
        const std::vector<float>& v = level[size_t(l)].*map;
        return std::all_of(v.end() - kGuard, v.end(), [](float x) { return x == kSentinel; });
    }
};

struct Input {
    kestor_test::Camera cam;
    kestor_test::Frame frame;
    std::vector<double> K;
    Input(int w, int h) {
        cam = kestor_test::Camera().scaled(w, h);
        cam.width = w;
        cam.height = h;
        frame = kestor_test::Scene::texturedRoom().render(cam, kestor_test::Pose());
        K = cam.matrix();
    }
};

std::vector<float> smoothedGray(const std::vector<float>& gray, int w, int h) {
    const std::vector<float> k = smoothKernel(0.5);
    std::vector<float> tmp(gray.size()), out(gray.size());
    filterColumns(packedView(gray.data(), w, h), k.data(), int(k.size()), packedView(tmp.data(), w, h));
    filterRows(packedView<const float>(tmp.data(), w, h), k.data(), int(k.size()),
               packedView(out.data(), w, h));
    return out;
}

}  // namespace

TEST(CalcPyramid, OddSizesAreSampledLevelByLevelWithNormalsRecomputed) {
    const int w = 81, h = 61, levels = 3;  // levels 81x61, 40x30, 20x15
    Input in(w, h);
    Pyramid p(w, h, levels);
    ASSERT_EQ(p.run(in.K.data(), in.frame.depth.data(), in.frame.color.data(), true, true, false), 0);
    for (int l = 0; l < levels; ++l) {
        EXPECT_TRUE(p.guardIntact(l, &Level::vmap)) << l;
        EXPECT_TRUE(p.guardIntact(l, &Level::nmap)) << l;
        EXPECT_TRUE(p.guardIntact(l, &Level::gray)) << l;
        EXPECT_TRUE(p.guardIntact(l, &Level::gx)) << l;
        EXPECT_TRUE(p.guardIntact(l, &Level::gy)) << l;
        EXPECT_FALSE(p.level[size_t(l)].vmap[size_t((w >> l) * (h >> l) * 3 - 1)] == kSentinel);
    }
    for (int l = 1; l < levels; ++l) {
        const int wl = w >> l, hl = h >> l, wf = w >> (l - 1);
        const std::vector<float> vmap = p.values(l, &Level::vmap);
        const std::vector<float>& fine = p.level[size_t(l - 1)].vmap;
        for (int y = 0; y < hl; ++y)
            for (int x = 0; x < wl; ++x)
                for (int c = 0; c < 3; ++c)
                    ASSERT_EQ(vmap[size_t((y * wl + x) * 3 + c)],
                              fine[size_t(((2 * y) * wf + 2 * x) * 3 + c)]);
        std::vector<float> nmap(size_t(wl * hl * 3));
        vmapToNmap(packedView(reinterpret_cast<const Float3*>(vmap.data()), wl, hl),
                   packedView(reinterpret_cast<Float3*>(nmap.data()), wl, hl));
        EXPECT_TRUE(kestor_test::bitwiseEqual(nmap, p.values(l, &Level::nmap))) << l;
    }
}

TEST(CalcPyramid, GrayLevelsAreSmoothedSampledLevelZeroWithCentralGradients) {
    const int w = 64, h = 48, levels = 2;
    Input in(w, h);
    std::vector<float> gray0(size_t(w * h));
    colorToGray(packedView(reinterpret_cast<const Byte3*>(in.frame.color.data()), w, h),
                packedView(gray0.data(), w, h));
    std::vector<float> gray1(size_t((w / 2) * (h / 2)));
    subsampleGray(packedView<const float>(gray0.data(), w, h), packedView(gray1.data(), w / 2, h / 2));
    const std::vector<std::vector<float>> raw{gray0, gray1};

    for (bool useMagnitude : {false, true}) {
        Pyramid p(w, h, levels);
        ASSERT_EQ(p.run(in.K.data(), in.frame.depth.data(), in.frame.color.data(), true, true,
                        useMagnitude), 0);
        for (int l = 0; l < levels; ++l) {
            const int wl = w >> l, hl = h >> l;
            std::vector<float> expect = smoothedGray(raw[size_t(l)], wl, hl);
            std::vector<float> gx(expect.size()), gy(expect.size());
            auto grads = [&] {
                centralGradientX(packedView<const float>(expect.data(), wl, hl), packedView(gx.data(), wl, hl));
                centralGradientY(packedView<const float>(expect.data(), wl, hl), packedView(gy.data(), wl, hl));
            };
            if (useMagnitude) {
                grads();
                gradientMagnitude(packedView<const float>(gx.data(), wl, hl),
                                  packedView<const float>(gy.data(), wl, hl),
                                  packedView(expect.data(), wl, hl));
            }
            grads();
            EXPECT_TRUE(kestor_test::bitwiseEqual(expect, p.values(l, &Level::gray))) << l;
            EXPECT_TRUE(kestor_test::bitwiseEqual(gx, p.values(l, &Level::gx))) << l;
            EXPECT_TRUE(kestor_test::bitwiseEqual(gy, p.values(l, &Level::gy))) << l;
        }
    }
}

TEST(CalcPyramid, MissingColourGrayOrGradientArraysSkipTheirSteps) {
    const int w = 40, h = 30, levels = 2;
    Input in(w, h);
    const double* K = in.K.data();
    const float* depth = in.frame.depth.data();
    const uint8_t* color = in.frame.color.data();
    for (int l = 0; l < levels; ++l) {
        // Colour without gray arrays, gray arrays without colour: vertices only.
        for (int variant = 0; variant < 2; ++variant) {
            Pyramid p(w, h, levels);
            ASSERT_EQ(p.run(K, depth, variant == 0 ? color : nullptr, variant == 1, true, true), 0);
            EXPECT_FALSE(p.untouched(l, &Level::vmap));
            EXPECT_TRUE(p.untouched(l, &Level::gray));
            EXPECT_TRUE(p.untouched(l, &Level::gx));
            EXPECT_TRUE(p.untouched(l, &Level::gy));
        }
    }
    // Gray arrays without gradient arrays: unsmoothed gray, no magnitude, gradients untouched.
    Pyramid p(w, h, levels);
    ASSERT_EQ(p.run(K, depth, color, true, false, true), 0);
    std::vector<float> gray0(size_t(w * h));
    colorToGray(packedView(reinterpret_cast<const Byte3*>(color), w, h), packedView(gray0.data(), w, h));
    EXPECT_TRUE(kestor_test::bitwiseEqual(gray0, p.values(0, &Level::gray)));
    EXPECT_EQ(p.level[1].gray[0], gray0[0]);
    EXPECT_EQ(p.level[1].gray[1], gray0[2]);
    EXPECT_TRUE(p.untouched(0, &Level::gx));
    // Only one of the two gradient arrays: the same as none.
    Pyramid q(w, h, 1);
    ASSERT_EQ(KESTORCalcPyramidVmapNmap(K, depth, color, nullptr, q.vmaps.data(), q.nmaps.data(),
                                        q.grays.data(), q.gxs.data(), nullptr, w, h, 1, false), 0);
    EXPECT_TRUE(kestor_test::bitwiseEqual(gray0, q.values(0, &Level::gray)));
    EXPECT_TRUE(q.untouched(0, &Level::gx));
}

TEST(CalcPyramid, ConstantColourGivesZeroGradientsAndZeroMagnitude) {
    const int w = 32, h = 24;
    Input in(w, h);
    const std::vector<uint8_t> flat(size_t(w * h * 3), 90);
    Pyramid p(w, h, 2);
    ASSERT_EQ(p.run(in.K.data(), in.frame.depth.data(), flat.data(), true, true, true), 0);
    for (int l = 0; l < 2; ++l)
        for (auto map : {&Level::gray, &Level::gx, &Level::gy})
            for (float v : p.values(l, map)) ASSERT_EQ(v, 0.0f);
}

TEST(CalcPyramid, BadArgumentsReturnFourAndWriteNothing) {
    const int w = 16, h = 12;
    Input in(w, h);
    const double* K = in.K.data();
    const float* depth = in.frame.depth.data();
    Pyramid p(w, h, 1);
    float** v = p.vmaps.data();
    float** n = p.nmaps.data();
    EXPECT_EQ(KESTORCalcPyramidVmapNmap(nullptr, depth, nullptr, nullptr, v, n, nullptr, nullptr, nullptr, w, h, 1, false), 4);
    EXPECT_EQ(KESTORCalcPyramidVmapNmap(K, nullptr, nullptr, nullptr, v, n, nullptr, nullptr, nullptr, w, h, 1, false), 4);
    EXPECT_EQ(KESTORCalcPyramidVmapNmap(K, depth, nullptr, nullptr, nullptr, n, nullptr, nullptr, nullptr, w, h, 1, false), 4);
    EXPECT_EQ(KESTORCalcPyramidVmapNmap(K, depth, nullptr, nullptr, v, nullptr, nullptr, nullptr, nullptr, w, h, 1, false), 4);
    EXPECT_EQ(KESTORCalcPyramidVmapNmap(K, depth, nullptr, nullptr, v, n, nullptr, nullptr, nullptr, 0, h, 1, false), 4);
    EXPECT_EQ(KESTORCalcPyramidVmapNmap(K, depth, nullptr, nullptr, v, n, nullptr, nullptr, nullptr, w, 0, 1, false), 4);
    EXPECT_EQ(KESTORCalcPyramidVmapNmap(K, depth, nullptr, nullptr, v, n, nullptr, nullptr, nullptr, w, h, 0, false), 4);
    EXPECT_TRUE(p.untouched(0, &Level::vmap));
    EXPECT_TRUE(p.untouched(0, &Level::nmap));
    // One level: level-0 maps only, equal to the single-image export.
    ASSERT_EQ(KESTORCalcPyramidVmapNmap(K, depth, nullptr, nullptr, v, n, nullptr, nullptr, nullptr, w, h, 1, false), 0);
    std::vector<float> vmap(size_t(w * h * 3)), nmap(vmap.size());
    ASSERT_EQ(KESTORDepthToVmapNmap(K, depth, nullptr, vmap.data(), nmap.data(), w, h), 0);
    EXPECT_TRUE(kestor_test::bitwiseEqual(vmap, p.values(0, &Level::vmap)));
    EXPECT_TRUE(kestor_test::bitwiseEqual(nmap, p.values(0, &Level::nmap)));
}
