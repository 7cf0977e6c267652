#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <tuple>
#include <utility>
#include <vector>

#include "core/fusion_instance.h"
#include "kestor.h"

using namespace kestor;

namespace {

const double kK[9] = {500, 0, 31.5, 0, 510, 23.5, 0, 0, 1};
const double kDistances[3] = {0.1, 0.2, 0.3};
const int kIterations[3] = {10, 5, 3};

void* create(int width, int height, int levels, unsigned flags, int groupSize = 10) {
    void* handle = nullptr;
    EXPECT_EQ(KESTORCreateInstance(&handle, kK, width, height, kDistances, kIterations, levels,
                                   groupSize, flags),
              0);
    return handle;
}

RGBDFusionImpl& impl(void* handle) { return *static_cast<RGBDFusionImpl*>(handle); }

bool samePara(const KESTORPara& a, const KESTORPara& b) {
    auto fields = [](const KESTORPara& p) {
        return std::make_tuple(p.angleThreshold, p.overlapThreshold, p.colorWeight, p.groupIterations,
                               p.groupMode, p.globalMode, p.verbose, p.fullLoopWeight);
    };
    return fields(a) == fields(b);
}

}  // namespace

TEST(Instance, StartsWithTheDefaultsAndRoundTripsEveryParameter) {
    void* h = create(64, 48, 3, 0);
    KESTORPara p;
    ASSERT_EQ(KESTORGetPara(h, &p), 0);
    EXPECT_TRUE(samePara(p, KESTORPara{1.57, 0.3, 0.3, 10, 2, 1, 1, 0}));
    const KESTORPara changed{0.5, 0.6, 0.7, 4, 1, 2, 0, 1};
    ASSERT_EQ(KESTORSetPara(h, &changed), 0);
    ASSERT_EQ(KESTORGetPara(h, &p), 0);
    EXPECT_TRUE(samePara(p, changed));
    EXPECT_TRUE(impl(h).fx == 500 && impl(h).fy == 510 && impl(h).cx == 31.5 && impl(h).cy == 23.5);
    EXPECT_EQ(impl(h).levelIterations, std::vector<int32_t>({10, 5, 3}));
    EXPECT_EQ(impl(h).levelDistances, std::vector<double>({0.1, 0.2, 0.3}));
    for (auto stop : {&impl(h).frameStop, &impl(h).traceStop, &impl(h).groupStop,
                      &impl(h).workerStop, &impl(h).optimizeStop})
        EXPECT_EQ(stop->load(), 1);
    EXPECT_FALSE(impl(h).cache->isOpen());
    EXPECT_EQ(KESTORDestroyInstance(h), 0);
}

// Each row breaks one argument of an instance export: its status, with the parameters and the
// callback slots as they were.
TEST(Instance, BadArgumentsAreRefusedWithNothingChanged) {
    const KESTORTraceFunc trace = [](const KESTORFrameInfo*, const KESTORTrackInfo*, void*) {};
    void* h = create(8, 8, 1, 0);
    KESTORSetTraceCallback(h, trace, nullptr);
    const KESTORPara before = impl(h).para;
    KESTORPara out;
    std::memset(&out, 0x5a, sizeof(out));
    const KESTORPara untouched = out;
    const struct Row { const char* broken; std::function<int()> call; int status; } rows[] = {
        {"CreateInstance: handle out", [&] { return KESTORCreateInstance(nullptr, kK, 8, 8, kDistances, kIterations, 1, 3, 0); }, 4},
        {"DestroyInstance: handle", [&] { return KESTORDestroyInstance(nullptr); }, 9},
        {"SetPara: handle", [&] { return KESTORSetPara(nullptr, &out); }, 9},
        {"SetPara: parameters", [&] { return KESTORSetPara(h, nullptr); }, 4},
        {"GetPara: handle", [&] { return KESTORGetPara(nullptr, &out); }, 9},
        {"GetPara: parameters", [&] { return KESTORGetPara(h, nullptr); }, 4},
        {"SetTraceCallback: handle", [&] { return KESTORSetTraceCallback(nullptr, nullptr, nullptr); }, 9},
        {"SetPairMatchFunc: handle", [&] { return KESTORSetPairMatchFunc(nullptr, nullptr, nullptr); }, 9},
        {"SetCalcScoreFunc: handle", [&] { return KESTORSetCalcScoreFunc(nullptr, nullptr, nullptr); }, 9},
        {"SetAttachAllocator: handle", [&] { return KESTORSetAttachAllocator(nullptr, nullptr, nullptr); }, 9},
        {"SetCachePath: handle", [&] { return KESTORSetCachePath(nullptr, "/tmp/x"); }, 9},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.call(), r.status) << r.broken;
        EXPECT_TRUE(samePara(impl(h).para, before)) << r.broken;
        EXPECT_TRUE(samePara(out, untouched)) << r.broken;
        EXPECT_TRUE(bool(impl(h).traceFunc)) << r.broken;
    }
    // An image whose maps hold more values (or whose rows more bytes) than an int counts is
    // refused, and the handle slot is left alone.
    for (const auto& [w, ht] : {std::pair{70000, 70000}, {30000, 30000}, {1 << 28, 1}, {-70000, -70000}}) {
        void* slot = &slot;
        EXPECT_EQ(KESTORCreateInstance(&slot, kK, w, ht, kDistances, kIterations, 1, 3, 0), 4) << w;
        EXPECT_EQ(slot, &slot);
    }
    // A setter with a null function empties its slot.
    EXPECT_EQ(KESTORSetTraceCallback(h, nullptr, nullptr), 0);
    EXPECT_FALSE(bool(impl(h).traceFunc));
    EXPECT_EQ(KESTORSetAttachAllocator(h, [] { return static_cast<void*>(nullptr); }, nullptr), 0);
    EXPECT_TRUE(bool(impl(h).attachAlloc));
    EXPECT_FALSE(bool(impl(h).attachFree));
    EXPECT_EQ(KESTORDestroyInstance(h), 0);
}

