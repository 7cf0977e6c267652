#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "pair/pair_solver_loop.h"

using namespace kestor;

namespace {

// A scripted problem: a 1-D quadratic in the x translation, error (tx - target)^2 * weight, so the
// Gauss-Newton step lands on the target. The trial error can be overridden per iteration.
struct ScriptedProblem {
    double target = 0.5;
    int failRatioAt = -1;            // linearize returns false at this call
    int raiseErrorAt = -1;           // trial error reported above the current one at this call
    bool flipGradientSign = false;   // makes the predicted decrease negative
    int prepared = 0, linearized = 0;
    std::vector<float> seenTx;

    void prepare() { ++prepared; }
    bool linearize(const RT_<float>& T, NormalEquations& ne) {
        const int call = linearized++;
        seenTx.push_back(T.translation[0]);
        if (call == failRatioAt) return false;
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
        if (linearized - 1 == raiseErrorAt) return 1e9;
        return r * r + 1e-3;
    }
};

struct LoopRun {
    bool result;
    std::vector<int> reports;
    double pose[12];
};

constexpr PairLoopRules kPoint{true, false}, kPlane{false, false}, kColored{true, true};

LoopRun run(ScriptedProblem& problem, int iterations, const PairLoopRules& rules,
        int cancelAtReport = -1) {
    LoopRun r;
    const double start[12] = {1, 0, 0, 0.1, 0, 1, 0, 0, 0, 0, 1, 0};
    std::copy(start, start + 12, r.pose);
    ProgressFunc progress = [&](int percent, bool& cancel) {
        if (int(r.reports.size()) == cancelAtReport) cancel = true;
        r.reports.push_back(percent);
    };
    r.result = runPairLoop(problem, poseView(r.pose), iterations, false, progress, rules);
    return r;
}

}  // namespace

TEST(PairSolverLoop, ReportsZeroTwiceThenEachIterationThenHundred) {
    ScriptedProblem p;
    p.target = 0.1;  // already there: each step is zero, the error never rises
    const LoopRun r = run(p, 4, kPoint);
    EXPECT_TRUE(r.result);
    EXPECT_EQ(r.reports, (std::vector<int>{0, 0, 25, 50, 75, 100}));
    EXPECT_EQ(p.prepared, 1);
    EXPECT_EQ(p.linearized, 4);
    ScriptedProblem q;
    EXPECT_EQ(run(q, 3, kColored).reports, (std::vector<int>{0, 0, 33, 66, 100}));
}

TEST(PairSolverLoop, TakesTheGaussNewtonStepAndWritesTheFloatPose) {
    ScriptedProblem p;
    const LoopRun r = run(p, 2, kPlane);
    EXPECT_TRUE(r.result);
    EXPECT_EQ(r.pose[3], double(0.5f));
    EXPECT_EQ(p.seenTx, (std::vector<float>{0.1f, 0.5f}));
}

TEST(PairSolverLoop, ZeroIterationsRewritesThePoseInFloatRounding) {
    for (const PairLoopRules& rules : {kPoint, kPlane, kColored}) {
        ScriptedProblem p;
        const LoopRun r = run(p, 0, rules);
        EXPECT_TRUE(r.result);
        EXPECT_EQ(r.reports, (std::vector<int>{0, 100}));
        EXPECT_EQ(r.pose[3], double(0.1f));
        EXPECT_NE(r.pose[3], 0.1);
        EXPECT_EQ(p.linearized, 0);
    }
}

TEST(PairSolverLoop, ALowMatchRatioFailsWithThePoseUntouchedAndNoMoreReports) {
    ScriptedProblem p;
    p.failRatioAt = 1;
    const LoopRun r = run(p, 5, kPlane);
    EXPECT_FALSE(r.result);
    EXPECT_EQ(r.pose[3], 0.1);  // not even the float rounding of the accepted first step
    EXPECT_EQ(r.reports, (std::vector<int>{0, 0, 20}));
}

TEST(PairSolverLoop, AStepThatRaisesTheErrorEndsTheRunWithTheLastPose) {
    ScriptedProblem p;
    p.target = 0.3;
    p.raiseErrorAt = 0;
    LoopRun r = run(p, 5, kColored);
    EXPECT_TRUE(r.result);
    EXPECT_EQ(r.pose[3], double(0.1f));
    EXPECT_EQ(p.linearized, 1);
    EXPECT_EQ(r.reports, (std::vector<int>{0, 0, 100}));

    ScriptedProblem q;
    q.flipGradientSign = true;  // predicted decrease below 0
    r = run(q, 5, kPoint);
    EXPECT_TRUE(r.result);
    EXPECT_EQ(r.pose[3], double(0.1f));
    EXPECT_EQ(q.linearized, 1);
}

TEST(PairSolverLoop, CancelAtTheFirstReportDiffersOnlyInWhereItIsSeen) {
    ScriptedProblem a, b;
    LoopRun r = run(a, 3, kPoint, 0);
    EXPECT_FALSE(r.result);
    EXPECT_EQ(r.reports, (std::vector<int>{0}));
    EXPECT_EQ(a.prepared, 0);
    // The plane solver prepares and stops at the first loop head.
    r = run(b, 3, kPlane, 0);
    EXPECT_FALSE(r.result);
    EXPECT_EQ(r.reports, (std::vector<int>{0, 0}));
    EXPECT_EQ(b.prepared, 1);
    EXPECT_EQ(b.linearized, 0);
    EXPECT_EQ(r.pose[3], 0.1);
}

TEST(PairSolverLoop, CancelAtTheFinalReportWritesThePoseOnlyInThePointAndPlaneForms) {
    ScriptedProblem a, b;
    LoopRun r = run(a, 1, kPlane, 2);
    EXPECT_FALSE(r.result);
    EXPECT_EQ(r.pose[3], double(0.5f));
    r = run(b, 1, kColored, 2);
    EXPECT_FALSE(r.result);
    EXPECT_EQ(r.pose[3], 0.1);
}
