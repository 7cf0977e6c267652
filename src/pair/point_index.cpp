#include "pair/point_index.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace kestor {

namespace {

constexpr int kLanes = 8;

// All bits set in lanes [0, count).
inline __m256 firstLanes(int count) {
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    return _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_set1_epi32(count), lane));
}

// (dx*dx + dy*dy) + dz*dz of eight points from q, with the same roundings as one point at a
// time (products and sums are separate instructions).
inline __m256 distancesSq(const float* xs, const float* ys, const float* zs, const float* q) {
    const __m256 dx = _mm256_sub_ps(_mm256_set1_ps(q[0]), _mm256_loadu_ps(xs));
    const __m256 dy = _mm256_sub_ps(_mm256_set1_ps(q[1]), _mm256_loadu_ps(ys));
    const __m256 dz = _mm256_sub_ps(_mm256_set1_ps(q[2]), _mm256_loadu_ps(zs));
    return _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy)),
                         _mm256_mul_ps(dz, dz));
}

}  // namespace

PointIndex::PointIndex(const float* points, int64_t count, int leafSize)
    : points_(points), count_(uint64_t(count)), leafSize_(leafSize) {
    const int32_t n = int32_t(count);
    if (n < 1 || points == nullptr) return;
    // NaN points are left out; an infinite coordinate does not exclude a point.
    indices_.resize(size_t(n));
    int kept = 0;
    for (int32_t i = 0; i < n; ++i) {
        const float* p = points + 3 * size_t(i);
        if (!std::isnan(p[0]) && !std::isnan(p[1]) && !std::isnan(p[2])) indices_[size_t(kept++)] = i;
    }
    indices_.resize(size_t(kept));
    if (kept == 0) return;
    boundingBox(0, kept, box_);
    root_ = divide(0, kept, box_);
    copyLeafCoordinates();
}

void PointIndex::copyLeafCoordinates() {
    const size_t kept = indices_.size();
    // A leaf scan reads whole vectors from its first point on, so each run has a vector of slack.
    axisStride_ = (kept + 2 * kLanes - 1) / kLanes * kLanes;
    leafCoordinates_.assign(3 * axisStride_, 0.0f);
    for (size_t i = 0; i < kept; ++i) {
        const float* p = points_ + 3 * size_t(indices_[i]);
        leafCoordinates_[i] = p[0];
        leafCoordinates_[axisStride_ + i] = p[1];
        leafCoordinates_[2 * axisStride_ + i] = p[2];
    }
}

PointIndex::~PointIndex() { releaseIndexTree(root_); }

void PointIndex::boundingBox(int left, int right, float* box) const {
    for (int axis = 0; axis < 3; ++axis) {
        box[2 * axis] = box[2 * axis + 1] = coordinate(left, axis);
    }
    for (int i = left + 1; i < right; ++i) {
        for (int axis = 0; axis < 3; ++axis) {
            const float c = coordinate(i, axis);
            if (c < box[2 * axis]) box[2 * axis] = c;
            if (c > box[2 * axis + 1]) box[2 * axis + 1] = c;
        }
    }
}

PointIndexNode* PointIndex::divide(int left, int right, float* box) {
    PointIndexNode* node = takeIndexNode();
    if (right - left <= leafSize_) {
        node->leaf.left = left;
        node->leaf.right = right;
        boundingBox(left, right, box);
        return node;
    }
    int axis, middle;
    float cut;
    split(left, right, box, axis, cut, middle);
    float lowBox[6], highBox[6];
    std::copy(box, box + 6, lowBox);
    std::copy(box, box + 6, highBox);
    lowBox[2 * axis + 1] = cut;
    highBox[2 * axis] = cut;
    node->child1 = divide(left, middle, lowBox);
    node->child2 = divide(middle, right, highBox);
    node->division.divisionAxis = axis;
    node->division.divisionLow = lowBox[2 * axis + 1];
    node->division.divisionHigh = highBox[2 * axis];
    for (int a = 0; a < 3; ++a) {
        box[2 * a] = std::min(lowBox[2 * a], highBox[2 * a]);
        box[2 * a + 1] = std::max(lowBox[2 * a + 1], highBox[2 * a + 1]);
    }
    return node;
}

