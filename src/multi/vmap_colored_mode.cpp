// The coloured mode on image grids: one-sided point to plane plus the gray difference of the two
// matched pixels. When the pairs are announced, every pair is associated first, keeping its
// target pixels and its residuals' sums, so that each residual kind can be centred and scaled by
// its spread over the whole set; then each qualifying pair's weighted rows are formed from the
// kept pixels and summed on the way instead of being stored. Linearising a pair turns its sums
// into blocks.
#include <cmath>
#include <limits>

#include "core/parallel_for.h"
#include "multi/colored_rows.h"
#include "multi/pair_bands.h"
#include "multi/pair_sums.h"
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
    // Whether a pair's first pass at the current poses scored above minScore with some match,
    // and its rows at those poses.
    std::vector<unsigned char> qualified(run.targets.size(), 0);
    std::vector<PairSums<6>> rows(run.targets.size());
    ColoredScales scales;
    std::vector<RT_<float>> relative;
    SlotSums<PairStats> stats;
    SlotSums<PairSums<6>> partial;
    std::vector<unsigned char> taken;     // by pair index, for the announcement in hand
    std::vector<ResidualStats> totals;    // of the qualifying pairs

    // Both passes over all pairs, band by band: the residual sums first, then, with every kind
    // centred and scaled over the whole set, the rows of the pairs that qualified.
    const PairsChanged pairsChanged = [&](const FramePair* pairs, const unsigned char* active,
                                          int n) {
        relative.resize(size_t(n));
        for (int p = 0; p < n; ++p)
            relative[size_t(p)] = relativePose(poses[size_t(pairs[p].first)], poses[size_t(pairs[p].second)]);
        const int slots = loopSlots(options.parallel);
        stats.reset(slots, n);
        forPairBands(pairs, active, n, run, height, options.parallel,
                     [&](int p, int begin, int end, int slot) {
                         const int i = pairs[p].first, j = pairs[p].second;
                         PairStats& s = stats.at(slot, p);
                         s.kept += coloredStatsPass(run.sources[size_t(j)], run.records[size_t(i)], k,
                                                    relative[size_t(p)], test, begin, end,
                                                    run.targetsOf(i, j), s.stats);
                     });
        taken.assign(size_t(n), 0);
        totals.clear();
        for (int p = 0; p < n; ++p) {
            if (!active[p]) continue;
            const int i = pairs[p].first, j = pairs[p].second;
            const PairStats total = stats.total(p);
            taken[size_t(p)] =
                total.kept > 0 && matchScore(total.kept, run.sources[size_t(j)].size()) > options.minScore;
            qualified[size_t(pairSlot(i, j))] = taken[size_t(p)];
            if (taken[size_t(p)]) totals.push_back(total.stats);
        }
        scales.update(totals, options.colorWeight);
        partial.reset(slots, n);
        forPairBands(pairs, taken.data(), n, run, height, options.parallel,
                     [&](int p, int begin, int end, int slot) {
                         const int i = pairs[p].first, j = pairs[p].second;
                         PairSums<6>& s = partial.at(slot, p);
                         coloredRowsPass(run.sources[size_t(j)], run.records[size_t(i)], k,
                                         relative[size_t(p)], scales, run.targetsOf(i, j), begin,
                                         end, s.rows, s.error);
                     });
        for (int p = 0; p < n; ++p)
            if (taken[size_t(p)]) rows[size_t(pairSlot(pairs[p].first, pairs[p].second))] = partial.total(p);
    };

    const PairLinearize linearize = [&](int i, int j, const RT_<double>&, const RT_<double>&,
                                        PairBlock& hII, PairBlock& hIJ, PairBlock& hJJ,
                                        PairVector& gI, PairVector& gJ) {
        if (!qualified[size_t(pairSlot(i, j))]) return std::numeric_limits<double>::quiet_NaN();
        RowSums<6> sums = rows[size_t(pairSlot(i, j))].rows;
        sums.mirror();
        fillOneSided(sums, hII, hIJ, hJJ, gI, gJ);
        return rows[size_t(pairSlot(i, j))].error;
    };

    const PairEvaluate evaluate = [&](int i, int j, const RT_<double>& poseI,
                                      const RT_<double>& poseJ) {
        const CompactFrame& source = run.sources[size_t(j)];
        return coloredErrorPass(source, run.records[size_t(i)], relativePose(poseI, poseJ), scales,
                                run.targetsOf(i, j), 0, source.size());
    };

    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, true, progress, pairsChanged,
                       options.parallel);
}

}  // namespace kestor
