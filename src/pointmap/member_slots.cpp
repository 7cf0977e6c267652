#include "pointmap/member_slots.h"

#include <algorithm>
#include <mutex>

#include "core/frame_memory.h"
#include "pipeline/frame_intake.h"

namespace kestor {

MemberSlots::MemberSlots(RGBDFusionImpl& instance)
    : instance_(instance), fromCache_(!instance.deviceMemory && instance.cache->isOpen()) {
    const size_t slots = size_t(std::max(instance.groupSize, 0));
    records_.resize(slots, std::vector<uint64_t>((instance.frameBytes + 7) / 8, 0));
    std::lock_guard<std::mutex> guard(instance.lock);
    for (int k = 0; k < int(slots); ++k) {
        _Frame& record = slotRecord(k);
        pyramidBlocks_.push_back(instance.pyramidPool->take());
        layoutPyramid(instance, static_cast<uint8_t*>(pyramidBlocks_.back()), record.levels);
        if (!fromCache_) continue;
        imageBlocks_.push_back(instance.imagePool->take());
        layoutImage(instance, static_cast<uint8_t*>(imageBlocks_.back()), record.info);
    }
}

MemberSlots::~MemberSlots() { release(); }

void MemberSlots::load(int k, const _Frame& member) {
    _Frame& record = slotRecord(k);
    if (fromCache_) {
        const uint64_t n = uint64_t(instance_.pixels);
        FrameCache& cache = *instance_.cache;
        cache.read(member.depthRecord, n * 4, record.info.depth);
        cache.read(member.colorRecord, n * 3, record.info.color);
        cache.read(member.maskRecord, n, record.info.mask);
    } else {
        record.info.depth = member.info.depth;
        record.info.color = member.info.color;
        record.info.mask = member.info.mask;
    }
    buildFramePyramid(instance_, &record);
}

void MemberSlots::release() {
    if (released_) return;
    released_ = true;
    std::lock_guard<std::mutex> guard(instance_.lock);
    for (void* block : pyramidBlocks_) instance_.pyramidPool->giveBack(block);
    for (void* block : imageBlocks_) instance_.imagePool->giveBack(block);
    for (int k = 0; k < count(); ++k) layoutPyramid(instance_, nullptr, slotRecord(k).levels);
    pyramidBlocks_.clear();
    imageBlocks_.clear();
}

}  // namespace kestor
