// The two plain modes on vertex maps: point to point and one-sided point to plane. Each pair
// keeps the target pixel matched to every source pixel (-1 for none) until its next
// linearisation, and the trial error reuses it.
#include <cmath>
#include <limits>

#include "multi/align_frames.h"
#include "multi/row_sums.h"
#include "multi/projective_association.h"
#include "multi/vmap_modes.h"

namespace kestor {

namespace {

constexpr double kNotQualified = std::numeric_limits<double>::quiet_NaN();

ProjectiveTest projectiveTest(const MultiOptions& o, bool useNormals) {
    return ProjectiveTest{float(o.maxDistance * o.maxDistance), float(std::cos(o.maxAngle)),
                          useNormals};
}

// Sum over the pair's stored correspondences of what `term` makes of (p, q, target index).
template <typename Term>
double sumOverCorrespondences(const FrameMaps& source, const std::vector<int>& correspondences,
                              Term&& term) {
    const int width = source.vmap.width, height = source.vmap.height, size = width * height;
    double sum = 0.0;
    for (int row = 0; row < height; ++row) {
        const Float3* vRow = rowOf(source.vmap, row);
        const int* cRow = correspondences.data() + size_t(row) * size_t(width);
        for (int col = 0; col < width; ++col) {
            const int c = cRow[col];
            if (c < 0 || c >= size) continue;
            sum += term(vRow[col], c);
        }
    }
    return sum;
}

// Associates pair (i, j) at the given poses, keeping each source pixel's target pixel (-1 for
// none) in `correspondences` for the trial error, and hands every match to onMatch(p', q, n).
// Returns the match score.
template <typename OnMatch>
double associatePair(const std::vector<FrameMaps>& frames, std::vector<int>& correspondences,
                     int i, int j, const RT_<double>& poseI, const RT_<double>& poseJ,
                     const Intrinsics& k, const ProjectiveTest& test, OnMatch&& onMatch) {
    const FrameMaps &target = frames[size_t(i)], &source = frames[size_t(j)];
    correspondences.assign(size_t(source.vmap.width) * size_t(source.vmap.height), -1);
    return associateProjective(
        source.vmap, source.nmap, target.vmap, target.nmap, k, relativePose(poseI, poseJ), test,
        [&](int s, int t, const Float3&, const float* p, const Float3& q, const Float3* n) {
            correspondences[size_t(s)] = t;
            onMatch(p, q, n);
        });
}

// The blocks of one pair for a form whose rows have N entries: each match of the association
// goes to addMatch(p', q, n, sums, error), which adds its rows and squared residuals; fill turns
// the mirrored sums into the pair's blocks. A pair at or below minScore gives NaN.
template <int N, typename AddMatch>
PairLinearize linearizeWith(const std::vector<FrameMaps>& frames,
                            std::vector<std::vector<int>>& matches, const Intrinsics& k,
                            const ProjectiveTest& test, double minScore,
                            void (*fill)(const RowSums<N>&, PairBlock&, PairBlock&, PairBlock&,
                                         PairVector&, PairVector&),
                            AddMatch addMatch) {
    return [&frames, &matches, &k, test, minScore, fill, addMatch](
               int i, int j, const RT_<double>& poseI, const RT_<double>& poseJ, PairBlock& hII,
               PairBlock& hIJ, PairBlock& hJJ, PairVector& gI, PairVector& gJ) {
        RowSums<N> sums;
        double error = 0.0;
        const double score = associatePair(
            frames, matches[size_t(pairSlot(i, j))], i, j, poseI, poseJ, k, test,
            [&](const float* p, const Float3& q, const Float3* n) { addMatch(p, q, n, sums, error); });
        if (!(score > minScore)) return kNotQualified;
        sums.mirror();
        fill(sums, hII, hIJ, hJJ, gI, gJ);
        return error;
    };
}

// The trial error of one pair over its stored correspondences: each source vertex moved by the
// relative pose that `relative` forms, then term(target, p', target index).
template <typename Term>
PairEvaluate evaluateWith(const std::vector<FrameMaps>& frames,
                          const std::vector<std::vector<int>>& matches,
                          RT_<float> (*relative)(const RT_<double>&, const RT_<double>&), Term term) {
    return [&frames, &matches, relative, term](int i, int j, const RT_<double>& poseI,
                                               const RT_<double>& poseJ) {
        const RT_<float> T = relative(poseI, poseJ);
        const FrameMaps& target = frames[size_t(i)];
        return sumOverCorrespondences(frames[size_t(j)], matches[size_t(pairSlot(i, j))],
                                      [&](const Float3& p, int c) {
                                          float pt[3];
                                          transformPoint(T, &p.x, pt);
                                          return term(target, pt, c);
                                      });
    };
}

}  // namespace

bool alignVmaps(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                std::vector<RT_<double>>& poses, const MultiOptions& options,
                const ProgressFunc& progress) {
    const int count = int(frames.size());
    if (count < 2) return false;
    std::vector<std::vector<int>> matches(size_t(pairSlotCount(count)));
    const ProjectiveTest test = projectiveTest(options, false);

    const PairLinearize linearize = linearizeWith<12>(
        frames, matches, k, test, options.minScore, fillTwoSided,
        [](const float* p, const Float3& q, const Float3*, RowSums<12>& sums, double& error) {
            const float e[3] = {p[0] - q.x, p[1] - q.y, p[2] - q.z};
            // Target rows, then source rows, both in the target frame.
            const float rows[3][12] = {{0, -q.z, q.y, -1, 0, 0, 0, p[2], -p[1], 1, 0, 0},
                                       {q.z, 0, -q.x, 0, -1, 0, -p[2], 0, p[0], 0, 1, 0},
                                       {-q.y, q.x, 0, 0, 0, -1, p[1], -p[0], 0, 0, 0, 1}};
            for (int a = 0; a < 3; ++a) {
                sums.add(rows[a], e[a]);
                error += double(e[a]) * double(e[a]);
            }
        });

    const PairEvaluate evaluate = evaluateWith(
        frames, matches, relativePose, [](const FrameMaps& target, const float* pt, int c) {
            const Float3& q = atFlat(target.vmap, c);
            const double dx = pt[0] - q.x, dy = pt[1] - q.y, dz = pt[2] - q.z;
            return dx * dx + dy * dy + dz * dz;
        });

    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, false, progress, PairsChanged(),
                       options.parallel);
}

