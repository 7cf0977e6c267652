// The voxel filter: its edge cases, a large cloud against a brute-force reference in both the
// exported and the internal 64-bit form, the selection view and the cloud form. Bad arguments
// are in the point-map exports' table.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "kestor.h"
#include "pointmap/voxel_filter.h"

using namespace kestor;

namespace {

void collect(const int* kept, int count, void* user) { static_cast<std::vector<int>*>(user)->assign(kept, kept + count); }

std::vector<int> runExport(const std::vector<float>& points, double voxelSize) {
    std::vector<int> kept = {-1};  // stays so unless the callback runs
    EXPECT_EQ(KESTORVoxelFilter(points.data(), int(points.size() / 3), voxelSize, collect, &kept), KESTOR_STATUS_OK);
    return kept;
}

// The rule stated plainly: per voxel of the grid anchored at the lower corner, the point nearest
// the voxel's centre (first in input order on a tie), and no point from the highest voxel.
// Keys ordered by z, then y, then x.
std::vector<int> bruteForce(const std::vector<float>& p, float size) {
    float lo[3] = {p[0], p[1], p[2]};
    for (size_t e = 0; e < p.size(); ++e) lo[e % 3] = std::min(lo[e % 3], p[e]);
    std::map<std::array<uint64_t, 3>, std::pair<double, int>> best;
    for (size_t i = 0; i < p.size() / 3; ++i) {
        std::array<uint64_t, 3> key;
        double d = 0;
        for (int a = 0; a < 3; ++a) {
            key[size_t(2 - a)] = uint64_t((p[3 * i + a] - lo[a]) / size);
            const double e = double(p[3 * i + a] - lo[a] - (float(key[size_t(2 - a)]) + 0.5f) * size);
            d += e * e;
        }
        if (!best.count(key) || d < best[key].first) best[key] = {d, int(i)};
    }
    best.erase(std::prev(best.end()));
    std::set<int> kept;
    for (const auto& entry : best) kept.insert(entry.second.second);
    return {kept.begin(), kept.end()};
}

}  // namespace

TEST(VoxelFilter, EdgeCases) {
    struct Case { const char* name; std::vector<float> points; double size; std::vector<int> kept; };
    const Case cases[] = {
        {"one point", {1.f, 2.f, 3.f}, 0.5, {}},
        {"one voxel", {0.1f, 0.1f, 0.1f, 0.2f, 0.3f, 0.4f, 0.45f, 0.05f, 0.3f}, 0.5, {}},
        // Point 0 lies in the higher voxel along z, which outranks x and y in the key.
        {"z outranks x and y", {0.f, 0.f, 2.f, 3.f, 3.f, 0.f}, 1.0, {1}},
        // Along x: {0.0, 0.9} (0.9 nearer the centre 0.5), {1.0} on the lower face of voxel 1,
        // {2.5} in the last voxel, dropped.
        {"lower face", {0.f, 0.f, 0.f, 0.9f, 0.f, 0.f, 1.0f, 0.f, 0.f, 2.5f, 0.f, 0.f}, 1.0, {1, 2}},
    };
    for (const Case& c : cases) EXPECT_EQ(runExport(c.points, c.size), c.kept) << c.name;
}

TEST(VoxelFilter, LargeCloudMatchesTheBruteForceRuleInBothForms) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> coord(-2.0f, 3.0f);
    std::vector<float> points(3 * 200000);
    for (float& v : points) v = coord(rng);
    // Duplicates give exact ties, which the first point in input order wins.
    std::copy(points.begin(), points.begin() + 3000, points.begin() + 300000);
    const std::vector<int> expected = bruteForce(points, 0.1f);
    EXPECT_GT(expected.size(), 50000u);
    EXPECT_EQ(runExport(points, 0.1), expected);

    // The internal 64-bit form selects the same set, as 255 among 0s.
    std::vector<unsigned char> bytes(points.size() / 3, 9);
    ImageView<unsigned char> selection{bytes.data(), 1, 1, int32_t(bytes.size())};
    voxelFilter(points.data(), int64_t(bytes.size()), 0.1f, selection);
    std::vector<unsigned char> want(bytes.size(), 0);
    for (int i : expected) want[size_t(i)] = 255;
    EXPECT_EQ(bytes, want);
}

