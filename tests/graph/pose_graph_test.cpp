#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "kestor.h"
#include "support/synthetic_pose_graph.h"

using kestor_test::makeSyntheticPoseGraph;
using kestor_test::poseGraphAccuracy;
using kestor_test::SyntheticPoseGraph;

namespace {

SyntheticPoseGraph graphOf(int poseCount, unsigned seed = 1) {
    kestor_test::SyntheticGraphOptions o;
    o.poseCount = poseCount;
    o.seed = seed;
    return makeSyntheticPoseGraph(o);
}

// One run of the export from g.initial; `stopAt` is the index of the progress call that asks to
// stop. Weights start at -1, so unwritten ones show.
constexpr int kNoProgress = -2;

struct Solved {
    std::vector<double> poses, weights, posesAt100;  // the caller's poses as the call of 100 sees them
    std::vector<int> progress;
    int stopAt = -1;
};

Solved solve(const SyntheticPoseGraph& g, int iterations, int stopAt = -1, bool threads = false,
          double prune = 0.25, double scale = 0.1, bool verbose = false) {
    Solved r{g.initial, std::vector<double>(size_t(g.edgeCount), -1.0), {}, {}, stopAt};
    const auto record = [](int percent, bool* stop, void* user) {
        auto* run = static_cast<Solved*>(user);
        *stop = int(run->progress.size()) == run->stopAt;
        run->progress.push_back(percent);
        if (percent == 100) run->posesAt100 = run->poses;
    };
    EXPECT_EQ(KESTOROptimizePoseGraph(g.pairs.data(), g.transforms.data(), g.information.data(),
                                      g.flags.empty() ? nullptr : g.flags.data(), r.weights.data(),
                                      g.edgeCount, r.poses.data(), g.poseCount, iterations, 1.0,
                                      scale, prune, threads, verbose,
                                      stopAt == kNoProgress ? nullptr : +record, &r),
              0);
    return r;
}

void expectNear(const std::vector<double>& a, const std::vector<double>& b, double tolerance) {
    for (size_t k = 0; k < a.size(); ++k) EXPECT_NEAR(a[k], b.at(k), tolerance) << k;
}

}  // namespace

TEST(PoseGraph, WrongLoopEdgesSwitchOffAndPosesReturnToTruth) {
    const SyntheticPoseGraph g = graphOf(300);
    const Solved r = solve(g, 100, kNoProgress, true);  // a null progress never stops the run
    EXPECT_EQ(std::memcmp(r.poses.data(), g.initial.data(), 12 * sizeof(double)), 0);
    const auto after = poseGraphAccuracy(r.poses, g.truth);
    EXPECT_LT(after.rmsTranslation, std::min(0.02, poseGraphAccuracy(g.initial, g.truth).rmsTranslation / 3));
    EXPECT_LT(after.meanRotation, 0.005);
    int wrong = 0, right = 0;
    for (int e = 0; e < g.edgeCount; ++e) {
        const bool isWrong = g.flags[e] != 255 && g.isWrong[e];
        wrong += isWrong;
        right += g.flags[e] != 255 && !isWrong;
        const double weight = r.weights[e];
        EXPECT_TRUE(g.flags[e] == 255 ? weight == 1 : isWrong ? weight < 0.05 : weight > 0.7) << e;
    }
    EXPECT_GT(wrong, 3);
    EXPECT_GT(right, 10);
}

TEST(PoseGraph, UnreachedPoseSurvivesThroughTheDenseFallbackSerialOrParallel) {
    // One more pose that no active edge reaches: a flag-0 edge to it and an edge naming pose
    // poseCount are left out, with their weights unwritten. Threaded runs agree to rounding.
    SyntheticPoseGraph g = graphOf(60);
    const double lonely[12] = {0, -1, 0, 5, 1, 0, 0, 6, 0, 0, 1, 7};
    g.initial.insert(g.initial.end(), lonely, lonely + 12);
    for (int pair : {g.poseCount, 0, 3, g.poseCount + 1}) g.pairs.push_back(pair);
    for (int k = 0; k < 2; ++k) {
        g.transforms.insert(g.transforms.end(), lonely, lonely + 12);
        g.information.insert(g.information.end(), g.information.begin(), g.information.begin() + 36);
    }
    g.flags.insert(g.flags.end(), {0, 127});
    g.poseCount += 1;
    g.edgeCount += 2;
    Solved r = solve(g, 30);
    const int saved = KESTORGetThreadNum();
    KESTORSetThreadNum(3);  // several slots even on a small machine
    const Solved parallel = solve(g, 30, -1, true);
    KESTORSetThreadNum(saved);
    expectNear(parallel.poses, r.poses, 1e-9);
    expectNear(parallel.weights, r.weights, 1e-9);
    EXPECT_EQ(r.weights[g.edgeCount - 2] + r.weights[g.edgeCount - 1], -2.0);
    // The lonely pose only follows the final re-basing, which is close to the identity here.
    for (int e = 0; e < 12; ++e) EXPECT_NEAR(r.poses[size_t(g.poseCount - 1) * 12 + e], lonely[e], 0.05);
    r.poses.resize(r.poses.size() - 12);
    EXPECT_LT(poseGraphAccuracy(r.poses, g.truth).rmsTranslation, 0.02);
}

