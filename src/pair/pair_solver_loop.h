#pragma once
#include <cstdint>

#include "core/image_view.h"
#include "core/log.h"
#include "core/progress.h"
#include "core/rigid_transform.h"
#include "pair/solve_dense.h"
#include "pair/solver_slots.h"

namespace kestor {

// Where the three pair solvers differ in the loop they share.
struct PairLoopRules {
    // A cancel at the first report returns at once (point, coloured); the plane solver only
    // notices it at the first loop head.
    bool returnOnFirstCancel;
    // The coloured solver reports 100 before writing the pose and writes nothing when cancelled
    // there; the others write first and then report.
    bool reportBeforeWrite;
};

inline void report(const ProgressFunc& progress, int percent, bool& cancel) {
    if (progress) progress(percent, cancel);
}

// The shared Gauss-Newton loop. `Problem` supplies:
//   void prepare()                                    compaction and allocation, once
//   bool linearize(const RT_<float>& T, NormalEquations& total)
//        association and normal equations at T, reduced over slots; false when the match ratio
//        falls below the run's minScore
//   double trialError(const RT_<float>& delta, const RT_<float>& candidate)
//        the error of this iteration's pairs after the step
template <class Problem>
bool runPairLoop(Problem& problem, const ImageView<double>& pose, int iterations, bool log,
                 const ProgressFunc& progress, const PairLoopRules& rules) {
    bool cancel = false;
    report(progress, 0, cancel);
    if (cancel && rules.returnOnFirstCancel) return false;
    problem.prepare();
    RT_<float> T = poseToFloat(pose);

    for (int k = 0; k < iterations; ++k) {
        report(progress, int((100 * int64_t(k)) / iterations), cancel);
        if (cancel) return false;
        NormalEquations ne;
        if (!problem.linearize(T, ne)) return false;

        const double oldError = ne.errorSum;
        double x[6];
        solveDense(ne.hessian, ne.gradient, x, 6);
        double predicted = 0.0;
        for (int i = 0; i < 6; ++i) predicted += x[i] * ne.gradient[i];
        if (0 > predicted) break;

        // The solution lowers the residual when the pose moves by -x; the rotation is exact.
        RT_<float> delta;
        eulerToRotation(-float(x[0]), -float(x[1]), -float(x[2]), delta.rotation);
        delta.translation[0] = -float(x[3]);
        delta.translation[1] = -float(x[4]);
        delta.translation[2] = -float(x[5]);
        RT_<float> candidate;
        composeRT(delta, T, candidate);

        const double newError = problem.trialError(delta, candidate);
        if (newError > oldError) break;
        if (log)
            KESTOR_LOG("%04d Iter: %7.7lf \t%7.7lf \t%7.7lf \tmatchNum: %d\n", k, oldError,
                       newError, predicted, ne.matchCount);
        T = candidate;
    }

    if (rules.reportBeforeWrite) {
        report(progress, 100, cancel);
        if (cancel) return false;
        poseFromFloat(T, pose);
        return true;
    }
    poseFromFloat(T, pose);
    report(progress, 100, cancel);
    return !cancel;
}

}  // namespace kestor
