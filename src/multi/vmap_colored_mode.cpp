// The coloured mode on image grids: one-sided point to plane plus the gray difference of the two
// matched pixels. When the pairs are announced, every pair is associated once, keeping its
// target pixels and the unweighted sums of its rows and residuals of both kinds; once all pairs
// are in, each kind's mean and spread over the qualifying pairs give the centring and weights,
// which are applied to a pair's sums when it is linearised. The photometric residual of a kept
// pair of pixels does not change with the pose, so a trial recomputes only the geometric part.
#include <cmath>
#include <limits>

#include "core/parallel_for.h"
#include "multi/colored_sums.h"
#include "multi/pair_bands.h"
#include "multi/vmap_modes.h"
#include "multi/vmap_pair_passes.h"
#include "multi/vmap_run.h"

namespace kestor {

bool alignVmapNmapsColored(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                           std::vector<RT_<double>>& poses, const MultiOptions& options,
                           const ProgressFunc& progress) {
    const int count = int(frames.size());
    if (count < 2) return false;
    const ProjectiveTest test{float(options.maxDistance * options.maxDistance),
                              float(std::cos(options.maxAngle)), true};
    VmapRun run(frames, true, true, options.parallel);
    const int height = frames[0].vmap.height;
    // Whether a pair's association at the current poses scored above minScore with some match,
    // and its sums at those poses.
    std::vector<unsigned char> qualified(run.targets.size(), 0);
    std::vector<ColoredSums> sums(run.targets.size());
    ColoredScales scales;
    std::vector<RT_<float>> relative;
    SlotSums<ColoredSums> partial;
    std::vector<ResidualStats> totals;  // of the qualifying pairs

    const PairsChanged pairsChanged = [&](const FramePair* pairs, const unsigned char* active,
                                          int n) {
        relative.resize(size_t(n));
        for (int p = 0; p < n; ++p)
            relative[size_t(p)] = relativePose(poses[size_t(pairs[p].first)], poses[size_t(pairs[p].second)]);
        partial.reset(loopSlots(options.parallel), n);
        forPairBands(pairs, active, n, run, height, options.parallel,
                     [&](int p, int begin, int end, int slot) {
                         const int i = pairs[p].first, j = pairs[p].second;
                         coloredSumsPass(run.sources[size_t(j)], run.records[size_t(i)], k,
                                         relative[size_t(p)], test, begin, end, run.targetsOf(i, j),
                                         partial.at(slot, p));
                     });
        totals.clear();
        for (int p = 0; p < n; ++p) {
            if (!active[p]) continue;
            const int i = pairs[p].first, j = pairs[p].second;
            const int slot = pairSlot(i, j);
            sums[size_t(slot)] = partial.total(p);
            const int kept = sums[size_t(slot)].kept;
            qualified[size_t(slot)] = kept > 0 && matchScore(kept, run.sources[size_t(j)].size()) > options.minScore;
            if (qualified[size_t(slot)]) totals.push_back(sums[size_t(slot)].stats());
        }
        scales.update(totals, options.colorWeight);
    };

    const PairLinearize linearize = [&](int i, int j, const RT_<double>&, const RT_<double>&,
                                        PairBlock& hII, PairBlock& hIJ, PairBlock& hJJ,
                                        PairVector& gI, PairVector& gJ) {
        if (!qualified[size_t(pairSlot(i, j))]) return std::numeric_limits<double>::quiet_NaN();
        return sums[size_t(pairSlot(i, j))].blocks(scales, hII, hIJ, hJJ, gI, gJ);
    };

    const PairEvaluate evaluate = [&](int i, int j, const RT_<double>& poseI,
                                      const RT_<double>& poseJ) {
        const CompactFrame& source = run.sources[size_t(j)];
        const double geometric =
            centredPlaneErrorPass(source, run.records[size_t(i)], relativePose(poseI, poseJ),
                                  run.targetsOf(i, j), 0, source.size(), scales.meanGeometric);
        return scales.weightGeometric * scales.weightGeometric * geometric +
               sums[size_t(pairSlot(i, j))].photometricError(scales);
    };

    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, true, progress, pairsChanged,
                       options.parallel);
}

}  // namespace kestor