void PointIndex::split(int left, int right, float* box, int& axis, float& cut, int& middle) {
    middle = (left + right) >> 1;
    // The widest axis of the box as passed in; a tie goes to the lower axis.
    axis = 0;
    float widest = box[1] - box[0];
    for (int a = 1; a < 3; ++a) {
        const float span = box[2 * a + 1] - box[2 * a];
        if (span > widest) {
            widest = span;
            axis = a;
        }
    }
    float lo = coordinate(left, axis), hi = lo;
    for (int i = left + 1; i < right; ++i) {
        const float c = coordinate(i, axis);
        if (c < lo) lo = c;
        if (c > hi) hi = c;
    }
    box[2 * axis] = lo;
    box[2 * axis + 1] = hi;
    cut = (lo + hi) * 0.5f;
    // Two huge coordinates overflow the sum: halve them first. Infinities at both ends give NaN:
    // cut that span at 0.
    if (std::isinf(cut) && std::isfinite(lo) && std::isfinite(hi))
        cut = lo * 0.5f + hi * 0.5f;
    else if (std::isnan(cut))
        cut = 0.0f;

    // Moves the points of [from, right) that satisfy `before` to the front; returns the
    // position after them. The right cursor never goes below position 0.
    auto partition = [&](int from, auto before) {
        int l = from, r = right - 1;
        for (;;) {
            while (l <= r && before(coordinate(l, axis))) ++l;
            while (r > 0 && l <= r && !before(coordinate(r, axis))) --r;
            if (l > r || r == 0) break;
            std::swap(indices_[size_t(l)], indices_[size_t(r)]);
            ++l;
            --r;
        }
        return l;
    };
    const float c = cut;
    const int lim1 = partition(left, [c](float v) { return v < c; });
    const int lim2 = partition(lim1, [c](float v) { return v <= c; });
    // A run of coordinates equal to the cut is divided at its middle as far as the limits allow.
    if (lim1 > middle)
        middle = lim1;
    else
        middle = std::min(lim2, middle);
    // Whatever the coordinates, both sides keep points, so the recursion ends.
    if (middle <= left || middle >= right) middle = (left + right) >> 1;
}

float PointIndex::boxDistanceSq(const float* q, float* axisDistances) const {
    float sum = 0.0f;
    for (int axis = 0; axis < 3; ++axis) {
        float d = 0.0f;
        if (q[axis] < box_[2 * axis]) {
            const float gap = box_[2 * axis] - q[axis];
            d = gap * gap;
        } else if (q[axis] > box_[2 * axis + 1]) {
            const float gap = q[axis] - box_[2 * axis + 1];
            d = gap * gap;
        }
        axisDistances[axis] = d;
        sum += d;
    }
    return sum;
}

int PointIndex::nearestWithin(const float* q, float radiusSq) const {
    float axisDistances[3];
    const float start = boxDistanceSq(q, axisDistances);
    if (start > radiusSq || root_ == nullptr) return -1;
    // The answer is that of a walk whose bound stays at the radius: the nearest point below it,
    // the first one reached on a tie. Such a walk visits every leaf within the radius; this one
    // also skips far children that cannot hold a point closer than the best so far. The
    // incremental box distance is rounded differently from a point's distance, by far less
    // than the margin, so a skipped child never holds a point that would have won.
    const float margin = radiusSq * 1e-3f;
    float best = radiusSq;
    int position = -1;
    nearestIn(root_, q, axisDistances, start, radiusSq, margin, best, position);
    return position;
}

template <typename Limit, typename OnPoint>
void PointIndex::scanLeaf(const PointIndexNode* node, const float* q, Limit limit,
                          OnPoint onPoint) const {
    const int left = node->leaf.left, count = node->leaf.right - left;
    const float* xs = leafCoordinates_.data() + left;
    for (int i = 0; i < count; i += kLanes) {
        const __m256 d = distancesSq(xs + i, xs + axisStride_ + i, xs + 2 * axisStride_ + i, q);
        const __m256 nearer = _mm256_cmp_ps(_mm256_set1_ps(limit()), d, _CMP_GT_OQ);
        unsigned mask = unsigned(_mm256_movemask_ps(_mm256_and_ps(nearer, firstLanes(count - i))));
        if (mask == 0) continue;
        alignas(32) float ds[kLanes];
        _mm256_store_ps(ds, d);
        for (; mask != 0; mask &= mask - 1) {
            const int k = __builtin_ctz(mask);
            onPoint(indices_[size_t(left + i + k)], ds[k]);
        }
    }
}

void PointIndex::nearestIn(const PointIndexNode* node, const float* q, float* axisDistances,
                           float minDistanceSq, float radiusSq, float margin, float& best,
                           int& position) const {
    // In point order, so that the first of equal distances stays.
    auto leaf = [&](const PointIndexNode* at) {
        scanLeaf(at, q, [&best] { return best; }, [&](int found, float distanceSq) {
            if (best > distanceSq) {
                best = distanceSq;
                position = found;
            }
        });
    };
    auto farBound = [&] { return best + margin < radiusSq ? best + margin : radiusSq; };
    descend(node, q, axisDistances, minDistanceSq, leaf, farBound);
}

void PointIndex::allWithin(const float* q, float radiusSq, std::vector<int>& outPositions,
                           std::vector<float>& outDistancesSq) const {
    float axisDistances[3];
    const float start = boxDistanceSq(q, axisDistances);
    if (start > radiusSq || root_ == nullptr) return;
    allIn(root_, q, axisDistances, start, radiusSq, outPositions, outDistancesSq);
}

void PointIndex::allIn(const PointIndexNode* node, const float* q, float* axisDistances,
                       float minDistanceSq, float radiusSq, std::vector<int>& outPositions,
                       std::vector<float>& outDistancesSq) const {
    auto leaf = [&](const PointIndexNode* at) {
        scanLeaf(at, q, [radiusSq] { return radiusSq; }, [&](int found, float distanceSq) {
            outPositions.push_back(found);
            outDistancesSq.push_back(distanceSq);
        });
    };
    auto farBound = [radiusSq] { return radiusSq; };
    descend(node, q, axisDistances, minDistanceSq, leaf, farBound);
}

}  // namespace kestor
