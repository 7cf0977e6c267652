// The three joint-alignment modes on point sets. A pair (i, j) looks up the nearest point of
// target i for every point of source j moved by the relative pose; the pair keeps its matches
// until its next linearisation and the trial error reuses them.
#include "multi/point_modes.h"

#include <cmath>
#include <limits>

#include "multi/align_frames.h"
#include "multi/colored_rows.h"
#include "multi/row_sums.h"
#include "multi/pair_pose.h"
#include "pair/point_set_math.h"

namespace kestor {

namespace {

constexpr double kNotQualified = std::numeric_limits<double>::quiet_NaN();

struct NearestTest {
    float radiusSq;
    float cosMaxAngle;
};

NearestTest nearestTest(const MultiOptions& o) {
    return NearestTest{float(o.maxDistance * o.maxDistance), float(std::cos(o.maxAngle))};
}

// Nearest target point of source point s under T, with the normal test: the target position,
// or -1. `moved` receives T p.
int32_t matchWithNormal(const PointFrame& target, const PointFrame& source, int s,
                        const RT_<float>& T, const NearestTest& test, float* moved) {
    const int32_t c = nearestTarget(*target.index, T, source.points + 3 * size_t(s),
                                    test.radiusSq, moved);
    if (c < 0) return -1;
    float m[3];
    rotateVector(T.rotation, source.normals + 3 * size_t(s), m);
    return dot3(target.normals + 3 * size_t(c), m) > test.cosMaxAngle ? c : -1;
}

double score(int kept, int count) { return count > 0 ? double(kept) / double(count) : 0.0; }

// (p' - q) . n for target position c.
float planeResidual(const PointFrame& target, int32_t c, const float* moved) {
    const float* q = target.points + 3 * size_t(c);
    const float d[3] = {moved[0] - q[0], moved[1] - q[1], moved[2] - q[2]};
    return dot3(d, target.normals + 3 * size_t(c));
}

void copyBlocks(const PointLinearization& lin, PairBlock& hII, PairBlock& hIJ, PairBlock& hJJ,
                PairVector& gI, PairVector& gJ) {
    for (int a = 0; a < 6; ++a) {
        for (int b = 0; b < 6; ++b) {
            hII[a][b] = lin.hessianTT[6 * a + b];
            hIJ[a][b] = lin.hessianTS[6 * a + b];
            hJJ[a][b] = lin.hessianSS[6 * a + b];
        }
        gI[a] = lin.gradientT[a];
        gJ[a] = lin.gradientS[a];
    }
}

}  // namespace

bool alignPoints(const std::vector<PointFrame>& frames, std::vector<RT_<double>>& poses,
                 const MultiOptions& options, const ProgressFunc& progress) {
    const int count = int(frames.size());
    if (count < 2) return false;
    std::vector<PointLinearization> storage(size_t(pairSlotCount(count)));

    PairLinearize linearize = [&](int i, int j, const RT_<double>& poseI,
                                  const RT_<double>& poseJ, PairBlock& hII, PairBlock& hIJ,
                                  PairBlock& hJJ, PairVector& gI, PairVector& gJ) {
        const PointFrame &target = frames[size_t(i)], &source = frames[size_t(j)];
        PointLinearization& lin = storage[size_t(pairSlot(i, j))];
        lin.correspondences.assign(size_t(source.count), -1);
        const double error = linearizePointToPoint(*target.index, source.points, source.count,
                                                   relativePose(poseI, poseJ),
                                                   options.maxDistance, lin);
        if (!(lin.score > options.minScore)) return kNotQualified;
        copyBlocks(lin, hII, hIJ, hJJ, gI, gJ);
        return error;
    };

    PairEvaluate evaluate = [&](int i, int j, const RT_<double>& poseI, const RT_<double>& poseJ) {
        const PointFrame &target = frames[size_t(i)], &source = frames[size_t(j)];
        return pointToPointError(target.points, target.count, source.points, source.count,
                                 relativePose(poseI, poseJ),
                                 storage[size_t(pairSlot(i, j))].correspondences.data());
    };

    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, true, progress, PairsChanged(),
                       options.parallel);
}

