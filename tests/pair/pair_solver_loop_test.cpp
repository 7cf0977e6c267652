#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "pair/pair_solver_loop.h"

using namespace kestor;

namespace {

// A scripted problem: a quadratic in the x translation, error (tx - target)^2, so the
// Gauss-Newton step lands on the target.
struct ScriptedProblem {
    double target = 0.5;
    int failRatioAt = -1;           // linearize returns false at this call
    int raiseErrorAt = -1;          // trial error far above the current one at this call
    bool flipGradientSign = false;  // makes the predicted decrease negative
    int prepared = 0, linearized = 0;

    void prepare() { ++prepared; }
    bool linearize(const RT_<float>& T, NormalEquations& ne) {
        if (linearized++ == failRatioAt) return false;
        ne = NormalEquations{};
        for (int i = 0; i < 6; ++i) ne.hessian[i * 6 + i] = 1.0;
        // The residual is r = tx - target; the loop moves the pose by -x.
        const double r = double(T.translation[0]) - target;
        ne.gradient[3] = flipGradientSign ? -r : r;
        ne.errorSum = r * r + 1e-3;
        ne.matchCount = 10;
        return true;
    }
    double trialError(const RT_<float>&, const RT_<float>& candidate) {
        const double r = double(candidate.translation[0]) - target;
        return linearized - 1 == raiseErrorAt ? 1e9 : r * r + 1e-3;
    }
};

constexpr PairLoopRules kPoint{true, false}, kPlane{false, false}, kColored{true, true};

struct LoopCase {
    const char* name;
    PairLoopRules rules;
    int iterations;
    double target;
    int failRatioAt, raiseErrorAt;
    bool flip;
    int cancelAtReport;
    bool result;
    std::vector<int> reports;
    double tx;  // the pose's x translation afterwards, from 0.1
    int linearized, prepared;
};

}  // namespace

// The progress sequence (0 before preparing, then once per iteration head, 100 at the end),
// the accepted steps, each stop rule and where each solver sees a cancel. A failed run leaves
// the caller's pose exactly; a finished one writes it back in float rounding.
TEST(PairSolverLoop, ProgressStopRulesAndCancel) {
    const double f01 = double(0.1f), f05 = double(0.5f);
    const LoopCase cases[] = {
        {"converged", kPoint, 4, 0.1, -1, -1, false, -1, true, {0, 0, 25, 50, 75, 100}, f01, 4, 1},
        {"steps", kColored, 3, 0.5, -1, -1, false, -1, true, {0, 0, 33, 66, 100}, f05, 3, 1},
        {"steps plane", kPlane, 2, 0.5, -1, -1, false, -1, true, {0, 0, 50, 100}, f05, 2, 1},
        {"0 point", kPoint, 0, 0.5, -1, -1, false, -1, true, {0, 100}, f01, 0, 1},
        {"0 plane", kPlane, 0, 0.5, -1, -1, false, -1, true, {0, 100}, f01, 0, 1},
        {"0 coloured", kColored, 0, 0.5, -1, -1, false, -1, true, {0, 100}, f01, 0, 1},
        {"low ratio", kPlane, 5, 0.5, 1, -1, false, -1, false, {0, 0, 20}, 0.1, 2, 1},
        {"error rises", kColored, 5, 0.3, -1, 0, false, -1, true, {0, 0, 100}, f01, 1, 1},
        {"predicted < 0", kPoint, 5, 0.5, -1, -1, true, -1, true, {0, 0, 100}, f01, 1, 1},
        {"cancel first, point", kPoint, 3, 0.5, -1, -1, false, 0, false, {0}, 0.1, 0, 0},
        {"cancel first, plane", kPlane, 3, 0.5, -1, -1, false, 0, false, {0, 0}, 0.1, 0, 1},
        {"cancel last, plane", kPlane, 1, 0.5, -1, -1, false, 2, false, {0, 0, 100}, f05, 1, 1},
        {"cancel last, coloured", kColored, 1, 0.5, -1, -1, false, 2, false, {0, 0, 100}, 0.1, 1, 1},
    };
    for (const LoopCase& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedProblem p;
        p.target = c.target;
        p.failRatioAt = c.failRatioAt;
        p.raiseErrorAt = c.raiseErrorAt;
        p.flipGradientSign = c.flip;
        double pose[12] = {1, 0, 0, 0.1, 0, 1, 0, 0, 0, 0, 1, 0};
        std::vector<int> reports;
        const ProgressFunc progress = [&](int percent, bool& cancel) {
            if (int(reports.size()) == c.cancelAtReport) cancel = true;
            reports.push_back(percent);
        };
        EXPECT_EQ(runPairLoop(p, poseView(pose), c.iterations, false, progress, c.rules), c.result);
        EXPECT_EQ(reports, c.reports);
        EXPECT_EQ(pose[3], c.tx);
        EXPECT_EQ(p.linearized, c.linearized);
        EXPECT_EQ(p.prepared, c.prepared);
    }
}