TEST(PoseGraph, ProgressSequenceAndStops) {
    const SyntheticPoseGraph g = graphOf(100);
    EXPECT_EQ(solve(g, 3).progress, (std::vector<int>{0, 0, 33, 66, 100}));
    // A converged run: start, one call per iteration that started, 100; it ends on the converged
    // flag (one call after the last printed iteration) or on a vanishing predicted step.
    testing::internal::CaptureStdout();
    const Solved converged = solve(g, 1000, -1, false, 0.25, 0.1, true);
    const std::string out = testing::internal::GetCapturedStdout();
    size_t lines = 0;
    for (size_t at = 0; (at = out.find("[KESTOR INFO] \tIter ", at)) != std::string::npos; ++at) ++lines;
    EXPECT_NE(out.find("[KESTOR INFO] \tIter    0: \t"), std::string::npos);
    const std::vector<int>& calls = converged.progress;
    ASSERT_GE(calls.size(), lines + 2);
    EXPECT_LE(calls.size(), lines + 3);
    EXPECT_LT(calls.size(), 1000u);
    EXPECT_EQ(calls.back(), 100);
    for (size_t k = 1; k + 1 < calls.size(); ++k) EXPECT_EQ(calls[k], int((k - 1) / 10));

    struct Case {
        int iterations, stopAt;
        bool posesKept, weightsWritten;
    };
    // No iteration: one linearisation writes the weights and the poses move only by the
    // rounding of the re-basing. A stop before 100 discards the result, even the one asked in
    // the converged run's last call; a stop at 100 comes after the poses are written.
    for (const Case c : {Case{0, -1, false, true}, Case{10, 0, true, false}, Case{10, 3, true, true},
                         Case{1000, int(calls.size()) - 2, true, true}, Case{3, 4, false, true}}) {
        SCOPED_TRACE(c.stopAt);
        const Solved r = solve(g, c.iterations, c.stopAt);
        EXPECT_EQ(r.progress.size(), c.stopAt >= 0 ? size_t(c.stopAt) + 1 : 2u);
        if (c.posesKept) {
            EXPECT_EQ(r.poses, g.initial);
        } else if (c.iterations == 0) {
            expectNear(r.poses, g.initial, 1e-12);
        } else {
            EXPECT_GT(poseGraphAccuracy(r.poses, g.initial).rmsTranslation, 1e-6);
        }
        EXPECT_EQ(std::memcmp(r.poses.data(), g.initial.data(), 12 * sizeof(double)), 0);
        // The call of 100 comes with the poses already written, even when it stops the run.
        if (r.progress.back() == 100) {
            EXPECT_EQ(r.posesAt100, r.poses);
        }
        for (double w : r.weights) EXPECT_EQ(w >= 0.0, c.weightsWritten);
    }
}

TEST(PoseGraph, FlagsAndNotANumber) {
    SyntheticPoseGraph g = graphOf(60);
    // A threshold above 1 prunes even trusted edges.
    for (double w : solve(g, 0, -1, false, 1.5).weights) EXPECT_EQ(w, 0.0);
    SyntheticPoseGraph off = g;  // all edges off: the poses stay up to rounding, no weight written
    off.flags.assign(off.flags.size(), 0);
    const Solved none = solve(off, 10);
    expectNear(none.poses, g.initial, 1e-12);
    for (double w : none.weights) EXPECT_EQ(w, -1.0);
    SyntheticPoseGraph robust = g;  // null flags: every edge robust, none keeps a 255's weight
    robust.flags.clear();
    robust.initial = g.truth;
    for (double w : solve(robust, 0, -1, false, 0.0, 1e-9).weights) EXPECT_LT(w, 0.5);
    g.transforms[12 * 5 + 3] = std::nan("");  // a not-a-number step leaves the poses unwritten
    EXPECT_EQ(solve(g, 10).poses, g.initial);
}
