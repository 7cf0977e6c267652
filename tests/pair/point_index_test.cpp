#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "pair/point_index.h"

using kestor::PointIndex;
using kestor::PointIndexNode;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

float distanceSq(const float* q, const float* p) {
    const float dx = q[0] - p[0], dy = q[1] - p[1], dz = q[2] - p[2];
    return (dx * dx + dy * dy) + dz * dz;
}

// Nearest point strictly inside the radius by a full scan, and every point inside it.
struct BruteForce {
    const std::vector<float>& points;
    float nearestDistance(const float* q, float radiusSq, int& position) const {
        float best = radiusSq;
        position = -1;
        for (size_t i = 0; i < points.size() / 3; ++i) {
            const float d = distanceSq(q, &points[3 * i]);
            if (best > d) {
                best = d;
                position = int(i);
            }
        }
        return best;
    }
    std::vector<int> all(const float* q, float radiusSq) const {
        std::vector<int> out;
        for (size_t i = 0; i < points.size() / 3; ++i)
            if (radiusSq > distanceSq(q, &points[3 * i])) out.push_back(int(i));
        return out;
    }
};

// Answers of the index against a scan for a batch of queries. Ties may pick either point, so
// the nearest is compared by distance.
void expectAgreement(const std::vector<float>& points, const std::vector<float>& queries,
                     float radiusSq) {
    PointIndex index(points.data(), int64_t(points.size() / 3), 10);
    BruteForce brute{points};
    for (size_t k = 0; k < queries.size() / 3; ++k) {
        const float* q = &queries[3 * k];
        int expected;
        const float expectedDistance = brute.nearestDistance(q, radiusSq, expected);
        const int found = index.nearestWithin(q, radiusSq);
        ASSERT_EQ(found < 0, expected < 0) << "query " << k;
        if (found >= 0) {
            EXPECT_EQ(distanceSq(q, &points[3 * size_t(found)]), expectedDistance);
        }

        std::vector<int> positions;
        std::vector<float> distances;
        index.allWithin(q, radiusSq, positions, distances);
        ASSERT_EQ(positions.size(), distances.size());
        for (size_t i = 0; i < positions.size(); ++i)
            EXPECT_EQ(distances[i], distanceSq(q, &points[3 * size_t(positions[i])]));
        std::sort(positions.begin(), positions.end());
        EXPECT_EQ(positions, brute.all(q, radiusSq)) << "query " << k;
    }
}

std::vector<float> randomPoints(std::mt19937& rng, int n, float lo, float hi) {
    std::uniform_real_distribution<float> uni(lo, hi);
    std::vector<float> p(3 * size_t(n));
    for (float& v : p) v = uni(rng);
    return p;
}

// Checks the tree against its definition: leaves within the leaf size, the division values
// are the true extremes of the two subtrees, and every kept point sits in exactly one leaf.
void checkSubtree(const PointIndex& index, const PointIndexNode* node, float* lo, float* hi,
                  std::vector<int>& seen) {
    for (int a = 0; a < 3; ++a) {
        lo[a] = std::numeric_limits<float>::infinity();
        hi[a] = -lo[a];
    }
    if (node->isLeaf()) {
        ASSERT_GT(node->leaf.right, node->leaf.left);
        ASSERT_LE(node->leaf.right - node->leaf.left, index.leafSize());
        for (int i = node->leaf.left; i < node->leaf.right; ++i) {
            const int position = index.indices()[size_t(i)];
            seen.push_back(position);
            for (int a = 0; a < 3; ++a) {
                lo[a] = std::min(lo[a], index.points()[3 * position + a]);
                hi[a] = std::max(hi[a], index.points()[3 * position + a]);
            }
        }
        return;
    }
    ASSERT_NE(node->child1, nullptr);
    ASSERT_NE(node->child2, nullptr);
    float lo1[3], hi1[3], lo2[3], hi2[3];
    checkSubtree(index, node->child1, lo1, hi1, seen);
    checkSubtree(index, node->child2, lo2, hi2, seen);
    const int axis = node->division.divisionAxis;
    EXPECT_EQ(node->division.divisionLow, hi1[axis]);
    EXPECT_EQ(node->division.divisionHigh, lo2[axis]);
    for (int a = 0; a < 3; ++a) {
        lo[a] = std::min(lo1[a], lo2[a]);
        hi[a] = std::max(hi1[a], hi2[a]);
    }
}

void checkTree(const PointIndex& index, int keptExpected) {
    ASSERT_NE(index.root(), nullptr);
    std::vector<int> seen;
    float lo[3], hi[3];
    checkSubtree(index, index.root(), lo, hi, seen);
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(index.box()[2 * a], lo[a]);
        EXPECT_EQ(index.box()[2 * a + 1], hi[a]);
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(int(seen.size()), keptExpected);
    EXPECT_TRUE(std::adjacent_find(seen.begin(), seen.end()) == seen.end());
}

}  // namespace