TEST(Instance, CallbacksSeeThePublicPartOfTheFrameAndThePairMatchStartsFromNothing) {
    void* h = create(8, 8, 1, 0);
    struct Seen {
        const void* info = nullptr;
        const void* track = nullptr;
        double start[3][4];
        int flag = -1;
    } seen;
    KESTORSetTraceCallback(
        h,
        [](const KESTORFrameInfo* f, const KESTORTrackInfo* t, void* u) {
            static_cast<Seen*>(u)->info = f;
            static_cast<Seen*>(u)->track = t;
        },
        &seen);
    KESTORSetPairMatchFunc(
        h,
        [](const KESTORFrameInfo*, const KESTORFrameInfo*, double rt[3][4], int flag, void* u) {
            auto* s = static_cast<Seen*>(u);
            std::memcpy(s->start, rt, sizeof(s->start));
            s->flag = flag;
            rt[0][3] = 7;  // an answer of false must not leak out
            return s->flag == MATCH_GROUP;
        },
        &seen);
    std::vector<uint8_t> block(impl(h).frameBytes, 0);
    auto* frame = reinterpret_cast<_Frame*>(block.data());
    impl(h).traceFunc(frame);
    EXPECT_EQ(seen.info, &frame->info);
    EXPECT_EQ(seen.track, &frame->track);

    RT_<double> rt = RT_<double>::identity();
    EXPECT_FALSE(impl(h).pairMatchFunc(frame, frame, rt, MATCH_RELOCALIZE));
    EXPECT_EQ(seen.flag, MATCH_RELOCALIZE);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) EXPECT_EQ(seen.start[r][c], 0.0);
    EXPECT_EQ(rt.translation[0], 0.0);
    EXPECT_TRUE(impl(h).pairMatchFunc(frame, frame, rt, MATCH_GROUP));
    EXPECT_EQ(rt.translation[0], 7.0);
    EXPECT_EQ(rt.rotation[0], 0.0);  // the zero start, not the caller's identity
    KESTORDestroyInstance(h);
}

// Planes and byte sizes that each flags word gives, at 64x48 with 3 levels: level pixels 3072,
// 768, 192 (sum 4032), so the pyramid holds 24 bytes a pixel and 12 more with gray maps.
TEST(Instance, FlagsTable) {
    const size_t n = 64 * 48, levelPixels = 3072 + 768 + 192;
    for (unsigned flags = 0; flags < 16; ++flags) {
        SCOPED_TRACE(flags);
        void* h = create(64, 48, 3, flags);
        const RGBDFusionImpl& f = impl(h);
        const bool mask = !(flags & 1), color = !(flags & 2), device = flags & 4;
        const bool gray = (flags & 8) && color;
        EXPECT_EQ(bool(f.hasMask), mask);
        EXPECT_EQ(bool(f.hasColor), color);
        EXPECT_EQ(bool(f.hasGray), gray);
        EXPECT_EQ(bool(f.deviceMemory), device);
        EXPECT_EQ(f.imageBytes, n * 4 + (color ? n * 3 : 0) + (mask ? n : 0));
        EXPECT_EQ(f.pyramidBytes, levelPixels * (gray ? 36 : 24));
        EXPECT_EQ(f.frameBytes, sizeof(_Frame) + 3 * sizeof(FrameLevel));
        EXPECT_EQ(f.groupBytes, sizeof(_Group) + 3 * sizeof(FrameLevel));
        EXPECT_EQ(f.hostImagePool != nullptr, device);
        KESTORDestroyInstance(h);
    }
}

TEST(Instance, NoLevelsMeanNoPyramidAndEmptyLists) {
    void* h = create(16, 8, 0, 0);
    EXPECT_EQ(impl(h).pyramidBytes, 0u);
    EXPECT_TRUE(impl(h).levelDistances.empty());
    EXPECT_TRUE(impl(h).levelIterations.empty());
    EXPECT_EQ(impl(h).pyramidPool->take(), nullptr);
    KESTORDestroyInstance(h);
}

TEST(Instance, ImageBlocksOfAnOddSizeKeepTheirDepthPlaneAligned) {
    // Colour without a mask on 3 x 3 pixels: 63 bytes a block.
    void* h = create(3, 3, 1, KESTOR_FLAG_NO_MASK);
    RGBDFusionImpl& f = impl(h);
    EXPECT_EQ(f.imageBytes, 63u);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(reinterpret_cast<uintptr_t>(f.imagePool->take()) % 16, 0u) << k;
    KESTORDestroyInstance(h);
}
