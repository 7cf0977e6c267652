#include "pair/point_set_solver.h"

#include <cmath>

#include "core/log.h"
#include "pair/solve_dense.h"

namespace kestor {

RT_<double> applyBothSidedStep(const RT_<double>& T, const double* x) {
    RT_<double> B, A;
    eulerToRotation(x[0], x[1], x[2], B.rotation);
    B.translation[0] = x[3];
    B.translation[1] = x[4];
    B.translation[2] = x[5];
    eulerToRotation(-x[6], -x[7], -x[8], A.rotation);
    A.translation[0] = -x[9];
    A.translation[1] = -x[10];
    A.translation[2] = -x[11];
    RT_<double> TA, candidate;
    composeRT(T, A, TA);
    composeRT(B, TA, candidate);
    return candidate;
}

namespace {

RT_<float> narrow(const RT_<double>& T) {
    RT_<float> f;
    for (int i = 0; i < 9; ++i) f.rotation[i] = float(T.rotation[i]);
    for (int i = 0; i < 3; ++i) f.translation[i] = float(T.translation[i]);
    return f;
}

// [TT, TS; TS^T, SS] and (gT, gS).
void assembleSystem(const PointLinearization& lin, double* H, double* g) {
    for (int i = 0; i < 6; ++i) {
        for (int j = 0; j < 6; ++j) {
            H[i * 12 + j] = lin.hessianTT[i * 6 + j];
            H[i * 12 + 6 + j] = lin.hessianTS[i * 6 + j];
            H[(6 + i) * 12 + j] = lin.hessianTS[j * 6 + i];
            H[(6 + i) * 12 + 6 + j] = lin.hessianSS[i * 6 + j];
        }
        g[i] = lin.gradientT[i];
        g[6 + i] = lin.gradientS[i];
    }
}

}  // namespace

bool runPointSetSolver(const ImageView<double>& pose, int sourceCount, int iterations,
                       double minScore, bool log, const ProgressFunc& progress,
                       const PointSetLinearize& linearize, const PointSetTrialError& trialError) {
    PointLinearization lin;
    lin.correspondences.assign(size_t(sourceCount > 0 ? sourceCount : 0), -1);
    bool cancel = false;
    for (int k = 0; k < iterations; ++k) {
        if (progress) progress(int((100LL * k) / iterations), cancel);
        if (cancel) return false;

        const RT_<double> T = poseToDouble(pose);
        const double oldError = linearize(poseToFloat(pose), lin);
        if (std::isnan(oldError) || minScore > lin.score) return false;

        double H[144], g[12], x[12];
        assembleSystem(lin, H, g);
        // A singular system is not caught here: its NaN or infinite step is judged below by
        // the predicted decrease and the trial error.
        solveDense(H, g, x, 12);
        double predicted = 0.0;
        for (int i = 0; i < 12; ++i) predicted += x[i] * g[i];
        if (0.0 > predicted) break;

        const RT_<double> candidate = applyBothSidedStep(T, x);
        const double newError = trialError(narrow(candidate), lin.correspondences.data());
        if (newError > oldError) break;
        if (log)
            KESTOR_LOG("%04d Iter: %7.7lf \t%7.7lf \t%7.7lf\n", k, oldError, newError, predicted);
        poseFromDouble(candidate, pose);
    }
    if (progress) progress(100, cancel);
    return !cancel;
}

}  // namespace kestor
