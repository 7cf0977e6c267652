// Bad arguments at every key-point export: status 4 and nothing written or called.
#include <gtest/gtest.h>

#include <vector>

#include "kestor.h"

namespace {

constexpr double kSentinel = -99.0;

struct Outputs {
    double pose[12];
    int matches[4];
    float distances[4];
    int calls = 0;
    Outputs() {
        std::fill(pose, pose + 12, kSentinel);
        std::fill(matches, matches + 4, -5);
        std::fill(distances, distances + 4, -5.0f);
    }
    bool untouched() const {
        for (double v : pose)
            if (v != kSentinel) return false;
        for (int i = 0; i < 4; ++i)
            if (matches[i] != -5 || distances[i] != -5.0f) return false;
        return calls == 0;
    }
};

void countCall(const KESTORIndexPair*, int, void* context) { ++static_cast<Outputs*>(context)->calls; }

const float kPoints[12] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
const float kDescriptors[8] = {0, 1, 2, 3, 4, 5, 6, 7};

}  // namespace

TEST(KeyPointExports, AbsoluteOrientationRejectsBadArguments) {
    Outputs o;
    EXPECT_EQ(KESTORAbsoluteOrientation(nullptr, kPoints, 4, o.pose), 4);
    EXPECT_EQ(KESTORAbsoluteOrientation(kPoints, nullptr, 4, o.pose), 4);
    EXPECT_EQ(KESTORAbsoluteOrientation(kPoints, kPoints, 0, o.pose), 4);
    EXPECT_EQ(KESTORAbsoluteOrientation(kPoints, kPoints, -1, o.pose), 4);
    EXPECT_EQ(KESTORAbsoluteOrientation(kPoints, kPoints, 4, nullptr), 4);
    EXPECT_TRUE(o.untouched());
}

TEST(KeyPointExports, MatchDescriptorRejectsBadArguments) {
    Outputs o;
    const float* d = kDescriptors;
    EXPECT_EQ(KESTORMatchDescriptor(nullptr, 4, d, o.matches, o.distances, 4, 2, true, true), 4);
    EXPECT_EQ(KESTORMatchDescriptor(d, 0, d, o.matches, o.distances, 4, 2, true, true), 4);
    EXPECT_EQ(KESTORMatchDescriptor(d, 4, nullptr, o.matches, o.distances, 4, 2, true, true), 4);
    EXPECT_EQ(KESTORMatchDescriptor(d, 4, d, nullptr, o.distances, 4, 2, true, true), 4);
    EXPECT_EQ(KESTORMatchDescriptor(d, 4, d, o.matches, o.distances, 0, 2, true, true), 4);
    EXPECT_EQ(KESTORMatchDescriptor(d, 4, d, o.matches, o.distances, 4, 0, true, true), 4);
    EXPECT_TRUE(o.untouched());
    EXPECT_EQ(KESTORMatchDescriptor(d, 4, d, o.matches, nullptr, 4, 2, true, false), 0);
    EXPECT_EQ(o.matches[3], 3);
}

TEST(KeyPointExports, RansacRejectsBadArguments) {
    Outputs o;
    const float* p = kPoints;
    const float* d = kDescriptors;
    auto call = [&](const float* tp, const float* td, int tc, const float* sp, const float* sd,
                    int sc, int dim, double* result) {
        return KESTORMatchKeyPointsRansac(tp, p, td, tc, sp, p, sd, sc, dim, result, 10, 0.9,
                                          0.1, false, true, &countCall, &o);
    };
    EXPECT_EQ(call(nullptr, d, 4, p, d, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, nullptr, 4, p, d, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 0, p, d, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, nullptr, d, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, p, nullptr, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, p, d, 0, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, p, d, 4, 0, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, p, d, 4, 2, nullptr), 4);
    EXPECT_TRUE(o.untouched());
    // Normals are optional and the callback may be null.
    EXPECT_EQ(KESTORMatchKeyPointsRansac(p, nullptr, d, 4, p, nullptr, d, 4, 2, o.pose, 10, 0.5,
                                         0.1, false, false, nullptr, nullptr),
              0);
}

TEST(KeyPointExports, IterativeRejectsBadArguments) {
    Outputs o;
    const float* p = kPoints;
    const float* d = kDescriptors;
    auto call = [&](const float* tp, const float* td, int tc, const float* sp, const float* sd,
                    int sc, int dim, double* result) {
        return KESTORMatchKeyPointsIterative(tp, td, tc, sp, sd, sc, dim, result, 10, 1.0, 0.1,
                                             false, true, &countCall, &o);
    };
    EXPECT_EQ(call(nullptr, d, 4, p, d, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, nullptr, 4, p, d, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 0, p, d, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, nullptr, d, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, p, nullptr, 4, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, p, d, -3, 2, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, p, d, 4, 0, o.pose), 4);
    EXPECT_EQ(call(p, d, 4, p, d, 4, 2, nullptr), 4);
    EXPECT_TRUE(o.untouched());
}
