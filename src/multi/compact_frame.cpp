#include "multi/compact_frame.h"

#include "core/lane_front.h"
#include "multi/projective_association.h"

namespace kestor {

namespace {

inline bool kept(const Float3& p, const Float3* n) {
    return n != nullptr ? !(p.z == 0.0f || isZero(*n)) : p.z > 0.0f;
}

}  // namespace

// Eight pixels at a time: the kept lanes are moved to the front and all eight written at the next
// free place, which then moves on by the kept count, so that the holes of a depth map cost no
// branch. Each row first makes room for all its pixels and then gives back what it did not keep.
CompactFrame compactFrame(const FrameMaps& frame, bool useNormals) {
    CompactFrame c;
    const int width = frame.vmap.width, height = frame.vmap.height;
    const bool withGray = frame.gray.data != nullptr;
    const size_t most = size_t(width) * size_t(height);
    c.points.reserve(most);
    c.pixels.reserve(most);
    if (useNormals) c.normals.reserve(most);
    if (withGray) c.gray.reserve(most);
    c.rowStarts.reserve(size_t(height) + 1);
    auto resize = [&](size_t n) {
        c.points.resize(n);
        c.pixels.resize(n);
        if (useNormals) c.normals.resize(n);
        if (withGray) c.gray.resize(n);
    };
    const __m256 zero = _mm256_setzero_ps();
    size_t count = 0;
    for (int row = 0; row < height; ++row) {
        c.rowStarts.push_back(int(count));
        resize(count + size_t(width));
        const Float3* v = rowOf(frame.vmap, row);
        const Float3* n = useNormals ? rowOf(frame.nmap, row) : nullptr;
        const float* g = withGray ? rowOf(frame.gray, row) : nullptr;
        const __m256i firstPixels = _mm256_add_epi32(_mm256_set1_epi32(row * width),
                                                     _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        int col = 0;
        for (; col + 8 <= width; col += 8) {
            const Lanes3 p = loadLanes(v + col);
            __m256 keep;
            Lanes3 m{};
            if (useNormals) {
                m = loadLanes(n + col);
                keep = _mm256_and_ps(_mm256_cmp_ps(p.z, zero, _CMP_NEQ_UQ),
                                     _mm256_or_ps(_mm256_or_ps(nonZero(m.x), nonZero(m.y)), nonZero(m.z)));
            } else {
                keep = _mm256_cmp_ps(p.z, zero, _CMP_GT_OQ);
            }
            const int bits = _mm256_movemask_ps(keep);
            if (bits == 0) continue;
            const __m256i order = frontOrder(bits);
            auto put = [&](std::vector<float>& plane, __m256 lanes) {
                _mm256_storeu_ps(&plane[count], toFront(lanes, order));
            };
            put(c.points.x, p.x);
            put(c.points.y, p.y);
            put(c.points.z, p.z);
            if (useNormals) {
                put(c.normals.x, m.x);
                put(c.normals.y, m.y);
                put(c.normals.z, m.z);
            }
            if (withGray) put(c.gray, _mm256_loadu_ps(g + col));
            const __m256i pixels = _mm256_add_epi32(firstPixels, _mm256_set1_epi32(col));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(&c.pixels[count]), toFront(pixels, order));
            count += size_t(__builtin_popcount(unsigned(bits)));
        }
        for (; col < width; ++col) {
            if (!kept(v[col], useNormals ? &n[col] : nullptr)) continue;
            c.points.x[count] = v[col].x;
            c.points.y[count] = v[col].y;
            c.points.z[count] = v[col].z;
            if (useNormals) {
                c.normals.x[count] = n[col].x;
                c.normals.y[count] = n[col].y;
                c.normals.z[count] = n[col].z;
            }
            if (withGray) c.gray[count] = g[col];
            c.pixels[count] = row * width + col;
            ++count;
        }
        resize(count);
    }
    c.rowStarts.push_back(int(count));
    return c;
}

}  // namespace kestor
