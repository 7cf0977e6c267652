// The joint Levenberg-Marquardt loop on a toy problem whose pair terms are known in closed form:
// translations only, with pair (i, j) wanting t_j - t_i = d_ij.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "multi/align_frames.h"

using namespace kestor;

namespace {

struct Toy {
    int frames;
    std::vector<double> truth;  // 3 a frame
    std::vector<RT_<double>> poses;
    std::vector<FramePair> linearized;
    std::vector<std::vector<FramePair>> announced;
    std::vector<int> progress;
    int failFirstCallsOf10 = 0;  // pair (1, 0) fails this many times
    double gradientScale = 1.0;  // below 1, each step goes only part of the way

    explicit Toy(int n) : frames(n) {
        for (int k = 0; k < n; ++k) {
            truth.insert(truth.end(), {0.1 * k, -0.05 * k * k, 0.02 * k});
            RT_<double> p = RT_<double>::identity();
            for (int a = 0; a < 3; ++a) p.translation[a] = truth[size_t(3 * k + a)] + (k ? 0.03 * (a + 1) : 0.0);
            poses.push_back(p);
        }
    }

    double residual(int i, int j, const RT_<double>& pi, const RT_<double>& pj, int a) const {
        const double d = truth[size_t(3 * j + a)] - truth[size_t(3 * i + a)];
        return pj.translation[a] - pi.translation[a] - d;
    }

    bool run(int iterations, int refresh, bool parallel, int cancelAt = -1) {
        PairLinearize lin = [&](int i, int j, const RT_<double>& pi, const RT_<double>& pj,
                                PairBlock& hII, PairBlock& hIJ, PairBlock& hJJ, PairVector& gI,
                                PairVector& gJ) {
            if (!parallel) linearized.emplace_back(i, j);
            if (i == 1 && j == 0 && failFirstCallsOf10 > 0) {
                --failFirstCallsOf10;
                return std::numeric_limits<double>::quiet_NaN();
            }
            double error = 0;
            for (int a = 0; a < 6; ++a) {
                // The rotations get a plain unit weight, so the system is never singular.
                hII[a][a] = hJJ[a][a] = 1;
                hIJ[a][a] = -1;
                if (a < 3) continue;
                const double r = residual(i, j, pi, pj, a - 3);
                gI[a] = -r * gradientScale;
                gJ[a] = r * gradientScale;
                error += r * r;
            }
            return error;
        };
        PairEvaluate eval = [&](int i, int j, const RT_<double>& pi, const RT_<double>& pj) {
            double e = 0;
            for (int a = 0; a < 3; ++a) e += std::pow(residual(i, j, pi, pj, a), 2);
            return e;
        };
        PairsChanged changed = [&](const FramePair* pairs, const unsigned char* active, int n) {
            std::vector<FramePair> list;
            for (int k = 0; k < n; ++k)
                if (active[k]) list.push_back(pairs[k]);
            announced.push_back(list);
        };
        ProgressFunc report = [&](int percent, bool& cancel) {
            progress.push_back(percent);
            if (int(progress.size()) == cancelAt) cancel = true;
        };
        return alignFrames(lin, eval, poses.data(), frames, iterations, refresh, false, true,
                           report, changed, parallel);
    }
};

}  // namespace

TEST(AlignFrames, RecoversTranslationsWithFrameZeroFixed) {
    for (bool parallel : {false, true}) {
        Toy toy(4);
        const RT_<double> first = toy.poses[0];
        EXPECT_TRUE(toy.run(10, 0, parallel));
        EXPECT_EQ(std::memcmp(&first, &toy.poses[0], sizeof(first)), 0);
        for (int k = 0; k < 4; ++k)
            for (int a = 0; a < 3; ++a)
                EXPECT_NEAR(toy.poses[size_t(k)].translation[a], toy.truth[size_t(3 * k + a)], 1e-6);
        EXPECT_EQ(toy.progress.front(), 0);
        EXPECT_EQ(toy.progress.back(), 100);
    }
}