bool alignPointNormals(const std::vector<PointFrame>& frames, std::vector<RT_<double>>& poses,
                       const MultiOptions& options, const ProgressFunc& progress) {
    const int count = int(frames.size());
    if (count < 2) return false;
    std::vector<std::vector<int32_t>> matches(size_t(pairSlotCount(count)));
    const NearestTest test = nearestTest(options);

    PairLinearize linearize = [&](int i, int j, const RT_<double>& poseI,
                                  const RT_<double>& poseJ, PairBlock& hII, PairBlock& hIJ,
                                  PairBlock& hJJ, PairVector& gI, PairVector& gJ) {
        const PointFrame &target = frames[size_t(i)], &source = frames[size_t(j)];
        std::vector<int32_t>& corr = matches[size_t(pairSlot(i, j))];
        corr.assign(size_t(source.count), -1);
        const RT_<float> T = relativePose(poseI, poseJ);
        RowSums<6> sums;
        double error = 0.0;
        int kept = 0;
        for (int s = 0; s < source.count; ++s) {
            float moved[3];
            const int32_t c = matchWithNormal(target, source, s, T, test, moved);
            corr[size_t(s)] = c;
            if (c < 0) continue;
            ++kept;
            const float r = planeResidual(target, c, moved);
            float row[6];
            cross3(moved, target.normals + 3 * size_t(c), row);
            for (int a = 0; a < 3; ++a) row[3 + a] = target.normals[3 * size_t(c) + size_t(a)];
            sums.add(row, r);
            error += double(r) * double(r);
        }
        if (!(score(kept, source.count) > options.minScore)) return kNotQualified;
        sums.mirror();
        fillOneSided(sums, hII, hIJ, hJJ, gI, gJ);
        return error;
    };

    PairEvaluate evaluate = [&](int i, int j, const RT_<double>& poseI, const RT_<double>& poseJ) {
        const PointFrame &target = frames[size_t(i)], &source = frames[size_t(j)];
        const std::vector<int32_t>& corr = matches[size_t(pairSlot(i, j))];
        const RT_<float> T = relativePose(poseI, poseJ);
        double sum = 0.0;
        for (int s = 0; s < source.count; ++s) {
            const int32_t c = corr[size_t(s)];
            if (!validCorrespondence(c, target.count)) continue;
            float moved[3];
            transformPoint(T, source.points + 3 * size_t(s), moved);
            const double r = planeResidual(target, c, moved);
            sum += r * r;
        }
        return sum;
    };

    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, true, progress, PairsChanged(),
                       options.parallel);
}

namespace {

// The rows of pair (target, source) at relative pose T; returns the pair's score.
double collectPointRows(const PointFrame& target, const PointFrame& source, const RT_<float>& T,
                        const NearestTest& test, PairRows& rows) {
    int kept = 0;
    for (int s = 0; s < source.count; ++s) {
        float moved[3];
        const int32_t c = matchWithNormal(target, source, s, T, test, moved);
        if (c < 0) continue;
        ++kept;
        const float* q = target.points + 3 * size_t(c);
        const float* n = target.normals + 3 * size_t(c);
        const float* g = target.gradients + 3 * size_t(c);
        const float rg = planeResidual(target, c, moved);
        const float rc = photometricResidual(moved, rg, q, n, g, target.intensities[c],
                                             source.intensities[s]);
        float geometric[6], photometric[6];
        cross3(moved, n, geometric);
        const float gn = dot3(g, n);
        const float d[3] = {g[0] - gn * n[0], g[1] - gn * n[1], g[2] - gn * n[2]};
        cross3(moved, d, photometric);
        for (int a = 0; a < 3; ++a) {
            geometric[3 + a] = n[a];
            photometric[3 + a] = d[a];
        }
        rows.add(s, c, rg, geometric, rc, photometric);
    }
    return score(kept, source.count);
}

}  // namespace

bool alignPointNormalsColored(const std::vector<PointFrame>& frames,
                              std::vector<RT_<double>>& poses, const MultiOptions& options,
                              const ProgressFunc& progress) {
    const int count = int(frames.size());
    if (count < 2) return false;
    const NearestTest test = nearestTest(options);
    return alignColoredPairs(
        count, poses, options, progress,
        [&](int i, int j, const RT_<float>& T, PairRows& rows) {
            return collectPointRows(frames[size_t(i)], frames[size_t(j)], T, test, rows);
        },
        [&](int i, int j, const RT_<float>& T, const std::pair<int32_t, int32_t>& m, double& rg,
            double& rc) {
            const PointFrame &target = frames[size_t(i)], &source = frames[size_t(j)];
            const float* q = target.points + 3 * size_t(m.second);
            const float* n = target.normals + 3 * size_t(m.second);
            float moved[3];
            transformPoint(T, source.points + 3 * size_t(m.first), moved);
            const float geometric = planeResidual(target, m.second, moved);
            rg = geometric;
            rc = photometricResidual(moved, geometric, q, n,
                                     target.gradients + 3 * size_t(m.second),
                                     target.intensities[m.second], source.intensities[m.first]);
        });
}

}  // namespace kestor
