#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace kestor {

// A pool of equal blocks carved from large chunks. Blocks given back are reused at once, the most
// recently freed first; chunks are only ever added, and go back as a whole when the pool is
// released. The pool takes no lock: its users hold the instance lock. It does not test what the
// chunk allocator returns: a device allocator that returns null yields blocks that are small
// offsets from null, which are carried around but never dereferenced.
class BlockPool {
public:
    using AllocFunc = std::function<void*(size_t bytes)>;
    using FreeFunc = std::function<void(void* chunk)>;

    BlockPool(size_t blockBytes, size_t blocksPerChunk, AllocFunc allocFunc, FreeFunc freeFunc);
    ~BlockPool();  // releases every chunk
    BlockPool(const BlockPool&) = delete;
    BlockPool& operator=(const BlockPool&) = delete;

    // A free block: the last one given back, else the next one of the newest chunk, else the
    // first one of a new chunk. A pool of zero-byte blocks hands out null and allocates nothing.
    void* take();
    // The block is not cleared.
    void giveBack(void* block);
    // Forgets every block and hands the chunks to the free function, newest first.
    void releaseAll();
    // releaseAll, but only when every block handed out has come back. Returns whether it did.
    bool resetIfComplete();

    size_t blockBytes() const { return blockBytes_; }
    size_t blocksPerChunk() const { return blocksPerChunk_; }
    size_t chunkCount() const { return chunks_.size(); }
    size_t freeCount() const { return freeBlocks_.size(); }
    // Blocks handed out from chunks so far, reused ones not counted again.
    size_t carvedCount() const;

private:
    uintptr_t cursor_ = 0;    // next unused byte of the newest chunk
    uintptr_t chunkEnd_ = 0;  // end of the newest chunk
    std::vector<void*> chunks_;      // oldest first
    std::vector<void*> freeBlocks_;  // newest last
    AllocFunc allocFunc_;
    FreeFunc freeFunc_;
    size_t blocksPerChunk_;
    size_t blockBytes_;
    size_t chunkBytes_;
};

}  // namespace kestor
