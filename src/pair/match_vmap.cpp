#include "pair/match_vmap.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/parallel_for.h"
#include "core/float3_lanes.h"
#include "pair/pair_solver_loop.h"
#include "pair/photometric_term.h"
#include "pair/pair_workspace.h"
#include "pair/projective_association.h"

namespace kestor {

namespace {

AssociationLimits limitsFor(double maxDistance, double maxAngle) {
    return AssociationLimits{maxDistance * maxDistance, std::cos(maxAngle)};
}

// Sum of the squared errors of the flagged pairs once the candidate moves the source points:
// |T' p - q|^2 (point form) or ((T' p - q) . n)^2 (plane form).
template <bool PlaneForm>
double rigidTrialError(const CompactSource& source, const PairArrays& pairs,
                       const RT_<float>& candidate, int begin, int end) {
    double sum = 0.0;
    int i = begin;
    if (PlaneForm) {
        __m256d laneSums = _mm256_setzero_pd();
        for (; i + 8 <= end; i += 8) {
            const size_t j = size_t(i);
            const __m256 in = flagLanes(&pairs.matchFlags[j]);
            if (_mm256_movemask_ps(in) == 0) continue;
            const Lanes3 moved = transformLanes(candidate, loadLanes(&source.points[j]));
            const Lanes3 d = differenceLanes(moved, loadLanes(&pairs.pairPoints[j]));
            const __m256 r = zeroOutside(dotLanes(d, loadLanes(&pairs.pairNormals[j])), in);
            const __m256d lo = _mm256_cvtps_pd(_mm256_castps256_ps128(r));
            const __m256d hi = _mm256_cvtps_pd(_mm256_extractf128_ps(r, 1));
            laneSums = _mm256_add_pd(laneSums, _mm256_add_pd(_mm256_mul_pd(lo, lo), _mm256_mul_pd(hi, hi)));
        }
        double lanes[4];
        _mm256_storeu_pd(lanes, laneSums);
        sum += (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
    }
    for (; i < end; ++i) {
        const size_t j = size_t(i);
        if (!pairs.matchFlags[j]) continue;
        const Float3& p = source.points[j];
        const Float3& q = pairs.pairPoints[j];
        const Float3 moved = transformPoint(candidate, p);
        const float dx = moved.x - q.x, dy = moved.y - q.y, dz = moved.z - q.z;
        if (PlaneForm) {
            const Float3& n = pairs.pairNormals[j];
            const double r = double(dx * n.x + dy * n.y + dz * n.z);
            sum += r * r;
        } else {
            sum += double(dx) * double(dx) + double(dy) * double(dy) + double(dz) * double(dz);
        }
    }
    return sum;
}

// The point and plane solvers: one pass associates and linearises at once.
template <bool PlaneForm>
struct RigidProblem {
    Intrinsics k;
    TargetMaps target;
    ImageView<const Float3> sourceVmap, sourceNmap;
    AssociationLimits limits;
    double minScore;
    bool parallel;

    PairWorkspaceLease lease;
    CompactSource& source = lease.get().source;
    PairArrays& pairs = lease.get().pairs;
    std::vector<SolverSlot>& slots = lease.get().slots;

    void prepare() {
        if (PlaneForm) {
            compactWithNormals(sourceVmap, sourceNmap, ImageView<const float>{}, source);
            pairs.resizePlane(source.size());
        } else {
            compactPoints(sourceVmap, source);
            pairs.resizePoint(source.size());
        }
        slots.resize(size_t(loopSlots(parallel)));
    }

    bool linearize(const RT_<float>& T, NormalEquations& total) {
        std::fill_n(pairs.matchFlags.begin(), source.size(), uint8_t(0));
        clearSlots(slots);
        runLoop(parallel, 0, source.size(), [&](int begin, int end, int slot) {
            NormalEquations& ne = slots[size_t(slot)].equations;
            if (PlaneForm)
                associatePlane(k, target, source, T, limits, pairs, begin, end, ne);
            else
                associatePoint(k, target, source, T, limits, pairs, begin, end, ne);
        });
        reduceEquations(slots);
        total = slots[0].equations;
        const double ratio = double(total.matchCount) / double(source.size());
        return !(minScore > ratio);
    }

    double trialError(const RT_<float>&, const RT_<float>& candidate) {
        for (SolverSlot& s : slots) s.trialError = 0.0;
        runLoop(parallel, 0, source.size(), [&](int begin, int end, int slot) {
            slots[size_t(slot)].trialError =
                rigidTrialError<PlaneForm>(source, pairs, candidate, begin, end);
        });
        return reduceTrialError(slots);
    }
};

// The coloured solver: points and normals are moved in bulk, then one pass associates and
// gathers residual statistics, and a second one adds the weighted rows.
struct ColoredProblem {
    Intrinsics k;
    TargetMaps target;
    ImageView<const Float3> sourceVmap, sourceNmap;
    ImageView<const float> sourceGray;
    AssociationLimits limits;
    double minScore;
    ColorBalance balance;
    bool parallel;

    PairWorkspaceLease lease;
    CompactSource& source = lease.get().source;
    PairArrays& pairs = lease.get().pairs;
    std::vector<Float3>& movedPoints = lease.get().movedPoints;
    std::vector<Float3>& movedNormals = lease.get().movedNormals;
    std::vector<SolverSlot>& slots = lease.get().slots;
    PhotometricScale scale{};

    void prepare() {
        compactWithNormals(sourceVmap, sourceNmap, sourceGray, source);
        pairs.resizeColored(source.size());
        if (movedPoints.size() < size_t(source.size())) movedPoints.resize(size_t(source.size()));
        if (movedNormals.size() < size_t(source.size())) movedNormals.resize(size_t(source.size()));
        slots.resize(size_t(loopSlots(parallel)));
    }

    bool linearize(const RT_<float>& T, NormalEquations& total) {
        const int n = source.size();
        std::fill_n(pairs.matchFlags.begin(), source.size(), uint8_t(0));
        clearSlots(slots);
        runLoop(parallel, 0, n, [&](int begin, int end, int) {
            transformPoints(T, source.points.data() + begin, movedPoints.data() + begin, end - begin);
            rotateNormals(T, source.normals.data() + begin, movedNormals.data() + begin, end - begin);
        });
        runLoop(parallel, 0, n, [&](int begin, int end, int slot) {
            associateColored(k, target, movedPoints.data(), movedNormals.data(),
                             source.gray.data(), limits, pairs, begin, end,
                             slots[size_t(slot)].stats);
        });
        reduceStats(slots);
        const double ratio = double(slots[0].stats.count) / double(n);
        if (minScore > ratio) return false;

        scale = photometricScale(slots[0].stats, balance);
        runLoop(parallel, 0, n, [&](int begin, int end, int slot) {
            addColoredRows(k, pairs, movedPoints.data(), scale, begin, end,
                           slots[size_t(slot)].equations);
        });
        reduceEquations(slots);
        total = slots[0].equations;
        return true;
    }

    double trialError(const RT_<float>& delta, const RT_<float>&) {
        for (SolverSlot& s : slots) s.trialError = 0.0;
        runLoop(parallel, 0, source.size(), [&](int begin, int end, int slot) {
            slots[size_t(slot)].trialError = coloredTrialError(
                k, pairs, movedPoints.data(), source.gray.data(), delta, scale, begin, end);
        });
        return reduceTrialError(slots);
    }
};

}  // namespace

bool matchVmapPoint(const Intrinsics& k, const ImageView<const Float3>& targetVmap,
                    const ImageView<const Float3>& sourceVmap, const ImageView<double>& pose,
                    int iterations, double maxDistance, double minScore, bool log,
                    const ProgressFunc& progress, bool parallel) {
    RigidProblem<false> problem;
    problem.k = k;
    problem.target.vmap = targetVmap;
    problem.sourceVmap = sourceVmap;
    problem.limits = limitsFor(maxDistance, 0.0);
    problem.minScore = minScore;
    problem.parallel = parallel;
    return runPairLoop(problem, pose, iterations, log, progress, PairLoopRules{true, false});
}

bool matchVmapPlane(const Intrinsics& k, const ImageView<const Float3>& targetVmap,
                    const ImageView<const Float3>& targetNmap,
                    const ImageView<const Float3>& sourceVmap,
                    const ImageView<const Float3>& sourceNmap, const ImageView<double>& pose,
                    int iterations, double maxDistance, double maxAngle, double minScore, bool log,
                    const ProgressFunc& progress, bool parallel) {
    RigidProblem<true> problem;
    problem.k = k;
    problem.target.vmap = targetVmap;
    problem.target.nmap = targetNmap;
    problem.sourceVmap = sourceVmap;
    problem.sourceNmap = sourceNmap;
    problem.limits = limitsFor(maxDistance, maxAngle);
    problem.minScore = minScore;
    problem.parallel = parallel;
    return runPairLoop(problem, pose, iterations, log, progress, PairLoopRules{false, false});
}

bool matchVmapColored(const Intrinsics& k, const ImageView<const Float3>& targetVmap,
                      const ImageView<const Float3>& targetNmap,
                      const ImageView<const float>& targetGray,
                      const ImageView<const float>& targetGradX,
                      const ImageView<const float>& targetGradY,
                      const ImageView<const Float3>& sourceVmap,
                      const ImageView<const Float3>& sourceNmap,
                      const ImageView<const float>& sourceGray, const ImageView<double>& pose,
                      int iterations, double maxDistance, double maxAngle, double minScore,
                      double colorWeight, bool log, const ProgressFunc& progress, bool parallel) {
    ColoredProblem problem;
    problem.k = k;
    problem.target = TargetMaps{targetVmap, targetNmap, targetGray, targetGradX, targetGradY};
    problem.sourceVmap = sourceVmap;
    problem.sourceNmap = sourceNmap;
    problem.sourceGray = sourceGray;
    problem.limits = limitsFor(maxDistance, maxAngle);
    problem.minScore = minScore;
    problem.balance = colorBalance(colorWeight);
    problem.parallel = parallel;
    return runPairLoop(problem, pose, iterations, log, progress, PairLoopRules{true, true});
}

}  // namespace kestor
