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

// Runs the matcher serial and parallel, with and without distances, against the expectation
// (NaN distances compare equal to NaN).
void expectMatches(const std::vector<float>& train, const std::vector<float>& query,
                   int dimension, bool crossCheck, const std::vector<int>& expected,
                   const std::vector<float>& expectedDistances) {
    const int trainCount = int(train.size()) / dimension, queryCount = int(query.size()) / dimension;
    for (bool parallel : {false, true}) {
        std::vector<int> matches(size_t(queryCount), -7), bare(size_t(queryCount), -7);
        std::vector<float> distances(size_t(queryCount), -7);
        kestor::matchDescriptors(train.data(), trainCount, query.data(), matches.data(),
                                 distances.data(), queryCount, dimension, crossCheck, parallel);
        kestor::matchDescriptors(train.data(), trainCount, query.data(), bare.data(), nullptr,
                                 queryCount, dimension, crossCheck, parallel);
        EXPECT_EQ(matches, expected) << "parallel " << parallel;
        EXPECT_EQ(bare, expected) << "without distances";
        for (size_t i = 0; i < distances.size(); ++i)
            EXPECT_TRUE(std::isnan(expectedDistances[i]) ? std::isnan(distances[i])
                                                         : distances[i] == expectedDistances[i])
                << i << ": " << distances[i];
    }
}

}  // namespace

TEST(DescriptorMatch, AgreesBitForBitWithThePlainScanOnAwkwardSizes) {
    std::mt19937 rng(3);
    struct Shape {
        int train, query, dimension;
    };
    // Counts off the tile (16), pass (4) and block (64) sizes; dimensions odd and long. Few
    // distinct values, so that exact ties between train descriptors and between queries occur.
    for (const Shape s : {Shape{1, 1, 1}, Shape{17, 5, 3}, Shape{40, 67, 33}, Shape{130, 70, 128},
                          Shape{15, 129, 7}}) {
        std::vector<float> train = randomDescriptors(s.train, s.dimension, rng);
        std::vector<float> query = randomDescriptors(s.query, s.dimension, rng);
        for (float& x : train) x = std::round(x * 2);
        for (float& x : query) x = std::round(x * 2);
        for (bool crossCheck : {false, true}) {
            SCOPED_TRACE(std::to_string(s.train) + "x" + std::to_string(s.query) + "x" +
                         std::to_string(s.dimension) + (crossCheck ? " mutual" : ""));
            std::vector<int> expected;
            std::vector<float> expectedDistances;
            referenceMatch(train, s.train, query, s.query, s.dimension, crossCheck, expected,
                           expectedDistances);
            expectMatches(train, query, s.dimension, crossCheck, expected, expectedDistances);
        }
    }
}

TEST(DescriptorMatch, TiesTheMutualTestAndNotANumber) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        const char* what;
        std::vector<float> train, query;
        bool crossCheck;
        std::vector<int> matches;
        std::vector<float> distances;
    };
    const Case cases[] = {
        {"a strictly nearer query fails the other", {0, 10}, {2, 1}, true, {-1, 0}, {nan, 1}},
        {"without the mutual test", {0, 10}, {2, 1}, false, {0, 0}, {2, 1}},
        {"equal queries both keep it", {0, 10}, {3, 3}, true, {0, 0}, {3, 3}},
        {"one query cannot fail", {0}, {4}, true, {0}, {4}},
        {"one train descriptor takes all", {0}, {4, 1, 9}, false, {0, 0, 0}, {4, 1, 9}},
        {"unless a nearer query beats them", {0}, {4, 1, 9}, true, {-1, 0, -1}, {nan, 1, nan}},
        {"ties go to the lower index", {5, 2, 2, 7, 2}, {2}, false, {1}, {0}},
        {"NaN at train 0 is never beaten", {nan, 1, 2}, {1, 2}, true, {0, 0}, {nan, nan}},
        {"a later NaN is skipped", {5, nan, 7, nan, 1, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, nan, 0.5f, 8, 8},
         {0, 9}, false, {17, 5}, {0.5f, 1}},
        {"a NaN query keeps train 0", {1, 2}, {nan, 2}, true, {0, 1}, {nan, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        expectMatches(c.train, c.query, 1, c.crossCheck, c.matches, c.distances);
    }
}
