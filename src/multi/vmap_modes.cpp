// The two plain modes on vertex maps: point to point and one-sided point to plane. Each pair
// keeps the target pixel matched to every valid source element (-1 for none) until its next
// linearisation, and the trial error reuses it. The rows of all pairs are formed band by band
// when the pairs are announced before each linearisation.
#include <cmath>
#include <limits>

#include "multi/align_frames.h"
#include "multi/pair_bands.h"
#include "multi/pair_sums.h"
#include "multi/vmap_modes.h"
#include "multi/vmap_pair_passes.h"
#include "multi/vmap_run.h"

namespace kestor {

namespace {

constexpr double kNotQualified = std::numeric_limits<double>::quiet_NaN();

ProjectiveTest projectiveTest(const MultiOptions& o, bool useNormals) {
    return ProjectiveTest{float(o.maxDistance * o.maxDistance), float(std::cos(o.maxAngle)),
                          useNormals};
}

template <int N>
using RowsPass = int (*)(const CompactFrame&, const TargetRecords&, const Intrinsics&,
                         const RT_<float>&, const ProjectiveTest&, int, int, int32_t*,
                         RowSums<N>&, double&);
using ErrorPass = double (*)(const CompactFrame&, const TargetRecords&, const RT_<float>&,
                             const int32_t*, int, int);

// The rows of every active pair, formed band by band when the pairs are announced, at the poses
// of that moment (the linearisation's); linearising a pair then only turns its sums into blocks.
// A pair at or below minScore gives NaN.
template <int N>
class BandedRows {
public:
    BandedRows(VmapRun& run, const std::vector<RT_<double>>& poses, const Intrinsics& k,
               const ProjectiveTest& test, const MultiOptions& options, int height,
               RowsPass<N> pass,
               void (*fill)(const RowSums<N>&, PairBlock&, PairBlock&, PairBlock&, PairVector&,
                            PairVector&))
        : run_(run), poses_(poses), k_(k), test_(test), minScore_(options.minScore),
          parallel_(options.parallel), height_(height), pass_(pass), fill_(fill),
          results_(run.targets.size()) {}

    void announce(const FramePair* pairs, const unsigned char* active, int count) {
        relative_.resize(size_t(count));
        for (int p = 0; p < count; ++p)
            relative_[size_t(p)] = relativePose(poses_[size_t(pairs[p].first)], poses_[size_t(pairs[p].second)]);
        partial_.reset(loopSlots(parallel_), count);
        forPairBands(pairs, active, count, run_, height_, parallel_,
                     [&](int p, int begin, int end, int slot) {
                         const int i = pairs[p].first, j = pairs[p].second;
                         PairSums<N>& s = partial_.at(slot, p);
                         s.kept += pass_(run_.sources[size_t(j)], run_.records[size_t(i)], k_,
                                         relative_[size_t(p)], test_, begin, end,
                                         run_.targetsOf(i, j), s.rows, s.error);
                     });
        for (int p = 0; p < count; ++p)
            if (active[p]) results_[size_t(pairSlot(pairs[p].first, pairs[p].second))] = partial_.total(p);
    }

    double linearize(int i, int j, PairBlock& hII, PairBlock& hIJ, PairBlock& hJJ, PairVector& gI,
                     PairVector& gJ) const {
        const PairSums<N>& r = results_[size_t(pairSlot(i, j))];
        if (!(matchScore(r.kept, run_.sources[size_t(j)].size()) > minScore_)) return kNotQualified;
        RowSums<N> sums = r.rows;
        sums.mirror();
        fill_(sums, hII, hIJ, hJJ, gI, gJ);
        return r.error;
    }

private:
    VmapRun& run_;
    const std::vector<RT_<double>>& poses_;
    const Intrinsics& k_;
    const ProjectiveTest test_;
    const double minScore_;
    const bool parallel_;
    const int height_;
    const RowsPass<N> pass_;
    void (*const fill_)(const RowSums<N>&, PairBlock&, PairBlock&, PairBlock&, PairVector&,
                        PairVector&);
    std::vector<RT_<float>> relative_;
    SlotSums<PairSums<N>> partial_;
    std::vector<PairSums<N>> results_;  // by pair slot
};

// Runs alignFrames with the banded rows of one plain mode.
template <int N>
bool alignBanded(BandedRows<N>& rows, const PairEvaluate& evaluate, int count,
                 std::vector<RT_<double>>& poses, const MultiOptions& options, bool onRight,
                 const ProgressFunc& progress) {
    const PairsChanged announce = [&rows](const FramePair* pairs, const unsigned char* active,
                                          int count) { rows.announce(pairs, active, count); };
    const PairLinearize linearize = [&rows](int i, int j, const RT_<double>&, const RT_<double>&,
                                            PairBlock& hII, PairBlock& hIJ, PairBlock& hJJ,
                                            PairVector& gI, PairVector& gJ) {
        return rows.linearize(i, j, hII, hIJ, hJJ, gI, gJ);
    };
    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, onRight, progress, announce,
                       options.parallel);
}

// The trial error of one pair over its kept targets, at the relative pose `relative` forms.
PairEvaluate evaluateWith(VmapRun& run,
                          RT_<float> (*relative)(const RT_<double>&, const RT_<double>&),
                          ErrorPass pass) {
    return [&run, relative, pass](int i, int j, const RT_<double>& poseI,
                                           const RT_<double>& poseJ) {
        const CompactFrame& source = run.sources[size_t(j)];
        return pass(source, run.records[size_t(i)], relative(poseI, poseJ), run.targetsOf(i, j), 0,
                    source.size());
    };
}

}  // namespace

bool alignVmaps(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                std::vector<RT_<double>>& poses, const MultiOptions& options,
                const ProgressFunc& progress) {
    if (frames.size() < 2) return false;
    VmapRun run(frames, false, false, options.parallel);
    BandedRows<12> rows(run, poses, k, projectiveTest(options, false), options, frames[0].vmap.height,
                        pointRowsPass, fillTwoSided);
    return alignBanded(rows, evaluateWith(run, relativePose, pointErrorPass), int(frames.size()),
                       poses, options, false, progress);
}

bool alignVmapNmaps(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                    std::vector<RT_<double>>& poses, const MultiOptions& options,
                    const ProgressFunc& progress) {
    if (frames.size() < 2) return false;
    VmapRun run(frames, true, false, options.parallel);
    BandedRows<6> rows(run, poses, k, projectiveTest(options, true), options, frames[0].vmap.height,
                       planeRowsPass, fillOneSided);
    return alignBanded(rows, evaluateWith(run, relativePoseInFloat, planeErrorPass),
                       int(frames.size()), poses, options, true, progress);
}

}  // namespace kestor
