#include "pair/node_pool.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>

namespace kestor {

namespace {

struct NodePool {
    std::deque<PointIndexNode*> blocks;
    std::deque<PointIndexNode*> released;
    void* (*allocate)(size_t) = std::malloc;
    void (*deallocate)(void*) = std::free;
    PointIndexNode* cursor = nullptr;
    PointIndexNode* end = nullptr;

    ~NodePool() { freeAll(); }

    PointIndexNode* take() {
        PointIndexNode* node;
        if (!released.empty()) {
            node = released.back();
            released.pop_back();
        } else {
            if (cursor == end) {
                void* block = allocate(kNodesPerBlock * sizeof(PointIndexNode));
                if (block == nullptr) throw std::bad_alloc();
                blocks.push_back(static_cast<PointIndexNode*>(block));
                cursor = blocks.back();
                end = cursor + kNodesPerBlock;
            }
            node = cursor++;
        }
        std::memset(static_cast<void*>(node), 0, sizeof(PointIndexNode));
        return node;
    }

    void releaseTree(PointIndexNode* node) {
        if (node == nullptr) return;
        releaseTree(node->child1);
        releaseTree(node->child2);
        released.push_back(node);
    }

    // Every node handed out so far has come back: the full older blocks plus the used part of
    // the newest one.
    bool allReleased() const {
        const size_t handedOut = kNodesPerBlock * (blocks.size() - 1) + size_t(cursor - blocks.back());
        return released.size() == handedOut;
    }

    void freeAll() {
        for (PointIndexNode* block : blocks) deallocate(block);
        blocks.clear();
        released.clear();
        cursor = end = nullptr;
    }
};

// Created at load and emptied at unload with the library. Indexes are built and dropped by
// stateless calls that may run on several threads at once, so every use takes the lock.
NodePool pool;
std::mutex poolLock;

}  // namespace

PointIndexNode* takeIndexNode() {
    std::lock_guard<std::mutex> guard(poolLock);
    return pool.take();
}

void releaseIndexTree(PointIndexNode* root) {
    std::lock_guard<std::mutex> guard(poolLock);
    pool.releaseTree(root);
    if (!pool.blocks.empty() && pool.allReleased()) pool.freeAll();
}

size_t nodePoolBlockCount() {
    std::lock_guard<std::mutex> guard(poolLock);
    return pool.blocks.size();
}

size_t nodePoolReleasedCount() {
    std::lock_guard<std::mutex> guard(poolLock);
    return pool.released.size();
}

}  // namespace kestor
