// The two plain modes on vertex maps: point to point and one-sided point to plane. Each pair
// keeps the target pixel matched to every valid source element (-1 for none) until its next
// linearisation, and the trial error reuses it.
#include <cmath>
#include <limits>

#include "multi/align_frames.h"
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

// The blocks of one pair from a rows pass over the whole source; fill turns the mirrored sums
// into the pair's blocks. A pair at or below minScore gives NaN.
template <int N>
PairLinearize linearizeWith(VmapRun& run,
                            const Intrinsics& k, const ProjectiveTest& test, double minScore,
                            RowsPass<N> pass,
                            void (*fill)(const RowSums<N>&, PairBlock&, PairBlock&, PairBlock&,
                                         PairVector&, PairVector&)) {
    return [&run, &k, test, minScore, pass, fill](
               int i, int j, const RT_<double>& poseI, const RT_<double>& poseJ, PairBlock& hII,
               PairBlock& hIJ, PairBlock& hJJ, PairVector& gI, PairVector& gJ) {
        const CompactFrame& source = run.sources[size_t(j)];
        RowSums<N> sums;
        double error = 0.0;
        const int kept = pass(source, run.records[size_t(i)], k, relativePose(poseI, poseJ), test, 0,
                              source.size(), run.targetsOf(i, j), sums, error);
        if (!(matchScore(kept, source.size()) > minScore)) return kNotQualified;
        sums.mirror();
        fill(sums, hII, hIJ, hJJ, gI, gJ);
        return error;
    };
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
    const int count = int(frames.size());
    if (count < 2) return false;
    VmapRun run(frames, false, false);
    const PairLinearize linearize = linearizeWith<12>(
        run, k, projectiveTest(options, false), options.minScore, pointRowsPass,
        fillTwoSided);
    const PairEvaluate evaluate = evaluateWith(run, relativePose, pointErrorPass);
    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, false, progress, PairsChanged(),
                       options.parallel);
}

bool alignVmapNmaps(const std::vector<FrameMaps>& frames, const Intrinsics& k,
                    std::vector<RT_<double>>& poses, const MultiOptions& options,
                    const ProgressFunc& progress) {
    const int count = int(frames.size());
    if (count < 2) return false;
    VmapRun run(frames, true, false);
    const PairLinearize linearize = linearizeWith<6>(
        run, k, projectiveTest(options, true), options.minScore, planeRowsPass,
        fillOneSided);
    const PairEvaluate evaluate = evaluateWith(run, relativePoseInFloat, planeErrorPass);
    return alignFrames(linearize, evaluate, poses.data(), count, options.iterations,
                       options.refreshInterval, options.log, true, progress, PairsChanged(),
                       options.parallel);
}

}  // namespace kestor
