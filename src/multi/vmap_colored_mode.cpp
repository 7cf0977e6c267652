// The coloured mode on image grids: one-sided point to plane plus the gray difference of the two
// matched pixels. Rows are collected for all pairs first, so that each residual kind can be
// centred and scaled by its spread over the whole set before any pair is summed.
#include <cmath>

#include "multi/colored_rows.h"
#include "multi/projective_association.h"
#include "multi/vmap_modes.h"

namespace kestor {

namespace {

// The rows of pair (target, source) at relative pose T; returns the pair's score.
double collectVmapRows(const FrameMaps& target, const FrameMaps& source, const Intrinsics& k,
                       const RT_<float>& T, const ProjectiveTest& test, PairRows& rows) {
    return associateProjective(
        source.vmap, source.nmap, target.vmap, target.nmap, k, T, test,
        [&](int s, int t, const Float3&, const float* p, const Float3& q, const Float3* n) {
            const float rg = (p[0] - q.x) * n->x + (p[1] - q.y) * n->y + (p[2] - q.z) * n->z;
            float geometric[6];
            crossRow(p, &n->x, geometric);
            const float rc = atFlat(target.gray, t) - atFlat(source.gray, s);
            // The target's gradients are read at the source pixel's own row and column.
            const float gx = atFlat(target.gradX, s), gy = atFlat(target.gradY, s);
            const float d[3] = {gx * k.fx / p[2], gy * k.fy / p[2],
                                -(p[1] * gy * k.fy + p[0] * gx * k.fx) / (p[2] * p[2])};
            float photometric[6];
            crossRow(p, d, photometric);
            rows.add(s, t, rg, geometric, rc, photometric);
        });
}

bool allPacked(const FrameMaps& f) {
    return isPacked(f.vmap) && isPacked(f.nmap) && isPacked(f.gray);
}

}  // namespace

bool alignVmapNmapsColored(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                           std::vector<RT_<double>>& poses, const MultiOptions& options,
                           const ProgressFunc& progress) {
    const int count = int(frames.size());
    if (count < 2) return false;
    std::vector<PairRows> storage(size_t(pairSlotCount(count)));
    ColoredScales scales;
    const ProjectiveTest test{float(options.maxDistance * options.maxDistance),
                              float(std::cos(options.maxAngle)), true};

    PairsChanged pairsChanged = [&](const FramePair* pairs, const unsigned char* active, int n) {
        collectAllPairs(pairs, active, n, storage, options.minScore, options.colorWeight,
                        options.parallel, scales, [&](int i, int j, PairRows& rows) {
                            return collectVmapRows(frames[size_t(i)], frames[size_t(j)], k,
                                                   relativePose(poses[size_t(i)], poses[size_t(j)]),
                                                   test, rows);
                        });
    };

    PairLinearize linearize = [&](int i, int j, const RT_<double>&, const RT_<double>&,
                                  PairBlock& hII, PairBlock& hIJ, PairBlock& hJJ, PairVector& gI,
                                  PairVector& gJ) {
        return pairRowsHessian(storage[size_t(pairSlot(i, j))], scales, hII, hIJ, hJJ, gI, gJ);
    };

    PairEvaluate evaluate = [&](int i, int j, const RT_<double>& poseI, const RT_<double>& poseJ) {
        const FrameMaps &target = frames[size_t(i)], &source = frames[size_t(j)];
        if (!allPacked(target) || !allPacked(source)) return 0.0;
        const RT_<float> T = relativePose(poseI, poseJ);
        const double wg2 = scales.weightGeometric * scales.weightGeometric;
        const double wc2 = scales.weightPhotometric * scales.weightPhotometric;
        double sum = 0.0;
        for (const auto& m : storage[size_t(pairSlot(i, j))].matches) {
            const Float3& p = source.vmap.data[m.first];
            const Float3 &q = target.vmap.data[m.second], &n = target.nmap.data[m.second];
            float pt[3];
            applyRT(T, &p.x, pt);
            const double rg = (pt[0] - q.x) * n.x + (pt[1] - q.y) * n.y + (pt[2] - q.z) * n.z;
            const double rc = target.gray.data[m.second] - source.gray.data[m.first];
            const double dg = rg - scales.meanGeometric, dc = rc - scales.meanPhotometric;
            sum += dg * dg * wg2 + dc * dc * wc2;
        }
        return sum;
    };

    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, true, progress, pairsChanged,
                       options.parallel);
}

}  // namespace kestor
