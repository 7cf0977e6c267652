#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "kestor.h"
#include "pointmap/voxel_filter.h"

using namespace kestor;

namespace {

struct Kept {
    bool called = false;
    std::vector<int> indices;
};

void collect(const int* indices, int count, void* user) {
    Kept* kept = static_cast<Kept*>(user);
    kept->called = true;
    kept->indices.assign(indices, indices + count);
}

Kept runExport(const std::vector<float>& points, double voxelSize) {
    Kept kept;
    EXPECT_EQ(KESTORVoxelFilter(points.data(), int(points.size() / 3), voxelSize, collect, &kept),
              KESTOR_STATUS_OK);
    EXPECT_TRUE(kept.called);
    return kept;
}

// The rule stated plainly: per voxel of the grid anchored at the lower corner, the point nearest
// the voxel's centre (first in input order on a tie), and no point from the highest voxel.
std::vector<int> bruteForce(const std::vector<float>& p, float size) {
    const size_t n = p.size() / 3;
    float lo[3] = {p[0], p[1], p[2]}, xmax = p[0], ymax = p[1];
    for (size_t i = 0; i < n; ++i) {
        for (int a = 0; a < 3; ++a) lo[a] = std::min(lo[a], p[3 * i + a]);
        xmax = std::max(xmax, p[3 * i]);
        ymax = std::max(ymax, p[3 * i + 1]);
    }
    const uint64_t nx = uint64_t(int((xmax - lo[0]) / size) + 1);
    const uint64_t ny = uint64_t(int((ymax - lo[1]) / size) + 1);
    std::map<uint64_t, std::pair<double, int>> best;
    for (size_t i = 0; i < n; ++i) {
        uint64_t idx[3];
        for (int a = 0; a < 3; ++a) idx[a] = uint64_t((p[3 * i + a] - lo[a]) / size);
        double d = 0;
        for (int a = 0; a < 3; ++a) {
            const float centre = (float(idx[a]) + 0.5f) * size;
            const double e = double(p[3 * i + a] - lo[a] - centre);
            d += e * e;
        }
        const uint64_t key = idx[2] * nx * ny + idx[1] * nx + idx[0];
        auto it = best.find(key);
        if (it == best.end() || d < it->second.first) best[key] = {d, int(i)};
    }
    best.erase(std::prev(best.end()));
    std::vector<int> kept;
    for (const auto& entry : best) kept.push_back(entry.second.second);
    std::sort(kept.begin(), kept.end());
    return kept;
}

}  // namespace

TEST(VoxelFilter, OnePointOrOneVoxelKeepsNothing) {
    EXPECT_TRUE(runExport({1.f, 2.f, 3.f}, 0.5).indices.empty());
    EXPECT_TRUE(runExport({0.1f, 0.1f, 0.1f, 0.2f, 0.3f, 0.4f, 0.45f, 0.05f, 0.3f}, 0.5)
                    .indices.empty());
}

TEST(VoxelFilter, OfTwoVoxelsOnlyTheLowerKeySurvives) {
    // Point 0 lies in the higher voxel along z, which outranks x and y in the key.
    const std::vector<float> points = {0.f, 0.f, 2.f, 3.f, 3.f, 0.f};
    EXPECT_EQ(runExport(points, 1.0).indices, std::vector<int>({1}));
}

TEST(VoxelFilter, PointOnTheLowerFaceFallsInVoxelZero) {
    // Voxels along x: {0.0, 0.9} (0.9 nearer the centre 0.5), {1.0}, {2.5} (the last, dropped).
    const std::vector<float> points = {0.f, 0.f, 0.f, 0.9f, 0.f, 0.f, 1.0f, 0.f, 0.f, 2.5f, 0.f, 0.f};
    EXPECT_EQ(runExport(points, 1.0).indices, std::vector<int>({1, 2}));
}

