#include "core/block_pool.h"

#include <utility>

namespace kestor {

// Positions are kept as integers: the chunks of a device pool start at null, and offsets from
// null are not pointer arithmetic the language allows.

BlockPool::BlockPool(size_t blockBytes, size_t blocksPerChunk, AllocFunc allocFunc,
                     FreeFunc freeFunc)
    : allocFunc_(std::move(allocFunc)),
      freeFunc_(std::move(freeFunc)),
      blocksPerChunk_(blocksPerChunk),
      blockBytes_(blockBytes),
      chunkBytes_(blockBytes * blocksPerChunk) {}

BlockPool::~BlockPool() { releaseAll(); }

void* BlockPool::take() {
    if (!freeBlocks_.empty()) {
        void* block = freeBlocks_.back();
        freeBlocks_.pop_back();
        return block;
    }
    if (blockBytes_ == 0) return nullptr;
    if (chunks_.empty() || cursor_ == chunkEnd_) {
        void* chunk = allocFunc_(chunkBytes_);
        chunks_.push_back(chunk);
        cursor_ = reinterpret_cast<uintptr_t>(chunk);
        chunkEnd_ = cursor_ + chunkBytes_;
    }
    const uintptr_t block = cursor_;
    cursor_ += blockBytes_;
    return reinterpret_cast<void*>(block);
}

void BlockPool::giveBack(void* block) { freeBlocks_.push_back(block); }

void BlockPool::releaseAll() {
    freeBlocks_.clear();
    cursor_ = 0;
    chunkEnd_ = 0;
    std::vector<void*> chunks;
    chunks.swap(chunks_);
    for (auto it = chunks.rbegin(); it != chunks.rend(); ++it)
        if (freeFunc_) freeFunc_(*it);
}

size_t BlockPool::carvedCount() const {
    if (chunks_.empty() || blockBytes_ == 0) return 0;
    const uintptr_t newest = reinterpret_cast<uintptr_t>(chunks_.back());
    return (cursor_ - newest) / blockBytes_ + (chunks_.size() - 1) * blocksPerChunk_;
}

bool BlockPool::resetIfComplete() {
    if (chunks_.empty() || carvedCount() != freeBlocks_.size()) return false;
    releaseAll();
    return true;
}

}  // namespace kestor
