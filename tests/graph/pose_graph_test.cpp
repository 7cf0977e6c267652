#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "graph/pose_graph.h"
#include "kestor.h"
#include "support/synthetic_pose_graph.h"

using kestor_test::makeSyntheticPoseGraph;
using kestor_test::poseGraphAccuracy;
using kestor_test::SyntheticGraphOptions;
using kestor_test::SyntheticPoseGraph;

namespace {

struct Solved {
    std::vector<double> poses, weights;
    int status = -1;
};

Solved solve(const SyntheticPoseGraph& g, int maxIterations, bool useThreads,
          double pruneThreshold = 0.25, KESTORProgressFunc progress = nullptr,
          void* context = nullptr) {
    Solved r;
    r.poses = g.initial;
    r.weights.assign(size_t(g.edgeCount), -1.0);
    r.status = KESTOROptimizePoseGraph(g.pairs.data(), g.transforms.data(), g.information.data(),
                                       g.flags.data(), r.weights.data(), g.edgeCount,
                                       r.poses.data(), g.poseCount, maxIterations, 1.0, 0.1,
                                       pruneThreshold, useThreads, false, progress, context);
    return r;
}

struct ProgressLog {
    std::vector<int> values;
    int stopAtCall = -1;  // index of the call that asks to stop
};

void recordProgress(int percent, bool* stop, void* user) {
    auto* log = static_cast<ProgressLog*>(user);
    if (int(log->values.size()) == log->stopAtCall) *stop = true;
    log->values.push_back(percent);
}

}  // namespace

TEST(PoseGraph, WrongLoopEdgesSwitchOffAndPosesReturnToTruth) {
    SyntheticGraphOptions o;
    o.poseCount = 300;
    const SyntheticPoseGraph g = makeSyntheticPoseGraph(o);
    const auto before = poseGraphAccuracy(g.initial, g.truth);
    const Solved r = solve(g, 100, true);
    ASSERT_EQ(r.status, 0);
    const auto after = poseGraphAccuracy(r.poses, g.truth);
    EXPECT_LT(after.rmsTranslation, 0.02);
    EXPECT_LT(after.rmsTranslation, before.rmsTranslation / 3);
    EXPECT_LT(after.meanRotation, 0.005);
    int wrong = 0, right = 0;
    for (int e = 0; e < g.edgeCount; ++e) {
        if (g.flags[e] == 255) {
            EXPECT_EQ(r.weights[e], 1.0);
        } else if (g.isWrong[e]) {
            ++wrong;
            EXPECT_LT(r.weights[e], 0.05) << e;
        } else {
            ++right;
            EXPECT_GT(r.weights[e], 0.7) << e;
        }
    }
    EXPECT_GT(wrong, 3);
    EXPECT_GT(right, 10);
    EXPECT_EQ(std::memcmp(r.poses.data(), g.initial.data(), 12 * sizeof(double)), 0);
}

TEST(PoseGraph, ParallelAndSerialAgreeToRounding) {
    SyntheticGraphOptions o;
    o.poseCount = 120;
    o.seed = 3;
    const SyntheticPoseGraph g = makeSyntheticPoseGraph(o);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(3);  // several slots even on a small machine
    const Solved parallel = solve(g, 20, true);
    omp_set_num_threads(saved);
    const Solved serial = solve(g, 20, false);
    for (size_t k = 0; k < parallel.poses.size(); ++k)
        EXPECT_NEAR(parallel.poses[k], serial.poses[k], 1e-9) << k;
    for (int e = 0; e < g.edgeCount; ++e) EXPECT_NEAR(parallel.weights[e], serial.weights[e], 1e-9);
}

TEST(PoseGraph, UnreachedPoseSurvivesThroughTheDenseFallback) {
    SyntheticGraphOptions o;
    o.poseCount = 60;
    SyntheticPoseGraph g = makeSyntheticPoseGraph(o);
    // One more pose that no active edge reaches: a flag-0 edge to it and an edge whose index is
    // poseCount; both must be left out.
    const int extra = g.poseCount;
    const double lonely[12] = {0, -1, 0, 5, 1, 0, 0, 6, 0, 0, 1, 7};
    g.truth.insert(g.truth.end(), lonely, lonely + 12);
    g.initial.insert(g.initial.end(), lonely, lonely + 12);
    g.poseCount += 1;
    for (int pair : {extra, 0, 3, extra + 1}) g.pairs.push_back(pair);
    for (int k = 0; k < 2; ++k) {
        g.transforms.insert(g.transforms.end(), lonely, lonely + 12);
        g.information.insert(g.information.end(), g.information.begin(), g.information.begin() + 36);
    }
    g.flags.push_back(0);
    g.flags.push_back(127);
    g.edgeCount += 2;

    const Solved r = solve(g, 30, false);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.weights[g.edgeCount - 2], -1.0);  // inactive edges keep their entries
    EXPECT_EQ(r.weights[g.edgeCount - 1], -1.0);
    // The lonely pose only follows the final re-basing, which is close to the identity here.
    for (int e = 0; e < 12; ++e) {
        const double v = r.poses[size_t(extra) * 12 + e];
        ASSERT_TRUE(std::isfinite(v));
        EXPECT_NEAR(v, lonely[e], 0.05);
    }
    g.truth.resize(g.truth.size() - 12);
    std::vector<double> rest(r.poses.begin(), r.poses.end() - 12);
    EXPECT_LT(poseGraphAccuracy(rest, g.truth).rmsTranslation, 0.02);
}