TEST(VoxelFilter, LargeCloudMatchesTheBruteForceRule) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> coord(-2.0f, 3.0f);
    std::vector<float> points(3 * 200000);
    for (float& v : points) v = coord(rng);
    // Duplicates give exact ties, which the first point in input order wins.
    for (int i = 0; i < 1000; ++i)
        for (int a = 0; a < 3; ++a) points[3 * (100000 + i) + a] = points[3 * i + a];
    const std::vector<int> expected = bruteForce(points, 0.1f);
    EXPECT_GT(expected.size(), 50000u);
    EXPECT_EQ(runExport(points, 0.1).indices, expected);

    // The internal 64-bit form selects the same set.
    std::vector<unsigned char> bytes(points.size() / 3, 9);
    ImageView<unsigned char> selection{bytes.data(), 1, 1, int32_t(bytes.size())};
    voxelFilter(points.data(), int64_t(bytes.size()), 0.1f, selection);
    std::vector<int> kept;
    for (size_t i = 0; i < bytes.size(); ++i) {
        ASSERT_TRUE(bytes[i] == 0 || bytes[i] == 255);
        if (bytes[i] == 255) kept.push_back(int(i));
    }
    EXPECT_EQ(kept, expected);
}

TEST(VoxelFilter, BadArgumentsAndNullCallback) {
    const std::vector<float> points = {0.f, 0.f, 0.f, 5.f, 5.f, 5.f};
    Kept kept;
    EXPECT_EQ(KESTORVoxelFilter(nullptr, 2, 1.0, collect, &kept), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(KESTORVoxelFilter(points.data(), 0, 1.0, collect, &kept), KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(KESTORVoxelFilter(points.data(), -3, 1.0, collect, &kept),
              KESTOR_STATUS_BAD_ARGUMENT);
    EXPECT_FALSE(kept.called);
    EXPECT_EQ(KESTORVoxelFilter(points.data(), 2, 1.0, nullptr, nullptr), KESTOR_STATUS_OK);
}

TEST(VoxelFilter, SelectionOfTheWrongShapeIsLeftAlone) {
    const std::vector<float> points = {0.f, 0.f, 0.f, 5.f, 5.f, 5.f, 9.f, 9.f, 9.f};
    std::vector<unsigned char> bytes(4, 9);
    ImageView<unsigned char> selection{bytes.data(), 1, 1, 4};
    voxelFilter(points.data(), int32_t(3), 1.0f, selection);
    EXPECT_EQ(bytes, std::vector<unsigned char>(4, 9));
    // A 3x1 view of the right size is filled through its columns.
    ImageView<unsigned char> wide{bytes.data(), 3, 3, 1};
    voxelFilter(points.data(), int32_t(3), 1.0f, wide);
    EXPECT_EQ(bytes, std::vector<unsigned char>({255, 255, 0, 9}));
}

TEST(VoxelFilterCloud, NormalsFollowAndMisSizedIntensitiesAreCleared) {
    std::vector<Float3> points = {{0.9f, 0, 0}, {0.1f, 0, 0}, {1.5f, 0, 0}, {2.5f, 0, 0}};
    std::vector<Float3> normals = {{1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}};
    std::vector<float> intensities = {0.5f, 0.6f};
    voxelFilterCloud(1.0, points, normals, intensities);
    // Voxel 0 keeps 0.9 over 0.1 (centre at 0.5 + 0.1), voxel 1 keeps 1.5, voxel 2 is the last.
    ASSERT_EQ(points.size(), 2u);
    EXPECT_FLOAT_EQ(points[0].x, 0.9f);
    EXPECT_FLOAT_EQ(points[1].x, 1.5f);
    ASSERT_EQ(normals.size(), 2u);
    EXPECT_FLOAT_EQ(normals[0].x, 1.f);
    EXPECT_FLOAT_EQ(normals[1].x, 3.f);
    EXPECT_TRUE(intensities.empty());
}