TEST(PointIndex, AgreesWithBruteForceOnRandomClouds) {
    std::mt19937 rng(1);
    for (int n : {1, 7, 10, 11, 500, 3000}) {
        const auto points = randomPoints(rng, n, -1.0f, 1.0f);
        // Queries inside and well outside the box.
        const auto queries = randomPoints(rng, 200, -1.6f, 1.6f);
        for (float radius : {0.05f, 0.2f, 1.0f, 5.0f}) expectAgreement(points, queries, radius * radius);
        PointIndex index(points.data(), n, 10);
        checkTree(index, n);
    }
}

TEST(PointIndex, DuplicatesAndRepeatedCoordinates) {
    // Coordinates on a coarse grid, every point several times: many ties on every split axis.
    std::mt19937 rng(2);
    std::uniform_int_distribution<int> cell(0, 4);
    std::vector<float> points;
    for (int i = 0; i < 400; ++i) {
        const float p[3] = {0.25f * float(cell(rng)), 0.25f * float(cell(rng)), 0.0f};
        for (int copy = 0; copy < 3; ++copy) points.insert(points.end(), p, p + 3);
    }
    const auto queries = randomPoints(rng, 100, -0.2f, 1.2f);
    expectAgreement(points, queries, 0.3f * 0.3f);
    PointIndex index(points.data(), int64_t(points.size() / 3), 10);
    checkTree(index, int(points.size() / 3));
}

TEST(PointIndex, IdenticalPointsSplitAtTheMiddle) {
    std::vector<float> points(3 * 100, 0.5f);
    PointIndex index(points.data(), 100, 10);
    checkTree(index, 100);
    const PointIndexNode* root = index.root();
    ASSERT_FALSE(root->isLeaf());
    // Both children non-empty, the cut at the middle of the range.
    const PointIndexNode* left = root->child1;
    while (!left->isLeaf()) left = left->child2;
    EXPECT_EQ(left->leaf.right, 50);
    const float q[3] = {0.5f, 0.5f, 0.6f};
    const int found = index.nearestWithin(q, 0.02f);
    EXPECT_GE(found, 0);
    std::vector<int> all;
    std::vector<float> d;
    index.allWithin(q, 0.02f, all, d);
    EXPECT_EQ(all.size(), 100u);
}

TEST(PointIndex, NaNPointsAreCountedButNeverFound) {
    std::mt19937 rng(3);
    auto points = randomPoints(rng, 600, 0.0f, 1.0f);
    for (int i = 0; i < 600; i += 3) points[3 * size_t(i) + size_t(i % 3)] = kNaN;
    PointIndex index(points.data(), 600, 10);
    EXPECT_EQ(index.count(), 600u);
    EXPECT_EQ(index.indices().size(), 400u);
    checkTree(index, 400);
    const auto queries = randomPoints(rng, 100, 0.0f, 1.0f);
    // The scan sees NaN distances, which never pass the bound, so it agrees too.
    expectAgreement(points, queries, 0.1f * 0.1f);
    // Positions are those of the caller's array.
    for (int i = 1; i < 600; i += 3) {
        const int found = index.nearestWithin(&points[3 * size_t(i)], 1e-12f);
        EXPECT_EQ(found, i);
    }
}

TEST(PointIndex, FlatAndDegenerateClouds) {
    std::mt19937 rng(4);
    // A plane z = 2 and a line along y.
    auto plane = randomPoints(rng, 1000, -1.0f, 1.0f);
    for (size_t i = 0; i < 1000; ++i) plane[3 * i + 2] = 2.0f;
    auto line = randomPoints(rng, 1000, -1.0f, 1.0f);
    for (size_t i = 0; i < 1000; ++i) line[3 * i] = line[3 * i + 2] = 0.0f;
    auto queries = randomPoints(rng, 150, -1.2f, 1.2f);
    for (size_t i = 0; i < 50; ++i) queries[3 * i + 2] = 2.0f;  // some in the plane itself
    for (const auto* cloud : {&plane, &line}) {
        expectAgreement(*cloud, queries, 0.15f * 0.15f);
        PointIndex index(cloud->data(), 1000, 10);
        checkTree(index, 1000);
    }
}

TEST(PointIndex, PointAtExactlyTheRadiusIsNotFound) {
    const std::vector<float> points = {0, 0, 0, 10, 10, 10};
    PointIndex index(points.data(), 2, 10);
    const float q[3] = {3, 4, 0};  // squared distance 25, exact in float
    EXPECT_EQ(index.nearestWithin(q, 25.0f), -1);
    EXPECT_EQ(index.nearestWithin(q, std::nextafter(25.0f, 30.0f)), 0);
    std::vector<int> all;
    std::vector<float> d;
    index.allWithin(q, 25.0f, all, d);
    EXPECT_TRUE(all.empty());
}