TEST(PoseGraph, ProgressSequenceAndZeroIterations) {
    SyntheticGraphOptions o;
    o.poseCount = 300;
    const SyntheticPoseGraph g = makeSyntheticPoseGraph(o);
    ProgressLog log;
    solve(g, 3, false, 0.25, recordProgress, &log);
    EXPECT_EQ(log.values, (std::vector<int>{0, 0, 33, 66, 100}));

    // No iteration: one linearisation writes the weights, the poses move only by the rounding
    // of the re-basing, and the progress says 0 and 100.
    ProgressLog none;
    const Solved r = solve(g, 0, false, 0.25, recordProgress, &none);
    EXPECT_EQ(none.values, (std::vector<int>{0, 100}));
    for (int e = 0; e < g.edgeCount; ++e) EXPECT_GE(r.weights[e], 0.0);
    for (size_t k = 0; k < r.poses.size(); ++k) EXPECT_NEAR(r.poses[k], g.initial[k], 1e-12);
    EXPECT_EQ(std::memcmp(r.poses.data(), g.initial.data(), 12 * sizeof(double)), 0);
}

TEST(PoseGraph, ConvergedRunStillMakesOneMoreProgressCall) {
    SyntheticGraphOptions o;
    o.poseCount = 100;
    const SyntheticPoseGraph g = makeSyntheticPoseGraph(o);
    ProgressLog log;
    testing::internal::CaptureStdout();
    std::vector<double> poses = g.initial;
    KESTOROptimizePoseGraph(g.pairs.data(), g.transforms.data(), g.information.data(),
                            g.flags.data(), nullptr, g.edgeCount, poses.data(), g.poseCount, 1000,
                            1.0, 0.1, 0.25, false, true, recordProgress, &log);
    const std::string out = testing::internal::GetCapturedStdout();
    int lines = 0;
    for (size_t at = out.find("[KESTOR INFO] \tIter "); at != std::string::npos;
         at = out.find("[KESTOR INFO] \tIter ", at + 1))
        ++lines;
    ASSERT_GT(lines, 0);
    EXPECT_NE(out.find("[KESTOR INFO] \tIter    0: \t"), std::string::npos);
    // Start, one call per iteration that started, 100. The run ends either on the converged flag
    // (one call after the last printed iteration) or on a vanishing predicted step (no line).
    ASSERT_GE(log.values.size(), size_t(lines) + 2);
    EXPECT_LE(log.values.size(), size_t(lines) + 3);
    EXPECT_EQ(log.values.back(), 100);
    EXPECT_LT(log.values.size(), 1000u);
    for (size_t k = 1; k + 1 < log.values.size(); ++k) EXPECT_EQ(log.values[k], int((k - 1) / 10));

    // A stop asked in that last iteration call still discards the whole result.
    ProgressLog late;
    late.stopAtCall = int(log.values.size()) - 2;
    poses = g.initial;
    KESTOROptimizePoseGraph(g.pairs.data(), g.transforms.data(), g.information.data(),
                            g.flags.data(), nullptr, g.edgeCount, poses.data(), g.poseCount, 1000,
                            1.0, 0.1, 0.25, false, false, recordProgress, &late);
    EXPECT_EQ(late.values.size(), log.values.size() - 1);
    EXPECT_EQ(poses, g.initial);
}

TEST(PoseGraph, StopRequests) {
    SyntheticGraphOptions o;
    o.poseCount = 100;
    const SyntheticPoseGraph g = makeSyntheticPoseGraph(o);

    ProgressLog first;
    first.stopAtCall = 0;
    Solved r = solve(g, 10, false, 0.25, recordProgress, &first);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(first.values, (std::vector<int>{0}));
    EXPECT_EQ(r.poses, g.initial);
    for (double w : r.weights) EXPECT_EQ(w, -1.0);

    // A stop inside the loop leaves the poses as given; the weights show the last linearisation.
    ProgressLog middle;
    middle.stopAtCall = 3;
    r = solve(g, 10, false, 0.25, recordProgress, &middle);
    EXPECT_EQ(middle.values.size(), 4u);
    EXPECT_EQ(r.poses, g.initial);
    for (double w : r.weights) EXPECT_GE(w, 0.0);

    // A stop asked at 100 comes after the poses are written: only the worker's result changes.
    std::vector<kestor::NodePair> pairs;
    std::vector<kestor::RT_<double>> transforms, poses;
    std::vector<kestor::InformationMatrix> information(size_t(g.edgeCount));
    for (int e = 0; e < g.edgeCount; ++e) {
        pairs.push_back({g.pairs[2 * e], g.pairs[2 * e + 1]});
        transforms.push_back(kestor::poseToDouble(kestor::poseView(const_cast<double*>(&g.transforms[12 * e]))));
        std::memcpy(information[e].data(), &g.information[36 * e], 36 * sizeof(double));
    }
    for (int k = 0; k < g.poseCount; ++k)
        poses.push_back(kestor::poseToDouble(kestor::poseView(const_cast<double*>(&g.initial[12 * k]))));
    const auto moved = poses;
    const bool finished = kestor::optimizePoseGraph(
        pairs.data(), transforms.data(), information.data(), g.flags.data(), nullptr, g.edgeCount,
        poses.data(), g.poseCount, 0.1, 1.0, 50, 0.25, false,
        [](int percent, bool& stop) { stop = percent == 100; }, false);
    EXPECT_FALSE(finished);
    EXPECT_NE(std::memcmp(poses.data() + 1, moved.data() + 1, sizeof(poses[0])), 0);
    EXPECT_EQ(std::memcmp(poses.data(), moved.data(), sizeof(poses[0])), 0);

    // An empty progress never stops the run.
    EXPECT_TRUE(kestor::optimizePoseGraph(pairs.data(), transforms.data(), information.data(),
                                          nullptr, nullptr, g.edgeCount, poses.data(), g.poseCount,
                                          0.1, 1.0, 5, 0.25, false, kestor::ProgressFunc(), true));
}

