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

}  // namespace

bool alignVmapNmapsColored(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                           std::vector<RT_<double>>& poses, const MultiOptions& options,
                           const ProgressFunc& progress) {
    const int count = int(frames.size());
    if (count < 2) return false;
    const ProjectiveTest test{float(options.maxDistance * options.maxDistance),
                              float(std::cos(options.maxAngle)), true};
    return alignColoredPairs(
        count, poses, options, progress,
        [&](int i, int j, const RT_<float>& T, PairRows& rows) {
            return collectVmapRows(frames[size_t(i)], frames[size_t(j)], k, T, test, rows);
        },
        [&](int i, int j, const RT_<float>& T, const std::pair<int32_t, int32_t>& m, double& rg,
            double& rc) {
            const FrameMaps &target = frames[size_t(i)], &source = frames[size_t(j)];
            const Float3& p = atFlat(source.vmap, m.first);
            const Float3 &q = atFlat(target.vmap, m.second), &n = atFlat(target.nmap, m.second);
            float pt[3];
            transformPoint(T, &p.x, pt);
            rg = (pt[0] - q.x) * n.x + (pt[1] - q.y) * n.y + (pt[2] - q.z) * n.z;
            rc = atFlat(target.gray, m.second) - atFlat(source.gray, m.first);
        });
}

}  // namespace kestor
