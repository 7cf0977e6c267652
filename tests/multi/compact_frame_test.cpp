#include "multi/compact_frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/holey_maps.h"

using namespace kestor;

// With normals a pixel counts when its z is not 0 (so negative and NaN z count) and its normal
// is not all zero; without, when its z is above 0. The kept pixels come out in row order, whole,
// with their flat pixel index, and each row's first element is where the row starts.
TEST(CompactFrame, KeepsTheCountingPixelsInRowOrderWithTheirIndexes) {
    const kestor_test::HoleyMaps m;
    for (const bool useNormals : {true, false}) {
        SCOPED_TRACE(useNormals ? "with normals" : "without normals");
        FrameMaps maps;
        maps.vmap = m.vertices();
        maps.nmap = m.normals();
        maps.gray = m.grays();
        const CompactFrame c = compactFrame(maps, useNormals);
        std::vector<int> expected, rowStarts;
        for (int i = 0; i < m.W * m.H; ++i) {
            if (i % m.W == 0) rowStarts.push_back(int(expected.size()));
            const float z = m.vmap[size_t(i)].z;
            if (useNormals ? (z != 0.0f && !m.zeroNormal(i)) : z > 0.0f) expected.push_back(i);
        }
        rowStarts.push_back(int(expected.size()));
        ASSERT_EQ(c.size(), int(expected.size()));
        EXPECT_EQ(c.rowStarts, rowStarts);
        for (size_t e = 0; e < expected.size(); ++e) {
            const size_t i = size_t(expected[e]);
            EXPECT_EQ(c.pixels[e], int32_t(i)) << "element " << e;
            const Float3 p = c.points[e];
            EXPECT_EQ(std::memcmp(&p, &m.vmap[i], sizeof(Float3)), 0) << "element " << e;
            if (useNormals) {
                const Float3 n = c.normals[e];
                EXPECT_EQ(std::memcmp(&n, &m.nmap[i], sizeof(Float3)), 0) << "element " << e;
            }
            EXPECT_EQ(c.gray[e], m.gray[i]) << "element " << e;
        }
    }
}
