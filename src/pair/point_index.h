#pragma once
// Static k-d tree over a borrowed array of 3-float points, answering "every point closer than a
// bound" through callables. Built once, never changed; any number of threads may query one index
// at once, since all search state belongs to the caller.
#include <cstdint>
#include <vector>

#include "pair/node_pool.h"

namespace kestor {

// The child on the query's side of a split, the other one, and the signed distance on the split
// axis from the query's coordinate v to the far child's limit.
struct SplitSides {
    const PointIndexNode* nearChild;
    const PointIndexNode* farChild;
    float cut;
};
inline SplitSides splitSides(const PointIndexNode& node, float v) {
    if ((node.division.divisionLow + node.division.divisionHigh) * 0.5f > v)
        return SplitSides{node.child1, node.child2, v - node.division.divisionHigh};
    return SplitSides{node.child2, node.child1, v - node.division.divisionLow};
}

class PointIndex {
public:
    // Indexes the points of `points` (x, y, z per point, packed) whose coordinates are not NaN.
    // `count` is taken as a 32-bit signed number of points; below 1 the index stays empty. The
    // array must outlive the index. Every caller in the library passes a leaf size of 10.
    PointIndex(const float* points, int64_t count, int leafSize);
    ~PointIndex();
    PointIndex(const PointIndex&) = delete;
    PointIndex& operator=(const PointIndex&) = delete;

    // Position (in the caller's array) of the nearest point at squared distance below radiusSq,
    // or -1. Of two points at the same distance the one reached first wins.
    int nearestWithin(const float* q, float radiusSq) const;

    // Appends every point at squared distance below radiusSq, in tree-walk order. The caller
    // clears the vectors.
    void allWithin(const float* q, float radiusSq, std::vector<int>& outPositions,
                   std::vector<float>& outDistancesSq) const;

    // Squared distance of q from the bounding box on each axis (0 inside the interval), and
    // their sum.
    float boxDistanceSq(const float* q, float* axisDistances) const;

    // The recursive search. add(position, distanceSq) is called for each point of a visited
    // leaf closer than bound(); a far child is visited only while bound() reaches its box.
    template <typename Add, typename Bound>
    void query(const PointIndexNode* node, const float* q, float* axisDistances,
               float minDistanceSq, Add&& add, Bound&& bound) const;

    const float* points() const { return points_; }
    uint64_t count() const { return count_; }
    const PointIndexNode* root() const { return root_; }
    const float* box() const { return box_; }
    int leafSize() const { return leafSize_; }
    const std::vector<int32_t>& indices() const { return indices_; }

private:
    // The fast walks behind the two adapters. They visit the tree as query() does and read the
    // coordinates from the leaf copies below.
    // The walk every search shares: a leaf goes to onLeaf(node); the near child is visited first
    // and the far one only while farBound() reaches the far side's distance from q.
    template <typename OnLeaf, typename FarBound>
    void descend(const PointIndexNode* node, const float* q, float* axisDistances,
                 float minDistanceSq, OnLeaf& onLeaf, FarBound& farBound) const;
    // Calls onPoint(position, distanceSq), in point order, for each point of a leaf nearer to q
    // than limit(), which is read afresh for each run of eight points.
    template <typename Limit, typename OnPoint>
    void scanLeaf(const PointIndexNode* node, const float* q, Limit limit, OnPoint onPoint) const;
    void nearestIn(const PointIndexNode* node, const float* q, float* axisDistances,
                   float minDistanceSq, float radiusSq, float margin, float& best,
                   int& position) const;
    void allIn(const PointIndexNode* node, const float* q, float* axisDistances,
               float minDistanceSq, float radiusSq, std::vector<int>& outPositions,
               std::vector<float>& outDistancesSq) const;
    void copyLeafCoordinates();
    PointIndexNode* divide(int left, int right, float* box);
    void split(int left, int right, float* box, int& axis, float& cut, int& middle);
    void boundingBox(int left, int right, float* box) const;
    float coordinate(int position, int axis) const { return points_[3 * indices_[position] + axis]; }

    const float* points_;
    uint64_t count_;
    PointIndexNode* root_ = nullptr;
    float box_[6] = {0, 0, 0, 0, 0, 0};  // xmin, xmax, ymin, ymax, zmin, zmax
    int leafSize_;
    std::vector<int32_t> indices_;
    // The indexed coordinates again, in the order of indices_ and split by axis (all x, then all
    // y, then all z, each run padded to a whole vector), so that a leaf's points are contiguous
    // and a leaf is scanned eight points at a time.
    std::vector<float> leafCoordinates_;
    size_t axisStride_ = 0;
};

template <typename OnLeaf, typename FarBound>
void PointIndex::descend(const PointIndexNode* node, const float* q, float* axisDistances,
                         float minDistanceSq, OnLeaf& onLeaf, FarBound& farBound) const {
    if (node->isLeaf()) {
        onLeaf(node);
        return;
    }
    const int axis = node->division.divisionAxis;
    const SplitSides sides = splitSides(*node, q[axis]);
    descend(sides.nearChild, q, axisDistances, minDistanceSq, onLeaf, farBound);
    const float old = axisDistances[axis];
    const float cutSq = sides.cut * sides.cut;
    const float farDistanceSq = minDistanceSq + cutSq - old;
    if (farBound() >= farDistanceSq) {
        axisDistances[axis] = cutSq;
        descend(sides.farChild, q, axisDistances, farDistanceSq, onLeaf, farBound);
        axisDistances[axis] = old;
    }
}

template <typename Add, typename Bound>
void PointIndex::query(const PointIndexNode* node, const float* q, float* axisDistances,
                       float minDistanceSq, Add&& add, Bound&& bound) const {
    auto leaf = [&](const PointIndexNode* at) {
        const float limit = bound();
        for (int i = at->leaf.left; i < at->leaf.right; ++i) {
            const int position = indices_[i];
            const float* p = points_ + 3 * position;
            const float dx = q[0] - p[0], dy = q[1] - p[1], dz = q[2] - p[2];
            const float distanceSq = (dx * dx + dy * dy) + dz * dz;
            if (limit > distanceSq) add(position, distanceSq);
        }
    };
    descend(node, q, axisDistances, minDistanceSq, leaf, bound);
}

}  // namespace kestor
