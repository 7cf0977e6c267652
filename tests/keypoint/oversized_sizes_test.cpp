// Counts whose products do not fit an int: refused before any buffer is touched, even though the
// buffers here are far too small for what the counts claim.
#include <gtest/gtest.h>

#include <vector>

#include "kestor.h"

TEST(KeyPointExports, CountsWhoseProductsOverflowAreRefusedBeforeAnyWrite) {
    const std::vector<float> values(64, 1.0f);
    const float* v = values.data();
    std::vector<double> result(12, 7.0);
    std::vector<int> matches(8, -5);
    std::vector<float> distances(8, -5.0f);
    int calls = 0;
    const KESTORMatchesFunc count = [](const KESTORIndexPair*, int, void* c) { ++*static_cast<int*>(c); };
    struct Case {
        const char* name;
        int target, source, dimension;
    };
    // 2^30 points hold 3 * 2^30 floats (and 2^31 descriptor values); 70000 descriptors of 70000
    // values wrap an int.
    const Case cases[] = {{"target points times three", 1 << 30, 4, 2},
                          {"source points times three", 4, 1 << 30, 2},
                          {"target descriptors", 70000, 4, 70000},
                          {"source descriptors", 4, 70000, 70000}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(KESTORMatchDescriptor(v, c.target, v, matches.data(), distances.data(), c.source,
                                        c.dimension, true, false), 4);
        if (c.dimension == 2) {
            EXPECT_EQ(KESTORAbsoluteOrientation(v, v, c.target > 4 ? c.target : c.source,
                                                result.data()), 4);
        }
        EXPECT_EQ(KESTORMatchKeyPointsRansac(v, v, v, c.target, v, v, v, c.source, c.dimension,
                                             result.data(), 50, 0.5, 0.1, true, false, count,
                                             &calls), 4);
        EXPECT_EQ(KESTORMatchKeyPointsIterative(v, v, c.target, v, v, c.source, c.dimension,
                                                result.data(), 5, 1.0, 0.05, true, false, count,
                                                &calls), 4);
        EXPECT_EQ(result, std::vector<double>(12, 7.0));
        EXPECT_EQ(calls, 0);
        EXPECT_EQ(matches, std::vector<int>(8, -5));
        EXPECT_EQ(distances, std::vector<float>(8, -5.0f));
    }
}
