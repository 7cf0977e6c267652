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

// Every point strictly inside the radius, by a full scan (NaN distances never pass).
std::vector<int> bruteAll(const std::vector<float>& points, const float* q, float radiusSq) {
    std::vector<int> out;
    for (size_t i = 0; i < points.size() / 3; ++i)
        if (radiusSq > distanceSq(q, &points[3 * i])) out.push_back(int(i));
    return out;
}

// The index against the scan for a batch of queries. Ties may pick either point, so the nearest
// is compared by distance.
void expectAgreement(const std::vector<float>& points, const std::vector<float>& queries,
                     float radiusSq) {
    PointIndex index(points.data(), int64_t(points.size() / 3), 10);
    for (size_t k = 0; k < queries.size() / 3; ++k) {
        const float* q = &queries[3 * k];
        const std::vector<int> expected = bruteAll(points, q, radiusSq);
        float best = radiusSq;
        for (int i : expected) best = std::min(best, distanceSq(q, &points[3 * size_t(i)]));
        const int found = index.nearestWithin(q, radiusSq);
        ASSERT_EQ(found < 0, expected.empty()) << "query " << k;
        if (found >= 0) {
            EXPECT_EQ(distanceSq(q, &points[3 * size_t(found)]), best);
        }
        std::vector<int> positions;
        std::vector<float> distances;
        index.allWithin(q, radiusSq, positions, distances);
        ASSERT_EQ(positions.size(), distances.size());
        for (size_t i = 0; i < positions.size(); ++i)
            EXPECT_EQ(distances[i], distanceSq(q, &points[3 * size_t(positions[i])]));
        std::sort(positions.begin(), positions.end());
        EXPECT_EQ(positions, expected) << "query " << k;
    }
}

std::vector<float> randomPoints(std::mt19937& rng, int n, float lo, float hi) {
    std::uniform_real_distribution<float> uni(lo, hi);
    std::vector<float> p(3 * size_t(n));
    for (float& v : p) v = uni(rng);
    return p;
}

// Every kept point in the index once; 10 points are one leaf, 11 are not.
void checkTree(const std::vector<float>& points, int keptExpected) {
    PointIndex index(points.data(), int64_t(points.size() / 3), 10);
    std::vector<int> kept = index.indices();
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(int(kept.size()), keptExpected);
    EXPECT_TRUE(std::adjacent_find(kept.begin(), kept.end()) == kept.end());
    ASSERT_NE(index.root(), nullptr);
    EXPECT_EQ(index.root()->isLeaf(), keptExpected <= 10);
}

}  // namespace

// Random clouds of sizes around the leaf size, duplicates on a coarse grid (ties on every split
// axis), NaN points, a plane, a line and one repeated point, with queries inside and outside.
TEST(PointIndex, AgreesWithBruteForceOnEveryKindOfCloud) {
    std::mt19937 rng(1);
    struct Cloud {
        const char* name;
        std::vector<float> points;
        int kept;
    };
    std::vector<Cloud> clouds;
    for (int n : {1, 10, 11, 500, 3000}) clouds.push_back({"random", randomPoints(rng, n, -1, 1), n});
    std::vector<float> grid;
    std::uniform_int_distribution<int> cell(0, 4);
    for (int i = 0; i < 400; ++i) {
        const float p[3] = {0.25f * float(cell(rng)), 0.25f * float(cell(rng)), 0.0f};
        for (int copy = 0; copy < 3; ++copy) grid.insert(grid.end(), p, p + 3);
    }
    clouds.push_back({"duplicates", grid, 1200});
    auto withNaN = randomPoints(rng, 600, 0, 1);
    for (size_t i = 0; i < 600; i += 3) withNaN[3 * i + (i / 3) % 3] = kNaN;  // x, y or z
    clouds.push_back({"NaN", withNaN, 400});
    auto plane = randomPoints(rng, 1000, -1, 1), line = plane;
    for (size_t i = 0; i < 1000; ++i) plane[3 * i + 2] = 2.0f, line[3 * i] = line[3 * i + 2] = 0.0f;
    clouds.push_back({"plane", plane, 1000});
    clouds.push_back({"line", line, 1000});
    clouds.push_back({"one point", std::vector<float>(300, 0.5f), 100});
    auto queries = randomPoints(rng, 150, -1.6f, 1.6f);
    for (size_t i = 0; i < 30; ++i) queries[3 * i + 2] = 2.0f;  // some in the plane itself
    for (const Cloud& c : clouds) {
        SCOPED_TRACE(testing::Message() << c.name << " " << c.points.size() / 3);
        for (float radius : {0.05f, 0.2f, 1.0f, 5.0f}) expectAgreement(c.points, queries, radius * radius);
        checkTree(c.points, c.kept);
    }
    // NaN points count, and positions are those of the caller's array.
    PointIndex index(withNaN.data(), 600, 10);
    EXPECT_EQ(index.count(), 600u);
    for (int i = 1; i < 600; i += 3) EXPECT_EQ(index.nearestWithin(&withNaN[3 * size_t(i)], 1e-12f), i);
    // Identical points: split at the middle of the range, both halves non-empty.
    PointIndex same(clouds.back().points.data(), 100, 10);
    const PointIndexNode* left = same.root()->child1;
    while (!left->isLeaf()) left = left->child2;
    EXPECT_EQ(left->leaf.right, 50);
}

