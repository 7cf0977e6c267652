#pragma once
#include <cstdint>
#include <utility>
#include <vector>

#include "core/parallel_for.h"
#include "multi/align_frames.h"
#include "multi/colored_sums.h"
#include "multi/multi_options.h"
#include "multi/pair_pose.h"

namespace kestor {

// What the first pass of a coloured mode keeps of one pair at one linearisation point: the
// matches, which a trial prices again, and the sums of their rows and residuals.
struct PairRows {
    std::vector<std::pair<int32_t, int32_t>> matches;  // (source position, target position)
    ColoredSums sums;

    void clear();
    bool empty() const { return matches.empty(); }
    void add(int32_t source, int32_t target, float rg, const float* geometricRow, float rc,
             const float* photometricRow);
};

// The second pass: the pair's blocks from its sums, centred and weighted by `scales`, one-sided
// as the point-to-plane form; NaN for a pair with no rows.
double pairRowsHessian(const PairRows& rows, const ColoredScales& scales, PairBlock& hessianII,
                       PairBlock& hessianIJ, PairBlock& hessianJJ, PairVector& gradientI,
                       PairVector& gradientJ);

// The first pass over the active pairs, for `pairsChanged`: collect(i, j, rows) fills a pair's
// rows at the current poses and returns its score; pairs at or below minScore are emptied.
template <typename Collect>
void collectAllPairs(const FramePair* pairs, const unsigned char* active, int count,
                     std::vector<PairRows>& storage, double minScore, double colorWeight,
                     bool parallel, ColoredScales& scales, Collect&& collect) {
    std::vector<ResidualStats> slots(size_t(loopSlots(parallel)), ResidualStats{});
    runLoop(parallel, 0, count, [&](int begin, int end, int slot) {
        for (int k = begin; k < end; ++k) {
            if (!active[k]) continue;
            const int i = pairs[k].first, j = pairs[k].second;
            PairRows& rows = storage[size_t(pairSlot(i, j))];
            rows.clear();
            const double score = collect(i, j, rows);
            if (score > minScore)
                addStats(slots[size_t(slot)], rows.sums.stats());
            else
                rows.clear();
        }
    });
    scales.update(slots, colorWeight);
}

// The run of a coloured mode: every pair's rows are collected whenever the set of pairs changes,
// collect(i, j, T, rows) at relative pose T returning the pair's score; each pair is linearised
// from its stored rows; and a trial is priced over the stored matches, residuals(i, j, T, match,
// rg, rc) giving the geometric and photometric residual of one match at the trial pose.
template <typename Collect, typename Residuals>
bool alignColoredPairs(int count, std::vector<RT_<double>>& poses, const MultiOptions& options,
                       const ProgressFunc& progress, Collect&& collect, Residuals&& residuals) {
    std::vector<PairRows> storage(size_t(pairSlotCount(count)));
    ColoredScales scales;

    PairsChanged pairsChanged = [&](const FramePair* pairs, const unsigned char* active, int n) {
        collectAllPairs(pairs, active, n, storage, options.minScore, options.colorWeight,
                        options.parallel, scales, [&](int i, int j, PairRows& rows) {
                            return collect(i, j, relativePose(poses[size_t(i)], poses[size_t(j)]),
                                           rows);
                        });
    };

    PairLinearize linearize = [&](int i, int j, const RT_<double>&, const RT_<double>&,
                                  PairBlock& hII, PairBlock& hIJ, PairBlock& hJJ, PairVector& gI,
                                  PairVector& gJ) {
        return pairRowsHessian(storage[size_t(pairSlot(i, j))], scales, hII, hIJ, hJJ, gI, gJ);
    };

    PairEvaluate evaluate = [&](int i, int j, const RT_<double>& poseI, const RT_<double>& poseJ) {
        const RT_<float> T = relativePose(poseI, poseJ);
        const double wg2 = scales.weightGeometric * scales.weightGeometric;
        const double wc2 = scales.weightPhotometric * scales.weightPhotometric;
        double sum = 0.0;
        for (const auto& match : storage[size_t(pairSlot(i, j))].matches) {
            double rg = 0.0, rc = 0.0;
            residuals(i, j, T, match, rg, rc);
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