TEST(AlignFrames, PairsAreEnumeratedRowByRowAndAnnouncedBeforeEachLinearisation) {
    Toy toy(4);
    EXPECT_TRUE(toy.run(1, 0, false));
    const std::vector<FramePair> order = {{1, 0}, {2, 0}, {2, 1}, {3, 0}, {3, 1}, {3, 2}};
    ASSERT_EQ(toy.announced.size(), 2u);  // the start and the one accepted step
    EXPECT_EQ(toy.announced[0], order);
    EXPECT_EQ(std::vector<FramePair>(toy.linearized.begin(), toy.linearized.begin() + 6), order);
    EXPECT_EQ(pairSlot(3, 2), 5);
    // iterations of 1: one step, then the closing 100.
    EXPECT_EQ(toy.progress, std::vector<int>({0, 0, 100}));
}

TEST(AlignFrames, RefreshIntervalDecidesWhetherAFailedPairComesBack) {
    auto callsOf10 = [](const Toy& t) {
        int n = 0;
        for (const FramePair& p : t.linearized) n += p == FramePair(1, 0);
        return n;
    };
    Toy erased(3);
    erased.failFirstCallsOf10 = 1;
    erased.run(6, 0, false);
    EXPECT_EQ(callsOf10(erased), 1);
    EXPECT_EQ(erased.announced.back().size(), 2u);

    Toy retried(3);
    retried.failFirstCallsOf10 = 1;
    retried.gradientScale = 0.5;
    retried.run(6, 1, false);
    // Out after the first test; back after the accepted step of iteration 1.
    EXPECT_GE(callsOf10(retried), 2);
    EXPECT_EQ(retried.announced.back().size(), 3u);
}

TEST(AlignFrames, CancelStopsAtOnceWithTheLastAcceptedPoses) {
    Toy first(3);
    const std::vector<RT_<double>> start = first.poses;
    EXPECT_FALSE(first.run(10, 0, false, 1));
    EXPECT_EQ(first.progress, std::vector<int>({0}));
    EXPECT_EQ(std::memcmp(start.data(), first.poses.data(), sizeof(RT_<double>) * 3), 0);

    Toy later(3);
    EXPECT_FALSE(later.run(10, 0, false, 3));  // 0 at the start, 0 and 10 in the loop
    EXPECT_EQ(later.progress, std::vector<int>({0, 0, 10}));
    EXPECT_NEAR(later.poses[2].translation[0], later.truth[6], 1e-6);  // one step was accepted
}

TEST(AlignFrames, RefusesTooFewFramesOrIterationsAndAFrameWithoutTerms) {
    Toy toy(3);
    EXPECT_FALSE(alignFrames(PairLinearize(), PairEvaluate(), toy.poses.data(), 1, 5, 0, false,
                             true, ProgressFunc(), PairsChanged(), false));
    EXPECT_FALSE(alignFrames(PairLinearize(), PairEvaluate(), toy.poses.data(), 3, 0, 0, false,
                             true, ProgressFunc(), PairsChanged(), false));
    // Frame 2 has no pair that qualifies: zero rows, a NaN step, poses as they were.
    const std::vector<RT_<double>> start = toy.poses;
    PairLinearize lin = [](int i, int j, const RT_<double>&, const RT_<double>&, PairBlock& hII,
                           PairBlock& hIJ, PairBlock& hJJ, PairVector&, PairVector& gJ) {
        if (i == 2) return std::numeric_limits<double>::quiet_NaN();
        (void)j;
        for (int a = 0; a < 6; ++a) {
            hII[a][a] = hJJ[a][a] = 1;
            hIJ[a][a] = -1;
            gJ[a] = 0.1;
        }
        return 1.0;
    };
    PairEvaluate eval = [](int, int, const RT_<double>&, const RT_<double>&) { return 0.5; };
    EXPECT_FALSE(alignFrames(lin, eval, toy.poses.data(), 3, 5, 0, false, true, ProgressFunc(),
                             PairsChanged(), true));
    EXPECT_EQ(std::memcmp(start.data(), toy.poses.data(), sizeof(RT_<double>) * 3), 0);
}
