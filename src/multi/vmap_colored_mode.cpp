// The coloured mode on image grids: one-sided point to plane plus the gray difference of the two
// matched pixels. Every pair is associated first, keeping its target pixels and its residuals'
// sums, so that each residual kind can be centred and scaled by its spread over the whole set;
// linearising a pair then forms its weighted rows from the kept pixels and sums them on the way
// instead of storing them.
#include <algorithm>
#include <cmath>
#include <limits>

#include "core/parallel_for.h"
#include "multi/colored_rows.h"
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
    VmapRun run(frames, true, true);
    // Whether a pair's first pass at the current poses scored above minScore with some match.
    std::vector<unsigned char> qualified(size_t(pairSlotCount(count)), 0);
    ColoredScales scales;
    std::vector<ResidualStats> slots(size_t(loopSlots(options.parallel)));

    const PairsChanged pairsChanged = [&](const FramePair* pairs, const unsigned char* active,
                                          int n) {
        std::fill(slots.begin(), slots.end(), ResidualStats{});
        runLoop(options.parallel, 0, n, [&](int begin, int end, int slot) {
            for (int p = begin; p < end; ++p) {
                if (!active[p]) continue;
                const int i = pairs[p].first, j = pairs[p].second;
                const CompactFrame& source = run.sources[size_t(j)];
                ResidualStats stats{};
                const int kept = coloredStatsPass(
                    source, run.records[size_t(i)], k, relativePose(poses[size_t(i)], poses[size_t(j)]),
                    test, 0, source.size(), run.targetsOf(i, j), stats);
                const bool taken = kept > 0 && matchScore(kept, source.size()) > options.minScore;
                qualified[size_t(pairSlot(i, j))] = taken;
                if (taken) addStats(slots[size_t(slot)], stats);
            }
        });
        scales.update(slots, options.colorWeight);
    };

    const PairLinearize linearize = [&](int i, int j, const RT_<double>& poseI,
                                        const RT_<double>& poseJ, PairBlock& hII, PairBlock& hIJ,
                                        PairBlock& hJJ, PairVector& gI, PairVector& gJ) {
        if (!qualified[size_t(pairSlot(i, j))]) return std::numeric_limits<double>::quiet_NaN();
        const CompactFrame& source = run.sources[size_t(j)];
        RowSums<6> sums;
        double error = 0.0;
        coloredRowsPass(source, run.records[size_t(i)], k, relativePose(poseI, poseJ), scales,
                        run.targetsOf(i, j), 0, source.size(), sums, error);
        sums.mirror();
        fillOneSided(sums, hII, hIJ, hJJ, gI, gJ);
        return error;
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
