#include "keypoint/descriptor_match.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "core/parallel_for.h"
#include "keypoint/descriptor_tiles.h"

namespace kestor {
namespace {

constexpr int W = DescriptorTiles::kWidth;
constexpr int kRowsPerPass = 6;   // query rows that share one pass over a train tile (12 sums)
constexpr int kQueryBlock = 60;   // queries kept in cache while the train tiles stream by (10 passes)
constexpr int kTilesPerCheck = 6; // query tiles per step of the mutual test (12 sums)

// Squared distances between R single descriptors (`rows`, broadcast element by element) and the
// 16 lanes of each of T tiles. Every distance is summed in element order by fused multiply-add
// from zero, whichever block shape computes it, so one pair always gives the same bits.
template <int R, int T>
inline void squaredDistances(const float* const* rows, const float* const* tiles, int dimension,
                             __m256 (&out)[R][2 * T]) {
    // Local accumulators, so they stay in registers while the tiles are read.
    __m256 acc[R][2 * T];
#pragma GCC unroll 8
    for (int r = 0; r < R; ++r)
#pragma GCC unroll 12
        for (int h = 0; h < 2 * T; ++h) acc[r][h] = _mm256_setzero_ps();
    for (int e = 0; e < dimension; ++e) {
        if constexpr (R == 1) {
            // One row against many tiles: each lane is read once, straight into its difference.
            const __m256 v = _mm256_broadcast_ss(rows[0] + e);
#pragma GCC unroll 12
            for (int h = 0; h < 2 * T; ++h) {
                const __m256 lane = _mm256_load_ps(tiles[h / 2] + e * W + (h % 2) * 8);
                const __m256 d = _mm256_sub_ps(lane, v);
                acc[0][h] = _mm256_fmadd_ps(d, d, acc[0][h]);
            }
        } else {
            // Many rows against one tile: the tile's lanes stay in registers across the rows.
            __m256 lanes[2 * T];
#pragma GCC unroll 8
            for (int h = 0; h < 2 * T; ++h)
                lanes[h] = _mm256_load_ps(tiles[h / 2] + e * W + (h % 2) * 8);
#pragma GCC unroll 8
            for (int r = 0; r < R; ++r) {
                const __m256 v = _mm256_broadcast_ss(rows[r] + e);
#pragma GCC unroll 8
                for (int h = 0; h < 2 * T; ++h) {
                    const __m256 d = _mm256_sub_ps(lanes[h], v);
                    acc[r][h] = _mm256_fmadd_ps(d, d, acc[r][h]);
                }
            }
        }
    }
#pragma GCC unroll 8
    for (int r = 0; r < R; ++r)
#pragma GCC unroll 12
        for (int h = 0; h < 2 * T; ++h) out[r][h] = acc[r][h];
}

// Per query and per lane, the nearest train descriptor seen so far in that lane.
struct alignas(32) LaneBest {
    float value[W];
    int index[W];
    float first;  // distance to train descriptor 0
};

void resetLaneBest(LaneBest& s) {
    std::fill(s.value, s.value + W, std::numeric_limits<float>::quiet_NaN());
    std::fill(s.index, s.index + W, -1);
    s.first = 0;
}

// A lane takes a distance that is not NaN and is strictly below its best or replaces a NaN best.
inline void keepNearer(LaneBest& s, int half, __m256 d, int firstIndex) {
    float* value = s.value + 8 * half;
    float* index = reinterpret_cast<float*>(s.index + 8 * half);
    const __m256 best = _mm256_load_ps(value);
    const __m256 take = _mm256_and_ps(_mm256_cmp_ps(d, best, _CMP_NGE_UQ),
                                      _mm256_cmp_ps(d, d, _CMP_ORD_Q));
    const __m256i candidate = _mm256_add_epi32(_mm256_set1_epi32(firstIndex),
                                               _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    _mm256_store_ps(value, _mm256_blendv_ps(best, d, take));
    _mm256_store_ps(index, _mm256_blendv_ps(_mm256_load_ps(index),
                                            _mm256_castsi256_ps(candidate), take));
}

// The result of a scan that starts at train 0 and lets only a strictly smaller distance replace
// the best: a NaN at train 0 is never replaced; otherwise the lowest index of the smallest
// non-NaN distance wins. Returns the index and sets the squared distance.
int nearestOf(const LaneBest& s, float& squared) {
    if (std::isnan(s.first)) {
        squared = s.first;
        return 0;
    }
    int index = -1;
    for (int lane = 0; lane < W; ++lane) {
        const float v = s.value[lane];
        if (std::isnan(v)) continue;
        if (index < 0 || v < squared || (v == squared && s.index[lane] < index)) {
            squared = v;
            index = s.index[lane];
        }
    }
    return index;
}

// Whether some query lane of the T tiles lies strictly nearer to `train` than `limit`, leaving
// out lane `own` (counted over the T tiles; -1 for none). Padding lanes are NaN and never count.
template <int T>
bool anyNearer(const float* train, const float* const* tiles, int dimension, __m256 limit,
               int own) {
    __m256 acc[1][2 * T];
    squaredDistances<1, T>(&train, tiles, dimension, acc);
    bool nearer = false;
#pragma GCC unroll 12
    for (int h = 0; h < 2 * T; ++h) {
        unsigned bits = unsigned(_mm256_movemask_ps(_mm256_cmp_ps(acc[0][h], limit, _CMP_LT_OQ)));
        if (own >= 8 * h && own < 8 * h + 8) bits &= ~(1u << (own - 8 * h));
        nearer |= bits != 0;
    }
    return nearer;
}

// The mutual test for query q matched to `train` at squared distance `best`: no other query may
// lie strictly nearer. Whole groups of tiles are tested at once; the answer is the same as
// stopping at the first nearer query.
bool noQueryNearer(const DescriptorTiles& queries, int q, const float* train, float best) {
    const __m256 limit = _mm256_set1_ps(best);
    for (int t0 = 0; t0 < queries.tiles; t0 += kTilesPerCheck) {
        const int n = std::min(kTilesPerCheck, queries.tiles - t0);
        const float* tiles[kTilesPerCheck];
        for (int t = 0; t < n; ++t) tiles[t] = queries.tile(t0 + t);
        const int own = q - t0 * W < n * W ? q - t0 * W : -1;
        const int d = queries.dimension;
        bool nearer = false;
        switch (n) {
            case 6: nearer = anyNearer<6>(train, tiles, d, limit, own); break;
            case 5: nearer = anyNearer<5>(train, tiles, d, limit, own); break;
            case 4: nearer = anyNearer<4>(train, tiles, d, limit, own); break;
            case 3: nearer = anyNearer<3>(train, tiles, d, limit, own); break;
            case 2: nearer = anyNearer<2>(train, tiles, d, limit, own); break;
            default: nearer = anyNearer<1>(train, tiles, d, limit, own); break;
        }
        if (nearer) return false;
    }
    return true;
}

struct MatchJob {
    const float* train;
    const float* query;
    const DescriptorTiles* trainTiles;
    const DescriptorTiles* queryTiles;  // null without the mutual test
    int* matches;
    float* distances;
    int dimension;
};

// One contiguous block of queries: nearest train descriptors, then the mutual test.
void matchQueries(const MatchJob& job, int begin, int end) {
    const DescriptorTiles& tiles = *job.trainTiles;
    const size_t dim = size_t(job.dimension);
    // kRowsPerPass - 1 spare entries take the padding rows of the last pass of a block.
    std::vector<LaneBest> state(kQueryBlock + kRowsPerPass - 1);
    for (int qb = begin; qb < end; qb += kQueryBlock) {
        const int qe = std::min(end, qb + kQueryBlock);
        for (LaneBest& s : state) resetLaneBest(s);
        for (int t = 0; t < tiles.tiles; ++t) {
            const float* tile = tiles.tile(t);
            for (int q = qb; q < qe; q += kRowsPerPass) {
                const float* rows[kRowsPerPass];
                for (int r = 0; r < kRowsPerPass; ++r)
                    rows[r] = job.query + size_t(std::min(q + r, qe - 1)) * dim;
                __m256 acc[kRowsPerPass][2];
                squaredDistances<kRowsPerPass, 1>(rows, &tile, job.dimension, acc);
                for (int r = 0; r < kRowsPerPass; ++r) {
                    LaneBest& s = state[size_t(q - qb + r)];
                    if (t == 0) s.first = _mm256_cvtss_f32(acc[r][0]);
                    keepNearer(s, 0, acc[r][0], t * W);
                    keepNearer(s, 1, acc[r][1], t * W + 8);
                }
            }
        }
        for (int q = qb; q < qe; ++q) {
            float squared = 0;
            const int index = nearestOf(state[size_t(q - qb)], squared);
            if (job.queryTiles != nullptr &&
                !noQueryNearer(*job.queryTiles, q, job.train + size_t(index) * dim, squared)) {
                job.matches[q] = -1;
                job.distances[q] = std::numeric_limits<float>::quiet_NaN();
            } else {
                job.matches[q] = index;
                job.distances[q] = std::sqrt(squared);
            }
        }
    }
}

}  // namespace

void matchDescriptors(const float* trainDescriptors, int trainCount,
                      const float* queryDescriptors, int* matches, float* distances,
                      int queryCount, int dimension, bool crossCheck, bool parallel) {
    std::vector<float> dropped;
    if (distances == nullptr) {
        dropped.resize(size_t(queryCount));
        distances = dropped.data();
    }
    const DescriptorTiles trainTiles =
        buildDescriptorTiles(trainDescriptors, trainCount, dimension, parallel);
    DescriptorTiles queryTiles;
    if (crossCheck)
        queryTiles = buildDescriptorTiles(queryDescriptors, queryCount, dimension, parallel);
    const MatchJob job{trainDescriptors, queryDescriptors, &trainTiles,
                       crossCheck ? &queryTiles : nullptr, matches, distances, dimension};
    runLoop(parallel, 0, queryCount,
            [&job](int begin, int end, int) { matchQueries(job, begin, end); });
}

}  // namespace kestor
