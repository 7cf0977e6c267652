#pragma once
// The working memory of the point-map refinement: one slot per group member (groupSize of them),
// each a pyramid block and, when planes come from the spill cache, an image block, taken from the
// instance's pools for the length of one call and reused by every group.
#include <cstdint>
#include <vector>

#include "core/fusion_instance.h"

namespace kestor {

class MemberSlots {
public:
    // Takes the blocks under the instance lock. Planes are read from the spill cache for the
    // whole call when the cache is open and the instance keeps host memory.
    explicit MemberSlots(RGBDFusionImpl& instance);
    ~MemberSlots();  // release(), if not yet done
    MemberSlots(const MemberSlots&) = delete;
    MemberSlots& operator=(const MemberSlots&) = delete;

    // Slot k takes the planes of `member` (its own, or read from the spill cache into the slot's
    // image block; a record that cannot be read leaves the block as it was) and gets the
    // member's pyramid built into its levels, as intake builds it.
    void load(int k, const _Frame& member);

    // Slot k as a frame record: the planes in `info`, the pyramid in `levels`.
    const _Frame& slot(int k) const { return *reinterpret_cast<const _Frame*>(records_[size_t(k)].data()); }
    int count() const { return int(records_.size()); }
    bool fromCache() const { return fromCache_; }

    // Gives the blocks back to their pools (under the lock) and clears the level records.
    void release();

private:
    _Frame& slotRecord(int k) { return *reinterpret_cast<_Frame*>(records_[size_t(k)].data()); }

    RGBDFusionImpl& instance_;
    bool fromCache_;
    bool released_ = false;
    std::vector<std::vector<uint64_t>> records_;  // one cleared frame record per slot
    std::vector<void*> pyramidBlocks_, imageBlocks_;
};

}  // namespace kestor
