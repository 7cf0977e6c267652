#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
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

// The plain walk with the radius as its constant bound: the reference order of visits, and the
// nearest as the first point reached at the smallest distance.
void referenceWalk(const PointIndex& index, const float* q, float radiusSq, int& nearest,
                   std::vector<int>& all) {
    nearest = -1;
    all.clear();
    float axis[3];
    const float start = index.boxDistanceSq(q, axis);
    if (start > radiusSq || index.root() == nullptr) return;
    float best = radiusSq;
    index.query(
        index.root(), q, axis, start,
        [&](int i, float d) {
            all.push_back(i);
            if (best > d) best = d, nearest = i;
        },
        [radiusSq] { return radiusSq; });
}

// The index against the scan for a batch of queries, and against the reference walk position
// by position, ties included.
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
        int walkNearest;
        std::vector<int> walkAll;
        referenceWalk(index, q, radiusSq, walkNearest, walkAll);
        EXPECT_EQ(found, walkNearest) << "query " << k;
        std::vector<int> positions;
        std::vector<float> distances;
        index.allWithin(q, radiusSq, positions, distances);
        EXPECT_EQ(positions, walkAll) << "query " << k;
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

// Every kept point in the index once; 10 points are one leaf, 11 are not; no tree and a zero
// box when nothing is kept.
void checkTree(const std::vector<float>& points, int keptExpected) {
    PointIndex index(points.data(), int64_t(points.size() / 3), 10);
    std::vector<int> kept = index.indices();
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(int(kept.size()), keptExpected);
    EXPECT_EQ(index.count(), points.size() / 3);  // NaN points still count as positions
    EXPECT_TRUE(std::adjacent_find(kept.begin(), kept.end()) == kept.end());
    if (keptExpected == 0) {
        EXPECT_EQ(index.root(), nullptr);
        EXPECT_EQ(std::vector<float>(index.box(), index.box() + 6), std::vector<float>(6, 0.0f));
    } else {
        EXPECT_EQ(index.root()->isLeaf(), keptExpected <= 10);
    }
}

}  // namespace

// Random clouds of sizes around the leaf size, duplicates on a coarse grid (ties on every split
// axis), NaN points, a plane, a line, one repeated point and nothing at all, with queries inside
// and outside the box.
TEST(PointIndex, AgreesWithBruteForceOnEveryKindOfCloud) {
    std::mt19937 rng(1);
    struct Cloud {
        const char* name;
        std::vector<float> points;
        int kept;
    };
    std::vector<Cloud> clouds = {{"empty", {}, 0}, {"all NaN", std::vector<float>(30, kNaN), 0}};
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
    // Cuts that are NaN (an infinite coordinate at each end) or overflow (two huge coordinates)
    // must still split the range, or the build recurses without end.
    const float inf = std::numeric_limits<float>::infinity();
    auto infinite = randomPoints(rng, 300, -1, 1);
    for (size_t i = 0; i < 300; i += 2) infinite[3 * i] = i % 4 == 0 ? inf : -inf;
    clouds.push_back({"infinite", infinite, 300});
    clouds.push_back({"huge", randomPoints(rng, 300, 3.0e38f, 3.4e38f), 300});
    auto queries = randomPoints(rng, 150, -1.6f, 1.6f);
    for (size_t i = 0; i < 30; ++i) queries[3 * i + 2] = 2.0f;  // some in the plane itself
    // Half-way between grid cells: equal distances to distinct points.
    std::uniform_int_distribution<int> halfCell(0, 8);
    for (int i = 0; i < 40; ++i)
        queries.insert(queries.end(), {0.125f * float(halfCell(rng)), 0.125f * float(halfCell(rng)), 0.0f});
    for (const Cloud& c : clouds) {
        SCOPED_TRACE(testing::Message() << c.name << " " << c.points.size() / 3);
        for (float r : {0.05f, 0.2f, 1.0f, 5.0f}) expectAgreement(c.points, queries, r * r);
        checkTree(c.points, c.kept);
    }
    EXPECT_EQ(PointIndex(withNaN.data(), -5, 10).root(), nullptr);
    // Identical points: split at the middle of the range, both halves non-empty.
    const std::vector<float> onePoint(300, 0.5f);
    PointIndex same(onePoint.data(), 100, 10);
    const PointIndexNode* left = same.root()->child1;
    while (!left->isLeaf()) left = left->child2;
    EXPECT_EQ(left->leaf.right, 50);
}

TEST(PointIndex, ExactRadiusAndTheBoxDistance) {
    const std::vector<float> two = {0, 0, 0, 10, 10, 10};
    PointIndex index(two.data(), 2, 10);
    const float q[3] = {3, 4, 0};  // squared distance 25, exact in float: not found at 25
    EXPECT_EQ(index.nearestWithin(q, 25.0f), -1);
    EXPECT_EQ(index.nearestWithin(q, std::nextafter(25.0f, 30.0f)), 0);
    std::vector<int> all;
    std::vector<float> d;
    index.allWithin(q, 25.0f, all, d);
    EXPECT_TRUE(all.empty());
    const float far[3] = {13.0f, 5.0f, -1.0f};
    float axis[3];
    EXPECT_EQ(index.boxDistanceSq(far, axis), 10.0f);
    EXPECT_EQ(std::vector<float>(axis, axis + 3), (std::vector<float>{9.0f, 0.0f, 1.0f}));
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
