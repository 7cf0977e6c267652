// Bad arguments at every key-point export: status 4 and nothing written or called. Each row
// spoils one argument: a null pointer or a count below 1.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kestor.h"

namespace {

struct Outputs {
    double pose[12];
    int matches[4] = {-5, -5, -5, -5};
    float distances[4] = {-5, -5, -5, -5};
    int calls = 0;
    Outputs() { std::fill(pose, pose + 12, -99.0); }
    bool untouched() const {
        return std::count(pose, pose + 12, -99.0) == 12 && std::count(matches, matches + 4, -5) == 4 &&
               std::count(distances, distances + 4, -5.0f) == 4 && calls == 0;
    }
};

void countCall(const KESTORIndexPair*, int, void* context) { ++static_cast<Outputs*>(context)->calls; }

const float kPoints[12] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
const float kDescriptors[8] = {0, 1, 2, 3, 4, 5, 6, 7};

// The arguments in the order the key-point matchers take them; `bad` picks the one to spoil.
struct Args {
    const float *tp = kPoints, *td = kDescriptors, *sp = kPoints, *sd = kDescriptors;
    int tc = 4, sc = 4, dim = 2;
    double* result;
    Args(int bad, double* out) : result(out) {
        const float** pointers[4] = {&tp, &td, &sp, &sd};
        if (bad < 4) *pointers[bad] = nullptr;
        tc = bad == 4 ? 0 : 4;
        sc = bad == 5 ? -3 : 4;
        dim = bad == 6 ? 0 : 2;
        if (bad == 7) result = nullptr;
    }
};

}  // namespace

TEST(KeyPointExports, EveryExportRejectsBadArgumentsWritingNothing) {
    Outputs o;
    for (int bad = 0; bad < 8; ++bad) {
        const Args a(bad, o.pose);
        EXPECT_EQ(KESTORMatchKeyPointsRansac(a.tp, kPoints, a.td, a.tc, a.sp, kPoints, a.sd, a.sc,
                                             a.dim, a.result, 10, 0.9, 0.1, false, true,
                                             &countCall, &o),
                  4) << bad;
        EXPECT_EQ(KESTORMatchKeyPointsIterative(a.tp, a.td, a.tc, a.sp, a.sd, a.sc, a.dim,
                                                a.result, 10, 1.0, 0.1, false, true, &countCall, &o),
                  4) << bad;
        // The descriptor matcher: train, query, matches, and the three counts.
        const float* d = kDescriptors;
        EXPECT_EQ(KESTORMatchDescriptor(bad == 0 ? nullptr : d, bad == 1 ? 0 : 4,
                                        bad == 2 ? nullptr : d, bad == 3 || bad > 5 ? nullptr : o.matches,
                                        o.distances, bad == 4 ? 0 : 4, bad == 5 ? 0 : 2, true, true),
                  4) << bad;
        // Absolute orientation: target, source, count, result.
        EXPECT_EQ(KESTORAbsoluteOrientation(bad == 0 ? nullptr : kPoints, bad == 1 ? nullptr : kPoints,
                                            bad == 2 ? 0 : bad == 3 ? -1 : 4,
                                            bad >= 4 ? nullptr : o.pose),
                  4) << bad;
    }
    EXPECT_TRUE(o.untouched());
    // Normals are optional, the callback and the distances may be null.
    EXPECT_EQ(KESTORMatchKeyPointsRansac(kPoints, nullptr, kDescriptors, 4, kPoints, nullptr,
                                         kDescriptors, 4, 2, o.pose, 10, 0.5, 0.1, false, false,
                                         nullptr, nullptr),
              0);
    EXPECT_EQ(KESTORMatchDescriptor(kDescriptors, 4, kDescriptors, o.matches, nullptr, 4, 2, true, false), 0);
    EXPECT_EQ(o.matches[3], 3);
}
