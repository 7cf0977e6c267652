#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kestor.h"
#include "keypoint/descriptor_match.h"

namespace {

// The plain form of the matcher: element-ordered fused sums, a scan from train 0 that only a
// strictly smaller distance beats, and the mutual test over every other query.
float squaredDistance(const float* a, const float* b, int dimension) {
    float sum = 0;
    for (int e = 0; e < dimension; ++e) {
        const float d = b[e] - a[e];
        sum = std::fma(d, d, sum);
    }
    return sum;
}

void referenceMatch(const std::vector<float>& train, int trainCount,
                    const std::vector<float>& query, int queryCount, int dimension,
                    bool crossCheck, std::vector<int>& matches, std::vector<float>& distances) {
    matches.assign(size_t(queryCount), 0);
    distances.assign(size_t(queryCount), 0);
    auto row = [dimension](const std::vector<float>& v, int k) {
        return v.data() + size_t(k) * size_t(dimension);
    };
    for (int q = 0; q < queryCount; ++q) {
        float best = squaredDistance(row(query, q), row(train, 0), dimension);
        int index = 0;
        for (int t = 1; t < trainCount; ++t) {
            const float d = squaredDistance(row(query, q), row(train, t), dimension);
            if (d < best) {
                best = d;
                index = t;
            }
        }
        bool fail = false;
        for (int k = 0; crossCheck && k < queryCount && !fail; ++k)
            fail = k != q && squaredDistance(row(query, k), row(train, index), dimension) < best;
        matches[size_t(q)] = fail ? -1 : index;
        distances[size_t(q)] = fail ? std::numeric_limits<float>::quiet_NaN() : std::sqrt(best);
    }
}

std::vector<float> randomDescriptors(int count, int dimension, std::mt19937& rng) {
    std::uniform_real_distribution<float> uni(0, 1);
    std::vector<float> v(size_t(count) * size_t(dimension));
    for (float& x : v) x = uni(rng);
    return v;
}

void expectSameFloats(const std::vector<float>& a, const std::vector<float>& b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::isnan(b[i]))
            EXPECT_TRUE(std::isnan(a[i])) << i;
        else
            EXPECT_EQ(a[i], b[i]) << i;
    }
}

}  // namespace

TEST(DescriptorMatch, AgreesBitForBitWithThePlainScanOnAwkwardSizes) {
    std::mt19937 rng(3);
    struct Shape {
        int train, query, dimension;
    };
    // Counts off the tile (16), pass (4) and block (64) sizes; dimensions odd and long.
    for (const Shape s : {Shape{1, 1, 1}, Shape{17, 5, 3}, Shape{40, 67, 33}, Shape{130, 70, 128},
                          Shape{15, 129, 7}}) {
        // Few distinct values, so that exact ties between train descriptors and between
        // queries occur.
        std::vector<float> train = randomDescriptors(s.train, s.dimension, rng);
        std::vector<float> query = randomDescriptors(s.query, s.dimension, rng);
        for (float& x : train) x = std::round(x * 2);
        for (float& x : query) x = std::round(x * 2);
        for (bool crossCheck : {false, true}) {
            std::vector<int> expected;
            std::vector<float> expectedDistances;
            referenceMatch(train, s.train, query, s.query, s.dimension, crossCheck, expected,
                           expectedDistances);
            for (bool parallel : {false, true}) {
                std::vector<int> matches(size_t(s.query), -7);
                std::vector<float> distances(size_t(s.query), -7);
                kestor::matchDescriptors(train.data(), s.train, query.data(), matches.data(),
                                         distances.data(), s.query, s.dimension, crossCheck,
                                         parallel);
                EXPECT_EQ(matches, expected) << s.train << "x" << s.query << "x" << s.dimension;
                expectSameFloats(distances, expectedDistances);
            }
        }
    }
}

TEST(DescriptorMatch, BruteForceTiesGoToTheLowerIndex) {
    // Identical descriptors in the same tile, across tile halves, and across tiles.
    const int dimension = 5, trainCount = 40;
    std::mt19937 rng(9);
    std::vector<float> train = randomDescriptors(trainCount, dimension, rng);
    std::vector<float> query = randomDescriptors(3, dimension, rng);
    for (int e = 0; e < dimension; ++e) {
        train[size_t(37 * dimension + e)] = train[size_t(21 * dimension + e)] = query[size_t(e)];
        train[size_t(13 * dimension + e)] = train[size_t(5 * dimension + e)] =
            query[size_t(dimension + e)];
        train[size_t(9 * dimension + e)] = train[size_t(1 * dimension + e)] =
            query[size_t(2 * dimension + e)];
    }
    std::vector<int> matches(3);
    kestor::matchDescriptors(train.data(), trainCount, query.data(), matches.data(), nullptr, 3,
                             dimension, false, false);
    EXPECT_EQ(matches, (std::vector<int>{21, 5, 1}));
}

