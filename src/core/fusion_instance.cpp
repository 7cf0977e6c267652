#include "core/fusion_instance.h"

#include <chrono>
#include <cstdlib>
#include <new>

#include "core/frame_memory.h"

namespace kestor {

namespace {

constexpr size_t kHostImageBlocksPerChunk = 16;
constexpr size_t kImageBlocksPerChunk = 50;
constexpr size_t kFrameBlocksPerChunk = 100;
constexpr size_t kGroupBlocksPerChunk = 100;
constexpr size_t kPyramidBlocksPerChunk = 50;

void* hostAlloc(size_t bytes) { return std::malloc(bytes); }
void hostFree(void* chunk) { std::free(chunk); }
void* deviceAlloc(size_t bytes) { return cuKESTORMalloc(bytes); }
void deviceFree(void* chunk) { cuKESTORFree(chunk); }

size_t count(int64_t n) { return n > 0 ? size_t(n) : 0; }

size_t pyramidBlockBytes(int width, int height, int levels, bool gray) {
    size_t bytes = 0;
    for (int l = 0; l < levels; ++l) {
        const size_t n = count(levelExtent(width, l)) * count(levelExtent(height, l));
        bytes += n * 24 + (gray ? n * 12 : 0);
    }
    return bytes;
}

BlockPool* makePool(size_t blockBytes, size_t blocksPerChunk, bool device) {
    if (device) return new BlockPool(blockBytes, blocksPerChunk, deviceAlloc, deviceFree);
    return new BlockPool(blockBytes, blocksPerChunk, hostAlloc, hostFree);
}

}  // namespace

KESTORPara defaultPara() {
    KESTORPara p{};
    p.angleThreshold = 1.57;
    p.overlapThreshold = 0.3;
    p.colorWeight = 0.3;
    p.groupIterations = 10;
    p.groupMode = 2;
    p.globalMode = 1;
    p.verbose = 1;
    p.fullLoopWeight = 0;
    return p;
}

FrameLayout layoutFromFlags(unsigned flags) {
    FrameLayout f;
    f.hasMask = (flags & KESTOR_FLAG_NO_MASK) == 0;
    f.hasColor = (flags & KESTOR_FLAG_NO_COLOR) == 0;
    f.deviceMemory = (flags & KESTOR_FLAG_DEVICE_MEMORY) != 0;
    f.hasGray = (flags & KESTOR_FLAG_GRAY) != 0 && f.hasColor;
    return f;
}

int64_t monotonicNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

RGBDFusionImpl::RGBDFusionImpl(const double* K, int width_, int height_,
                               const double* levelDistances_, const int* levelIterations_,
                               int levels_, int groupSize_, unsigned flags)
    : width(width_), height(height_), levels(levels_), groupSize(groupSize_) {
    const FrameLayout layout = layoutFromFlags(flags);
    hasMask = layout.hasMask;
    hasColor = layout.hasColor;
    hasGray = layout.hasGray;
    deviceMemory = layout.deviceMemory;
    // Sizes are formed in 64 bits; a negative extent counts as empty.
    const size_t n = count(int64_t(width) * int64_t(height));
    pixels = int32_t(int64_t(width) * int64_t(height));
    if (levels > 0) {
        levelDistances.assign(levelDistances_, levelDistances_ + levels);
        levelIterations.assign(levelIterations_, levelIterations_ + levels);
    }
    imageBytes = n * 4 + (hasColor ? n * 3 : 0) + (hasMask ? n : 0);
    const size_t levelRecords = count(levels) * sizeof(FrameLevel);
    frameBytes = sizeof(_Frame) + levelRecords;
    groupBytes = sizeof(_Group) + levelRecords;
    pyramidBytes = pyramidBlockBytes(width, height, levels, hasGray);
    fx = K[0];
    fy = K[4];
    cx = K[2];
    cy = K[5];
    para = defaultPara();
    cache = new FrameCache();
    // Image blocks follow each other in a chunk: an odd-sized block (colour without a mask, an
    // odd pixel count) would leave the next block's depth plane unaligned for floats.
    const size_t imageBlockBytes = (imageBytes + 15) & ~size_t(15);
    hostImagePool = deviceMemory ? makePool(imageBlockBytes, kHostImageBlocksPerChunk, false) : nullptr;
    imagePool = makePool(imageBlockBytes, kImageBlocksPerChunk, deviceMemory);
    framePool = makePool(frameBytes, kFrameBlocksPerChunk, false);
    groupPool = makePool(groupBytes, kGroupBlocksPerChunk, false);
    pyramidPool = makePool(pyramidBytes, kPyramidBlocksPerChunk, deviceMemory);
    startTime = monotonicNanoseconds();
}

RGBDFusionImpl::~RGBDFusionImpl() {
    delete hostImagePool;
    delete imagePool;
    delete framePool;
    delete groupPool;
    delete pyramidPool;
    delete cache;
}

uint64_t RGBDFusionImpl::millisecondsSinceStart() const {
    return uint64_t((monotonicNanoseconds() - startTime) / 1000000);
}

void releaseInstanceContents(RGBDFusionImpl& instance) {
    instance.nextFrameId = 0;
    for (_Frame* frame : instance.frames) releaseFrame(instance, frame);
    for (_Group* group : instance.groups) releaseGroup(instance, group);
    instance.frames.clear();
    instance.groups.clear();
    for (BlockPool* pool : {instance.hostImagePool, instance.imagePool, instance.framePool,
                            instance.groupPool, instance.pyramidPool})
        if (pool != nullptr) pool->resetIfComplete();
    instance.cache->close();
}

}  // namespace kestor