TEST(PointIndex, ExactRadiusOutsideTheBoxAndEmptyClouds) {
    const std::vector<float> two = {0, 0, 0, 10, 10, 10};
    PointIndex index(two.data(), 2, 10);
    const float q[3] = {3, 4, 0};  // squared distance 25, exact in float: not found at 25
    EXPECT_EQ(index.nearestWithin(q, 25.0f), -1);
    EXPECT_EQ(index.nearestWithin(q, std::nextafter(25.0f, 30.0f)), 0);
    std::vector<int> all;
    std::vector<float> d;
    index.allWithin(q, 25.0f, all, d);
    EXPECT_TRUE(all.empty());

    std::mt19937 rng(5);
    const auto points = randomPoints(rng, 300, 0.0f, 1.0f);
    PointIndex cube(points.data(), 300, 10);
    const float far[3] = {3.0f, 0.5f, 0.5f};
    float axis[3];
    const float s = cube.boxDistanceSq(far, axis);
    EXPECT_FLOAT_EQ(axis[0], (3.0f - cube.box()[1]) * (3.0f - cube.box()[1]));
    EXPECT_EQ(axis[1], 0.0f);
    EXPECT_EQ(axis[2], 0.0f);
    EXPECT_EQ(s, axis[0]);
    EXPECT_EQ(cube.nearestWithin(far, 1.0f), -1);
    EXPECT_GE(cube.nearestWithin(far, 9.0f), 0);

    const std::vector<float> nan(30, kNaN);
    PointIndex allNaN(nan.data(), 10, 10), empty(nullptr, 0, 10), negative(nan.data(), -5, 10);
    for (const PointIndex* e : {&allNaN, &empty, &negative}) {
        EXPECT_EQ(e->root(), nullptr);
        for (int a = 0; a < 6; ++a) EXPECT_EQ(e->box()[a], 0.0f);
        const float origin[3] = {0, 0, 0};
        EXPECT_EQ(e->nearestWithin(origin, 1.0f), -1);
        e->allWithin(origin, 1.0f, all, d);
        EXPECT_TRUE(all.empty());
    }
    EXPECT_EQ(allNaN.count(), 10u);
}

TEST(PointIndex, ConcurrentQueriesGiveTheSameAnswers) {
    std::mt19937 rng(7);
    const int n = 20000, m = 2000;
    const auto points = randomPoints(rng, n, 0.0f, 1.0f);
    const auto queries = randomPoints(rng, m, -0.1f, 1.1f);
    PointIndex index(points.data(), n, 10);
    const float radiusSq = 0.03f * 0.03f;
    std::vector<std::vector<int>> nearest(5, std::vector<int>(m)), counts = nearest;
    auto work = [&](int t) {
        std::vector<int> pos;
        std::vector<float> dist;
        for (int k = 0; k < m; ++k) {
            const float* q = &queries[3 * size_t(k)];
            nearest[size_t(t)][size_t(k)] = index.nearestWithin(q, radiusSq);
            pos.clear(), dist.clear();
            index.allWithin(q, radiusSq, pos, dist);
            counts[size_t(t)][size_t(k)] = int(pos.size());
        }
    };
    work(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(work, t);
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(nearest[size_t(t)], nearest[4]);
        EXPECT_EQ(counts[size_t(t)], counts[4]);
    }
    for (int k = 0; k < m; k += 97)
        EXPECT_EQ(counts[4][size_t(k)], int(bruteAll(points, &queries[3 * size_t(k)], radiusSq).size()));
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
    const size_t released = kestor::nodePoolReleasedCount(), blocks = kestor::nodePoolBlockCount();
    EXPECT_GT(released, 0u);
    auto* c = new PointIndex(points.data(), 1000, 10);
    EXPECT_EQ(kestor::nodePoolBlockCount(), blocks);
    EXPECT_LT(kestor::nodePoolReleasedCount(), released);
    delete b;
    EXPECT_GT(kestor::nodePoolBlockCount(), 0u);
    delete c;
    EXPECT_EQ(kestor::nodePoolBlockCount(), 0u);
    EXPECT_EQ(kestor::nodePoolReleasedCount(), 0u);
}