TEST(DescriptorMatch, MutualTestFailsOnlyOnAStrictlyNearerQuery) {
    const float train[2] = {0, 10};
    {
        // Query 1 lies nearer to train 0 than query 0 does: query 0 fails, query 1 keeps it.
        const float query[2] = {2, 1};
        int matches[2];
        float distances[2];
        kestor::matchDescriptors(train, 2, query, matches, distances, 2, 1, true, false);
        EXPECT_EQ(matches[0], -1);
        EXPECT_TRUE(std::isnan(distances[0]));
        EXPECT_EQ(matches[1], 0);
        EXPECT_EQ(distances[1], 1.0f);
        kestor::matchDescriptors(train, 2, query, matches, distances, 2, 1, false, false);
        EXPECT_EQ(matches[0], 0);
        EXPECT_EQ(distances[0], 2.0f);
    }
    {
        // Two identical queries tie: both keep the same train descriptor.
        const float query[2] = {3, 3};
        int matches[2];
        kestor::matchDescriptors(train, 2, query, matches, nullptr, 2, 1, true, true);
        EXPECT_EQ(matches[0], 0);
        EXPECT_EQ(matches[1], 0);
    }
    {
        // One query cannot fail; one train descriptor takes every query not beaten by another.
        const float query[3] = {4, 1, 9};
        int matches[3];
        kestor::matchDescriptors(train, 1, query, matches, nullptr, 1, 1, true, false);
        EXPECT_EQ(matches[0], 0);
        kestor::matchDescriptors(train, 1, query, matches, nullptr, 3, 1, false, false);
        EXPECT_EQ(matches[0], 0);
        EXPECT_EQ(matches[2], 0);
        kestor::matchDescriptors(train, 1, query, matches, nullptr, 3, 1, true, false);
        EXPECT_EQ(matches[0], -1);
        EXPECT_EQ(matches[1], 0);
        EXPECT_EQ(matches[2], -1);
    }
}

TEST(DescriptorMatch, NotANumberDistancesFollowTheScanFromTrainZero) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    int matches[2];
    float distances[2];
    {
        // NaN at train 0 is never beaten: every query stays there, with a NaN distance, and
        // nothing can be strictly nearer than NaN.
        const float train[3] = {nan, 1, 2};
        const float query[2] = {1, 2};
        kestor::matchDescriptors(train, 3, query, matches, distances, 2, 1, true, false);
        EXPECT_EQ(matches[0], 0);
        EXPECT_EQ(matches[1], 0);
        EXPECT_TRUE(std::isnan(distances[0]));
    }
    {
        // A NaN later on is skipped.
        const float train[20] = {5, nan, 7, nan, 1, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, nan, 0.5f, 8, 8};
        const float query[2] = {0, 9};
        kestor::matchDescriptors(train, 20, query, matches, distances, 2, 1, false, true);
        EXPECT_EQ(matches[0], 17);
        EXPECT_EQ(distances[0], 0.5f);
        EXPECT_EQ(matches[1], 5);
    }
    {
        // A NaN query is NaN away from train 0 and keeps it.
        const float train[2] = {1, 2};
        const float query[2] = {nan, 2};
        kestor::matchDescriptors(train, 2, query, matches, distances, 2, 1, true, false);
        EXPECT_EQ(matches[0], 0);
        EXPECT_TRUE(std::isnan(distances[0]));
        EXPECT_EQ(matches[1], 1);
    }
}

TEST(DescriptorMatch, NullDistancesGiveTheSameMatches) {
    std::mt19937 rng(21);
    const std::vector<float> train = randomDescriptors(50, 12, rng);
    const std::vector<float> query = randomDescriptors(30, 12, rng);
    std::vector<int> a(30), b(30);
    std::vector<float> distances(30);
    ASSERT_EQ(KESTORMatchDescriptor(train.data(), 50, query.data(), a.data(), distances.data(), 30,
                                    12, true, true),
              KESTOR_STATUS_OK);
    ASSERT_EQ(KESTORMatchDescriptor(train.data(), 50, query.data(), b.data(), nullptr, 30, 12,
                                    true, true),
              KESTOR_STATUS_OK);
    EXPECT_EQ(a, b);
}