TEST(VoxelFilter, AWrongSelectionIsLeftAloneAndAWideOneFilledThroughItsColumns) {
    const std::vector<float> points = {0.f, 0.f, 0.f, 5.f, 5.f, 5.f, 9.f, 9.f, 9.f};
    std::vector<unsigned char> bytes(4, 9);
    ImageView<unsigned char> wrong{bytes.data(), 1, 1, 4}, wide{bytes.data(), 3, 3, 1};
    voxelFilter(points.data(), int32_t(3), 1.0f, wrong);
    EXPECT_EQ(bytes, std::vector<unsigned char>(4, 9));
    // A 3x1 view of the right size is filled through its columns.
    voxelFilter(points.data(), int32_t(3), 1.0f, wide);
    EXPECT_EQ(bytes, std::vector<unsigned char>({255, 255, 0, 9}));
}

TEST(VoxelFilter, NonFiniteInputsStayInsideTheSelection) {
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    struct Case { const char* name; std::vector<float> points; float size; };
    const Case cases[] = {
        {"NaN points", {nan, 0, 0, 1, 2, 3, 0, nan, 1, 4, 4, 4}, 0.5f},
        {"extents past any int", {-3e38f, 0, 0, 3e38f, 1, 1, 0, -3e38f, 3e38f, 1, 1, 1}, 1e-3f},
        // A negative size and a span of 1.5 voxels once gave a grid 0 voxels wide, and a division by 0.
        {"negative voxel size", {0, 0, 0, 1.5f, 0, 0, 0.2f, 0, 0}, -1.0f},
        {"zero and NaN voxel size", {0, 0, 0, 1, 1, 1, 2, 2, 2}, 0.0f},
        // The first voxel carries the 32-bit form's starting key with only NaN distances in it: no
        // winner, and once a write at position -1.
        {"infinities", {inf, 2.61232114f, -inf, 9.9999461e-41f, nan, inf, inf, nan, nan, nan, nan, -0.0f,
                        nan, -0.0f, nan, inf, -9.9999461e-41f, nan, inf, -1.08711219f, -inf, 2.62066388f, nan, nan,
                        -inf, 2.62066388f, nan, inf, inf, nan, nan, nan, inf}, 0.992187593f},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const int count = int(c.points.size() / 3);
        EXPECT_LT(runExport(c.points, c.size).size(), size_t(count));
        // The selection sits between two guard bytes that must survive both forms.
        for (int form = 0; form < 2; ++form) {
            std::vector<unsigned char> bytes(size_t(count) + 2, 9);
            ImageView<unsigned char> selection{bytes.data() + 1, 1, 1, count};
            if (form == 0) voxelFilter(c.points.data(), int32_t(count), c.size, selection);
            else voxelFilter(c.points.data(), int64_t(count), c.size, selection);
            EXPECT_EQ(bytes.front(), 9);
            EXPECT_EQ(bytes.back(), 9);
            for (int i = 1; i <= count; ++i) EXPECT_TRUE(bytes[size_t(i)] == 0 || bytes[size_t(i)] == 255);
        }
    }
    EXPECT_LT(runExport({0, 0, 0, 1, 1, 1}, std::nan("")).size(), 2u);
}

TEST(VoxelFilterCloud, NormalsFollowAndMisSizedIntensitiesAreCleared) {
    std::vector<Float3> points = {{0.9f, 0, 0}, {0.1f, 0, 0}, {1.5f, 0, 0}, {2.5f, 0, 0}},
                        normals = {{1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}};
    std::vector<float> intensities = {0.5f, 0.6f};
    voxelFilterCloud(1.0, points, normals, intensities);
    // Voxel 0 keeps 0.9 over 0.1 (centre at 0.5 + 0.1), voxel 1 keeps 1.5, voxel 2 is the last.
    std::vector<float> xs;
    for (const auto* cloud : {&points, &normals})
        for (const Float3& v : *cloud) xs.push_back(v.x);
    EXPECT_EQ(xs, std::vector<float>({0.9f, 1.5f, 1.f, 3.f}));
    EXPECT_TRUE(intensities.empty());
}