TEST(PoseGraph, NotANumberStopsWithPosesUnwritten) {
    SyntheticGraphOptions o;
    o.poseCount = 60;
    SyntheticPoseGraph g = makeSyntheticPoseGraph(o);
    g.transforms[12 * 5 + 3] = std::nan("");
    const Solved r = solve(g, 10, false);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.poses, g.initial);
}

TEST(PoseGraph, FlagsDecideWhatEntersTheSystem) {
    SyntheticGraphOptions o;
    o.poseCount = 60;
    SyntheticPoseGraph g = makeSyntheticPoseGraph(o);

    // All edges off: nothing to solve, the poses stay up to the rounding of the re-basing and
    // no weight is written.
    std::vector<unsigned char> off(size_t(g.edgeCount), 0);
    std::vector<double> poses = g.initial, weights(size_t(g.edgeCount), -1.0);
    EXPECT_EQ(KESTOROptimizePoseGraph(g.pairs.data(), g.transforms.data(), g.information.data(),
                                      off.data(), weights.data(), g.edgeCount, poses.data(),
                                      g.poseCount, 10, 1.0, 0.1, 0.25, false, false, nullptr,
                                      nullptr),
              0);
    for (size_t k = 0; k < poses.size(); ++k) EXPECT_NEAR(poses[k], g.initial[k], 1e-12);
    for (double w : weights) EXPECT_EQ(w, -1.0);

    // A threshold above 1 prunes even trusted edges; null flags make every edge robust.
    Solved r = solve(g, 0, false, 1.5);
    for (double w : r.weights) EXPECT_EQ(w, 0.0);
    poses = g.truth;  // every edge carries its measurement noise here
    EXPECT_EQ(KESTOROptimizePoseGraph(g.pairs.data(), g.transforms.data(), g.information.data(),
                                      nullptr, weights.data(), g.edgeCount, poses.data(),
                                      g.poseCount, 0, 1.0, 1e-9, 0.0, false, false, nullptr,
                                      nullptr),
              0);
    int below = 0;
    for (double w : weights) below += w < 0.5;
    EXPECT_EQ(below, g.edgeCount);  // a tiny kernel scale: no edge keeps the weight of a 255
}

TEST(PoseGraph, BadArgumentsWriteNothing) {
    SyntheticGraphOptions o;
    o.poseCount = 60;
    const SyntheticPoseGraph g = makeSyntheticPoseGraph(o);
    std::vector<double> poses(g.initial.size(), 7.0), weights(size_t(g.edgeCount), 7.0);
    const auto call = [&](const int* pairs, const double* transforms, const double* info,
                          int edgeCount, double* p, int poseCount) {
        return KESTOROptimizePoseGraph(pairs, transforms, info, g.flags.data(), weights.data(),
                                       edgeCount, p, poseCount, 10, 1.0, 0.1, 0.25, false, false,
                                       nullptr, nullptr);
    };
    const int* P = g.pairs.data();
    const double* T = g.transforms.data();
    const double* I = g.information.data();
    const int E = g.edgeCount, N = g.poseCount;
    EXPECT_EQ(call(nullptr, T, I, E, poses.data(), N), 4);
    EXPECT_EQ(call(P, nullptr, I, E, poses.data(), N), 4);
    EXPECT_EQ(call(P, T, nullptr, E, poses.data(), N), 4);
    EXPECT_EQ(call(P, T, I, E, nullptr, N), 4);
    EXPECT_EQ(call(P, T, I, 0, poses.data(), N), 4);
    EXPECT_EQ(call(P, T, I, -3, poses.data(), N), 4);
    EXPECT_EQ(call(P, T, I, E, poses.data(), 1), 4);
    for (double v : poses) EXPECT_EQ(v, 7.0);
    for (double v : weights) EXPECT_EQ(v, 7.0);
}
