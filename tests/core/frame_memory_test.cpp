#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/frame_memory.h"
#include "kestor.h"

using namespace kestor;

namespace {

const double kK[9] = {50, 0, 3.5, 0, 50, 2.5, 0, 0, 1};
const double kDistances[2] = {0.1, 0.2};
const int kIterations[2] = {5, 5};
constexpr int kW = 8, kH = 6, kPixels = kW * kH;

std::vector<void*> attachedFreed;

// An instance of 8x6 pixels with two levels and a frame made as the intake makes one, its planes
// filled with recognisable bytes.
struct Fixture {
    void* handle = nullptr;
    RGBDFusionImpl* f = nullptr;
    explicit Fixture(unsigned flags) {
        KESTORCreateInstance(&handle, kK, kW, kH, kDistances, kIterations, 2, 3, flags);
        f = static_cast<RGBDFusionImpl*>(handle);
    }
    ~Fixture() { KESTORDestroyInstance(handle); }
    _Frame* frame(int index, uint8_t fill) {
        auto* frame = static_cast<_Frame*>(f->framePool->take());
        std::memset(static_cast<void*>(frame), 0, f->frameBytes);
        frame->depthRecord = frame->colorRecord = frame->maskRecord = kNoRecord;
        layoutImage(*f, static_cast<uint8_t*>(f->imagePool->take()), frame->info);
        if (f->attachAlloc) frame->info.attach = f->attachAlloc();
        layoutPyramid(*f, static_cast<uint8_t*>(f->pyramidPool->take()), frame->levels);
        frame->info.index = index;
        std::memset(frame->info.depth, fill, kPixels * 4);
        if (frame->info.color) std::memset(frame->info.color, fill + 1, kPixels * 3);
        if (frame->info.mask) std::memset(frame->info.mask, fill + 2, kPixels);
        return frame;
    }
};

std::vector<uint8_t> fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

TEST(FrameMemory, ReduceWithoutCacheDropsOnlyThePyramidOnTheSecondCall) {
    Fixture fx(0);
    _Frame* frame = fx.frame(5, 1);
    float* pyramid = frame->levels[0].vmap;
    float* depth = frame->info.depth;
    {
        std::lock_guard<std::mutex> g(fx.f->lock);
        reduceFrame(*fx.f, frame);
    }
    EXPECT_EQ(frame->cacheState, 1u);
    EXPECT_EQ(frame->levels[0].vmap, pyramid);
    reduceFrame(*fx.f, frame);
    EXPECT_EQ(frame->cacheState, 3u);
    EXPECT_EQ(frame->levels[0].vmap, nullptr);
    EXPECT_EQ(frame->levels[1].nmap, nullptr);
    EXPECT_EQ(frame->info.depth, depth);
    EXPECT_EQ(frame->depthRecord, kNoRecord);
    EXPECT_EQ(fx.f->pyramidPool->take(), pyramid);  // back in the pool, first in line

    testing::internal::CaptureStdout();
    reduceFrame(*fx.f, frame);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[KESTOR INFO] Reduce frame cache error, frame ID: 5\n");
    EXPECT_EQ(frame->cacheState, 3u);
    EXPECT_EQ(frame->info.depth, depth);
}

// With a cache file the second call spills the planes the instance has, in the order depth,
// colour, mask, and frees the image block; a plane the instance lacks has no record.
TEST(FrameMemory, ReduceWithCacheSpillsThePlanesTheInstanceHas) {
    struct Case {
        unsigned flags;
        bool color, mask;
    };
    for (const Case c : {Case{0, true, true}, Case{KESTOR_FLAG_NO_MASK, true, false},
                         Case{KESTOR_FLAG_NO_COLOR, false, true},
                         Case{KESTOR_FLAG_NO_MASK | KESTOR_FLAG_NO_COLOR, false, false}}) {
        SCOPED_TRACE(c.flags);
        const std::string path = testing::TempDir() + "kestor_reduce.bin";
        Fixture fx(c.flags);
        ASSERT_EQ(KESTORSetCachePath(fx.handle, path.c_str()), 0);
        _Frame* a = fx.frame(0, 10);
        _Frame* b = fx.frame(1, 20);
        void* imageB = b->info.depth;
        for (_Frame* frame : {a, b}) {
            reduceFrame(*fx.f, frame);
            reduceFrame(*fx.f, frame);
            fx.f->frames.push_back(frame);
        }
        const uint64_t perFrame = 1 + c.color + c.mask;
        EXPECT_EQ(a->cacheState, 7u);
        EXPECT_TRUE(!a->info.depth && !a->info.color && !a->info.mask && !a->levels[0].vmap);
        EXPECT_EQ(a->depthRecord, 0u);
        EXPECT_EQ(a->colorRecord, c.color ? 1u : kNoRecord);
        EXPECT_EQ(a->maskRecord, c.mask ? perFrame - 1 : kNoRecord);
        EXPECT_EQ(b->depthRecord, perFrame);  // directly after a's last record
        EXPECT_EQ(fx.f->imagePool->take(), imageB);  // image blocks are back in the pool

        float depth[kPixels];
        ASSERT_TRUE(fx.f->cache->read(b->depthRecord, kPixels * 4, depth));
        uint8_t expected[kPixels * 4];
        std::memset(expected, 20, sizeof(expected));
        EXPECT_EQ(std::memcmp(depth, expected, sizeof(expected)), 0);
        if (c.mask) {
            uint8_t mask[kPixels];
            ASSERT_TRUE(fx.f->cache->read(a->maskRecord, kPixels, mask));
            EXPECT_EQ(mask[kPixels - 1], 12);
        }
        // Teardown writes the true count into the header.
        KESTORDestroyInstance(fx.handle);
        KESTORCreateInstance(&fx.handle, kK, kW, kH, kDistances, kIterations, 2, 3, 0);
        const std::vector<uint8_t> bytes = fileBytes(path);
        ASSERT_GE(bytes.size(), 8u);
        uint64_t count;
        std::memcpy(&count, bytes.data(), 8);
        EXPECT_EQ(count, 2 * perFrame);
        std::remove(path.c_str());
    }
}

TEST(FrameMemory, ReleasingAFrameGivesEveryBlockBackAndTheAttachToItsRelease) {
    Fixture fx(0);
    KESTORSetAttachAllocator(
        fx.handle, [] { return static_cast<void*>(new int(3)); },
        [](void* p) {
            attachedFreed.push_back(p);
            delete static_cast<int*>(p);
        });
    attachedFreed.clear();
    _Frame* frame = fx.frame(0, 1);
    void* attach = frame->info.attach;
    void* image = frame->info.depth;
    void* pyramid = frame->levels[0].vmap;
    releaseFrame(*fx.f, frame);
    EXPECT_EQ(attachedFreed, std::vector<void*>({attach}));
    EXPECT_EQ(fx.f->framePool->take(), frame);
    EXPECT_EQ(fx.f->imagePool->take(), image);
    EXPECT_EQ(fx.f->pyramidPool->take(), pyramid);
}
