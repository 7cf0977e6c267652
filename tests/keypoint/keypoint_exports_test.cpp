// Bad arguments at every key-point export: status 4, nothing written and no callback. Each row
// spoils one argument: a null pointer, a count below 1, or counts whose products do not fit an
// int (the buffers are far too small for what those counts claim, so any read would show).
#include <gtest/gtest.h>

#include <algorithm>

#include "kestor.h"

namespace {

const float kPoints[12] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
const float kDescriptors[8] = {0, 1, 2, 3, 4, 5, 6, 7};

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

// What the key-point exports share. The descriptor matcher reads the target descriptors as train
// and the source ones as query; absolute orientation takes the points and the target count.
struct Args {
    const float *tp = kPoints, *td = kDescriptors, *sp = kPoints, *sd = kDescriptors;
    int tc = 4, sc = 4, dim = 2;
    bool noOutput = false;  // the result, or the descriptor matcher's matches
};

enum Export { kRansac = 1, kIterative = 2, kDescriptor = 4, kOrientation = 8 };

int call(Export e, const Args& a, Outputs& o) {
    double* result = a.noOutput ? nullptr : o.pose;
    switch (e) {
    case kRansac:
        return KESTORMatchKeyPointsRansac(a.tp, kPoints, a.td, a.tc, a.sp, kPoints, a.sd, a.sc,
                                          a.dim, result, 10, 0.9, 0.1, false, true, &countCall, &o);
    case kIterative:
        return KESTORMatchKeyPointsIterative(a.tp, a.td, a.tc, a.sp, a.sd, a.sc, a.dim, result,
                                             10, 1.0, 0.1, false, true, &countCall, &o);
    case kDescriptor:
        return KESTORMatchDescriptor(a.td, a.tc, a.sd, a.noOutput ? nullptr : o.matches,
                                     o.distances, a.sc, a.dim, true, true);
    default:
        return KESTORAbsoluteOrientation(a.tp, a.sp, a.tc, result);
    }
}

}  // namespace

TEST(KeyPointExports, EveryExportRejectsBadArgumentsWritingNothing) {
    const int matchers = kRansac | kIterative, all = matchers | kDescriptor | kOrientation;
    const struct {
        const char* what;
        int exports;
        void (*spoil)(Args&);
    } rows[] = {
        {"target points", matchers | kOrientation, [](Args& a) { a.tp = nullptr; }},
        {"target descriptors", matchers | kDescriptor, [](Args& a) { a.td = nullptr; }},
        {"source points", matchers | kOrientation, [](Args& a) { a.sp = nullptr; }},
        {"source descriptors", matchers | kDescriptor, [](Args& a) { a.sd = nullptr; }},
        {"no target", all, [](Args& a) { a.tc = 0; }},
        {"negative source count", matchers | kDescriptor, [](Args& a) { a.sc = -3; }},
        {"dimension 0", matchers | kDescriptor, [](Args& a) { a.dim = 0; }},
        {"no output", all, [](Args& a) { a.noOutput = true; }},
        // 2^30 points hold 3 * 2^30 floats (and 2^31 descriptor values); 70000 descriptors of
        // 70000 values wrap an int.
        {"target points times three", all, [](Args& a) { a.tc = 1 << 30; }},
        {"source points times three", matchers | kDescriptor, [](Args& a) { a.sc = 1 << 30; }},
        {"target descriptors", matchers | kDescriptor, [](Args& a) { a.tc = a.dim = 70000; }},
        {"source descriptors", matchers | kDescriptor, [](Args& a) { a.sc = a.dim = 70000; }},
    };
    Outputs o;
    for (const auto& row : rows)
        for (Export e : {kRansac, kIterative, kDescriptor, kOrientation}) {
            if ((row.exports & e) == 0) continue;
            Args a;
            row.spoil(a);
            EXPECT_EQ(call(e, a, o), KESTOR_STATUS_BAD_ARGUMENT) << row.what << ", export " << e;
        }
    EXPECT_TRUE(o.untouched());
    // The unspoilt arguments pass; normals, the callback and the distances may be null.
    for (Export e : {kRansac, kIterative, kDescriptor, kOrientation}) {
        Outputs scratch;
        EXPECT_EQ(call(e, Args{}, scratch), KESTOR_STATUS_OK) << e;
    }
    EXPECT_EQ(KESTORMatchKeyPointsRansac(kPoints, nullptr, kDescriptors, 4, kPoints, nullptr,
                                         kDescriptors, 4, 2, o.pose, 10, 0.5, 0.1, false, false,
                                         nullptr, nullptr),
              KESTOR_STATUS_OK);
    EXPECT_EQ(KESTORMatchDescriptor(kDescriptors, 4, kDescriptors, o.matches, nullptr, 4, 2, true, false),
              KESTOR_STATUS_OK);
    EXPECT_EQ(o.matches[3], 3);
}