bool alignVmapNmaps(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                    std::vector<RT_<double>>& poses, const MultiOptions& options,
                    const ProgressFunc& progress) {
    const int count = int(frames.size());
    if (count < 2) return false;
    std::vector<std::vector<int>> matches(size_t(pairSlotCount(count)));
    const ProjectiveTest test = projectiveTest(options, true);

    const PairLinearize linearize = linearizeWith<6>(
        frames, matches, k, test, options.minScore, fillOneSided,
        [](const float* p, const Float3& q, const Float3* n, RowSums<6>& sums, double& error) {
            const float r = (p[0] - q.x) * n->x + (p[1] - q.y) * n->y + (p[2] - q.z) * n->z;
            float row[6];
            crossRow(p, &n->x, row);
            sums.add(row, r);
            error += double(r) * double(r);
        });

    const PairEvaluate evaluate = evaluateWith(
        frames, matches, relativePoseInFloat, [](const FrameMaps& target, const float* pt, int c) {
            const Float3 &q = atFlat(target.vmap, c), &n = atFlat(target.nmap, c);
            const double r = (pt[0] - q.x) * n.x + (pt[1] - q.y) * n.y + (pt[2] - q.z) * n.z;
            return r * r;
        });

    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, true, progress, PairsChanged(),
                       options.parallel);
}

}  // namespace kestor
