#pragma once
#include <cstddef>
#include <cstdint>

namespace kestor {

// One node of a PointIndex. A leaf covers the half-open range [left, right) of the index's
// permuted positions; an inner node splits on one axis, child1 holding the coordinates up to
// divisionLow and child2 those from divisionHigh. Both children null means a leaf.
struct PointIndexNode {
    struct LeafRange {
        int32_t left;
        int32_t right;
    };
    struct Division {
        int32_t divisionAxis;
        float divisionLow;
        float divisionHigh;
    };
    union {
        LeafRange leaf;
        Division division;
    };
    PointIndexNode* child1;
    PointIndexNode* child2;

    bool isLeaf() const { return child1 == nullptr && child2 == nullptr; }
};

// The process-wide store of index nodes: blocks of 512 nodes, handed out by a bump cursor and
// recycled last-released-first. When every node handed out has come back, all blocks are freed.
// Guarded by one lock, so indexes may be built and dropped on several threads at once.
constexpr size_t kNodesPerBlock = 512;

// A cleared node (children null).
PointIndexNode* takeIndexNode();

// Returns a whole tree to the pool, children before parents.
void releaseIndexTree(PointIndexNode* root);

// Pool state, for tests and diagnostics.
size_t nodePoolBlockCount();
size_t nodePoolReleasedCount();

}  // namespace kestor
