#include "pointmap/voxel_filter.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

namespace kestor {

namespace {

struct VoxelEntry {
    uint64_t key;
    int64_t position;
};

// Stable LSD radix sort on the key, 11 bits a pass, over only as many bits as the largest key
// has. Stability keeps equal keys in input order, so the filter's choice among points at equal
// distance from a centre does not depend on the sort.
void sortByKey(std::vector<VoxelEntry>& entries, uint64_t maxKey) {
    constexpr int kBits = 11;
    constexpr size_t kBuckets = size_t(1) << kBits;
    std::vector<VoxelEntry> scratch(entries.size());
    std::vector<size_t> counts(kBuckets);
    for (int shift = 0; shift < 64 && (maxKey >> shift) != 0; shift += kBits) {
        std::fill(counts.begin(), counts.end(), 0);
        for (const VoxelEntry& e : entries) ++counts[(e.key >> shift) & (kBuckets - 1)];
        size_t offset = 0;
        for (size_t& c : counts) {
            const size_t n = c;
            c = offset;
            offset += n;
        }
        for (const VoxelEntry& e : entries) scratch[counts[(e.key >> shift) & (kBuckets - 1)]++] = e;
        entries.swap(scratch);
    }
}

// Voxels spanned along an axis: truncation plus one. Spans that no int can count (huge extents)
// give the widest int grid, and a NaN or negative one (NaN points, a voxel size not above 0) a
// single voxel, so the decoding below never divides by 0.
uint64_t voxelsAcross(float span, float voxelSize) {
    const float cells = span / voxelSize;
    if (cells >= 0.0f && cells < 2147483648.0f) return uint64_t(int64_t(cells)) + 1;
    return cells >= 2147483648.0f ? uint64_t(1) << 31 : 1;
}

// A point's voxel number along an axis, by truncation. Outside the range of uint64_t the
// conversion would be undefined: values beyond it saturate, negatives wrap as in 64-bit integer
// arithmetic, and NaN gives 0. Such points only change where they sort.
uint64_t voxelIndex(float offset, float voxelSize) {
    const float v = offset / voxelSize;
    if (v >= 0.0f) return v < 18446744073709551616.0f ? uint64_t(v) : UINT64_MAX;
    if (v > -9223372036854775808.0f) return uint64_t(int64_t(v));
    return v < 0.0f ? uint64_t(INT64_MIN) : 0;
}

void markSelected(ImageView<unsigned char>& selection, int64_t position) {
    const int64_t width = selection.width;
    rowOf(selection, int(position / width))[position % width] = 255;
}

template <typename Count>
void filterVoxels(const float* points, Count count, float voxelSize,
                  ImageView<unsigned char>& selection, uint64_t startKey) {
    if (points == nullptr || count <= 0 || selection.data == nullptr) return;
    if (int64_t(selection.width) * int64_t(selection.height) != int64_t(count)) return;
    for (int y = 0; y < selection.height; ++y) std::memset(rowOf(selection, y), 0, selection.width);

    float xmin = points[0], xmax = points[0], ymin = points[1], ymax = points[1], zmin = points[2];
    for (Count i = 1; i < count; ++i) {
        const float* p = points + 3 * size_t(i);
        xmin = std::min(xmin, p[0]);
        xmax = std::max(xmax, p[0]);
        ymin = std::min(ymin, p[1]);
        ymax = std::max(ymax, p[1]);
        zmin = std::min(zmin, p[2]);
    }
    const uint64_t nx = voxelsAcross(xmax - xmin, voxelSize);
    const uint64_t ny = voxelsAcross(ymax - ymin, voxelSize);
    const uint64_t layer = nx * ny;

    std::vector<VoxelEntry> entries(static_cast<size_t>(count));
    uint64_t maxKey = 0;
    for (Count i = 0; i < count; ++i) {
        const float* p = points + 3 * size_t(i);
        const uint64_t ix = voxelIndex(p[0] - xmin, voxelSize);
        const uint64_t iy = voxelIndex(p[1] - ymin, voxelSize);
        const uint64_t iz = voxelIndex(p[2] - zmin, voxelSize);
        const uint64_t key = iz * layer + iy * nx + ix;
        entries[size_t(i)] = VoxelEntry{key, int64_t(i)};
        maxKey = std::max(maxKey, key);
    }
    sortByKey(entries, maxKey);

    uint64_t current = startKey;
    int64_t winner = -1;
    double winnerDistance = std::numeric_limits<double>::infinity();
    Count inVoxel = 0;
    float centre[3] = {0.5f * voxelSize, 0.5f * voxelSize, 0.5f * voxelSize};
    const float lower[3] = {xmin, ymin, zmin};
    auto distanceSq = [&](int64_t position) {
        const float* p = points + 3 * size_t(position);
        double sum = 0.0;
        for (int a = 0; a < 3; ++a) {
            const double d = double(p[a] - lower[a] - centre[a]);
            sum += d * d;
        }
        return sum;
    };
    for (const VoxelEntry& e : entries) {
        if (e.key == current) {
            const double d = distanceSq(e.position);
            if (d < winnerDistance) {
                winner = e.position;
                winnerDistance = d;
            }
            ++inVoxel;
            continue;
        }
        const uint64_t ix = e.key % nx, iy = (e.key / nx) % ny, iz = e.key / layer;
        centre[0] = (float(ix) + 0.5f) * voxelSize;
        centre[1] = (float(iy) + 0.5f) * voxelSize;
        centre[2] = (float(iz) + 0.5f) * voxelSize;
        // The first voxel can carry the starting key, and if no distance there compares (NaN),
        // it has no winner to mark.
        if (inVoxel > 0 && winner >= 0) markSelected(selection, winner);
        current = e.key;
        winner = e.position;
        winnerDistance = distanceSq(e.position);
        inVoxel = 1;
    }
    // The last voxel's winner stays unmarked: that voxel gives no point to the result.
}

}  // namespace

void voxelFilter(const float* points, int32_t count, float voxelSize,
                 ImageView<unsigned char>& selection) {
    filterVoxels<int32_t>(points, count, voxelSize, selection, 0x7fffffffu);
}

void voxelFilter(const float* points, int64_t count, float voxelSize,
                 ImageView<unsigned char>& selection) {
    filterVoxels<int64_t>(points, count, voxelSize, selection, ~uint64_t(0));
}

void voxelFilterCloud(double voxelSize, std::vector<Float3>& points, std::vector<Float3>& normals,
                      std::vector<float>& intensities) {
    std::vector<unsigned char> selected(points.size());
    ImageView<unsigned char> selection{selected.data(), 1, 1, int32_t(points.size())};
    voxelFilter(reinterpret_cast<const float*>(points.data()), int64_t(points.size()),
                float(voxelSize), selection);
    if (intensities.size() != points.size()) intensities.clear();
    if (normals.size() != points.size()) normals.clear();
    size_t kept = 0;
    for (size_t i = 0; i < selected.size(); ++i) {
        if (selected[i] == 0) continue;
        points[kept] = points[i];
        if (!normals.empty()) normals[kept] = normals[i];
        if (!intensities.empty()) intensities[kept] = intensities[i];
        ++kept;
    }
    points.resize(kept);
    if (!normals.empty()) normals.resize(kept);
    if (!intensities.empty()) intensities.resize(kept);
}

}  // namespace kestor