TEST(PointIndex, QueriesOutsideTheBox) {
    std::mt19937 rng(5);
    const auto points = randomPoints(rng, 300, 0.0f, 1.0f);
    PointIndex index(points.data(), 300, 10);
    const float q[3] = {3.0f, 0.5f, 0.5f};
    float axis[3];
    const float s = index.boxDistanceSq(q, axis);
    EXPECT_FLOAT_EQ(axis[0], (3.0f - index.box()[1]) * (3.0f - index.box()[1]));
    EXPECT_EQ(axis[1], 0.0f);
    EXPECT_EQ(axis[2], 0.0f);
    EXPECT_EQ(s, axis[0]);
    EXPECT_EQ(index.nearestWithin(q, 1.0f), -1);
    int expectedFar;
    BruteForce{points}.nearestDistance(q, 9.0f, expectedFar);
    EXPECT_GE(expectedFar, 0);
    EXPECT_EQ(index.nearestWithin(q, 9.0f), expectedFar);
    // Just outside a corner: found only once the radius reaches across the gap.
    const float corner[3] = {-0.1f, -0.1f, -0.1f};
    int expected;
    BruteForce{points}.nearestDistance(corner, 1.0f, expected);
    EXPECT_EQ(index.nearestWithin(corner, 1.0f), expected);
}

TEST(PointIndex, EmptyAndAllNaNCloudsFindNothing) {
    const std::vector<float> nan(30, kNaN);
    PointIndex allNaN(nan.data(), 10, 10);
    PointIndex empty(nullptr, 0, 10);
    PointIndex negative(nan.data(), -5, 10);
    for (const PointIndex* index : {&allNaN, &empty, &negative}) {
        EXPECT_EQ(index->root(), nullptr);
        for (int a = 0; a < 6; ++a) EXPECT_EQ(index->box()[a], 0.0f);
        const float origin[3] = {0, 0, 0};
        EXPECT_EQ(index->nearestWithin(origin, 1.0f), -1);
        std::vector<int> all;
        std::vector<float> d;
        index->allWithin(origin, 1.0f, all, d);
        EXPECT_TRUE(all.empty());
    }
    EXPECT_EQ(allNaN.count(), 10u);
}

TEST(PointIndex, SmallCloudIsOneLeaf) {
    std::mt19937 rng(6);
    const auto points = randomPoints(rng, 10, 0.0f, 1.0f);
    PointIndex index(points.data(), 10, 10);
    ASSERT_TRUE(index.root()->isLeaf());
    EXPECT_EQ(index.root()->leaf.left, 0);
    EXPECT_EQ(index.root()->leaf.right, 10);
    const auto more = randomPoints(rng, 11, 0.0f, 1.0f);
    PointIndex eleven(more.data(), 11, 10);
    EXPECT_FALSE(eleven.root()->isLeaf());
}

TEST(PointIndex, ConcurrentQueriesGiveTheSameAnswers) {
    std::mt19937 rng(7);
    const auto points = randomPoints(rng, 20000, 0.0f, 1.0f);
    const auto queries = randomPoints(rng, 4000, -0.1f, 1.1f);
    PointIndex index(points.data(), 20000, 10);
    const float radiusSq = 0.03f * 0.03f;
    std::vector<int> serial(4000), counts(4000);
    for (int k = 0; k < 4000; ++k) serial[size_t(k)] = index.nearestWithin(&queries[3 * size_t(k)], radiusSq);
    std::vector<std::vector<int>> results(4, std::vector<int>(4000));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::vector<int> pos;
            std::vector<float> dist;
            for (int k = 0; k < 4000; ++k) {
                const float* q = &queries[3 * size_t(k)];
                results[size_t(t)][size_t(k)] = index.nearestWithin(q, radiusSq);
                pos.clear();
                dist.clear();
                index.allWithin(q, radiusSq, pos, dist);
                if (t == 0) counts[size_t(k)] = int(pos.size());
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(results[size_t(t)], serial);
    BruteForce brute{points};
    for (int k = 0; k < 4000; k += 97)
        EXPECT_EQ(counts[size_t(k)], int(brute.all(&queries[3 * size_t(k)], radiusSq).size()));
}

TEST(NodePool, LastIndexToGoFreesEveryBlock) {
    ASSERT_EQ(kestor::nodePoolBlockCount(), 0u);
    std::mt19937 rng(8);
    const auto points = randomPoints(rng, 20000, 0.0f, 1.0f);
    auto* a = new PointIndex(points.data(), 20000, 10);
    const size_t blocksA = kestor::nodePoolBlockCount();
    EXPECT_GT(blocksA, 1u);
    auto* b = new PointIndex(points.data(), 5000, 10);
    EXPECT_GT(kestor::nodePoolBlockCount(), blocksA);
    delete a;
    // The first tree's nodes wait in the released list, and a new build reuses them.
    const size_t released = kestor::nodePoolReleasedCount();
    EXPECT_GT(released, 0u);
    const size_t blocksBefore = kestor::nodePoolBlockCount();
    auto* c = new PointIndex(points.data(), 1000, 10);
    EXPECT_EQ(kestor::nodePoolBlockCount(), blocksBefore);
    EXPECT_LT(kestor::nodePoolReleasedCount(), released);
    delete b;
    EXPECT_GT(kestor::nodePoolBlockCount(), 0u);
    delete c;
    EXPECT_EQ(kestor::nodePoolBlockCount(), 0u);
    EXPECT_EQ(kestor::nodePoolReleasedCount(), 0u);
}
