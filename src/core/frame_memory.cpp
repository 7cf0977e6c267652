#include "core/frame_memory.h"

#include <cstring>
#include <new>

#include "core/log.h"

namespace kestor {

namespace {

// Pointer arithmetic on integers: blocks of a device pool are offsets from null.
template <typename T>
T* at(uintptr_t base, size_t offset) {
    return reinterpret_cast<T*>(base + offset);
}

void clearLevels(const RGBDFusionImpl& instance, FrameLevel* levels) {
    if (instance.levels > 0) std::memset(levels, 0, sizeof(FrameLevel) * size_t(instance.levels));
}

void givePyramidBack(RGBDFusionImpl& instance, _Frame* frame) {
    if (instance.levels > 0 && frame->levels[0].vmap != nullptr)
        instance.pyramidPool->giveBack(frame->levels[0].vmap);
    clearLevels(instance, frame->levels);
}

}  // namespace

void layoutImage(const RGBDFusionImpl& instance, uint8_t* block, KESTORFrameInfo& info) {
    const uintptr_t base = reinterpret_cast<uintptr_t>(block);
    const size_t n = size_t(instance.pixels);
    size_t offset = n * 4;
    info.depth = block ? at<float>(base, 0) : nullptr;
    info.color = nullptr;
    info.mask = nullptr;
    if (instance.hasColor) {
        info.color = block ? at<uint8_t>(base, offset) : nullptr;
        offset += n * 3;
    }
    if (instance.hasMask) info.mask = block ? at<uint8_t>(base, offset) : nullptr;
}

void layoutPyramid(const RGBDFusionImpl& instance, uint8_t* block, FrameLevel* levels) {
    const uintptr_t base = reinterpret_cast<uintptr_t>(block);
    size_t offset = 0;
    for (int l = 0; l < instance.levels; ++l) {
        const size_t n = size_t(levelExtent(instance.width, l)) * size_t(levelExtent(instance.height, l));
        FrameLevel& level = levels[l];
        level = FrameLevel{};
        if (block == nullptr) continue;
        level.vmap = at<float>(base, offset);
        level.nmap = at<float>(base, offset + n * 12);
        offset += n * 24;
        if (instance.hasGray) {
            level.gray = at<float>(base, offset);
            level.gradX = at<float>(base, offset + n * 4);
            level.gradY = at<float>(base, offset + n * 8);
            offset += n * 12;
        }
    }
}

void releaseFrame(RGBDFusionImpl& instance, _Frame* frame) {
    if (frame->info.depth != nullptr) instance.imagePool->giveBack(frame->info.depth);
    // attach lives as long as the frame, spilled or not.
    if (frame->info.attach != nullptr && instance.attachFree) instance.attachFree(frame->info.attach);
    frame->info = KESTORFrameInfo{};
    givePyramidBack(instance, frame);
    instance.framePool->giveBack(frame);
}

void reduceFrame(RGBDFusionImpl& instance, _Frame* frame) {
    if (frame->cacheState == kCacheUntouched) {
        frame->cacheState = kCacheHalfDone;
        return;
    }
    if (frame->cacheState != kCacheHalfDone) {
        KESTOR_LOG("Reduce frame cache error, frame ID: %d\n", frame->info.index);
        return;
    }
    FrameCache& cache = *instance.cache;
    if (!instance.deviceMemory && cache.isOpen()) {
        const uint64_t n = uint64_t(instance.pixels);
        KESTORFrameInfo& info = frame->info;
        frame->depthRecord = cache.append(info.depth, n * 4);
        if (instance.hasColor) {
            frame->colorRecord = cache.append(info.color, n * 3);
            if (frame->colorRecord != kNoRecord) info.color = nullptr;
        }
        if (instance.hasMask) {
            frame->maskRecord = cache.append(info.mask, n);
            if (frame->maskRecord != kNoRecord) info.mask = nullptr;
        }
        if (frame->depthRecord != kNoRecord && info.depth != nullptr)
            instance.imagePool->giveBack(info.depth);
        info.depth = nullptr;
        frame->cacheState |= kCacheSpilled;
    }
    frame->cacheState |= kCacheReduced;
    givePyramidBack(instance, frame);
}

_Group* newGroup(RGBDFusionImpl& instance, int32_t id) {
    void* block = instance.groupPool->take();
    std::memset(block, 0, instance.groupBytes);
    auto* group = new (block) _Group();
    group->id = id;
    group->frames.reserve(size_t(instance.groupSize > 0 ? instance.groupSize + 1 : 1));
    return group;
}

void releaseGroup(RGBDFusionImpl& instance, _Group* group) {
    if (instance.levels > 0 && group->levels[0].vmap != nullptr)
        instance.pyramidPool->giveBack(group->levels[0].vmap);
    group->~_Group();
    instance.groupPool->giveBack(group);
}

}  // namespace kestor
