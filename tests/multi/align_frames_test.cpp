// The joint Levenberg-Marquardt loop on a toy problem whose pair terms are known in closed form:
// translations only, with pair (i, j) wanting t_j - t_i = truth_j - truth_i. The rendered tests
// cover recovery; this one the pair order, the refresh of failed pairs, cancel and refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "multi/align_frames.h"
#include "multi/rendered_frames.h"

using namespace kestor;
using namespace kestor_test;

namespace {

struct Toy {
    std::vector<double> truth;  // 3 a frame
    std::vector<RT_<double>> poses;
    std::vector<FramePair> linearized;
    std::vector<std::vector<FramePair>> announced;
    std::vector<int> progress;
    int failsOf10 = 0;           // pair (1, 0) fails this many times
    double gradientScale = 1.0;  // below 1, each step goes only part of the way

    explicit Toy(int n) {
        for (int k = 0; k < n; ++k) {
            truth.insert(truth.end(), {0.1 * k, -0.05 * k * k, 0.02 * k});
            poses.push_back(RT_<double>::identity());
            for (int a = 0; a < 3; ++a)
                poses.back().translation[a] = truth[size_t(3 * k + a)] + (k ? 0.03 * (a + 1) : 0.0);
        }
    }
    double residual(int i, int j, const RT_<double>& pi, const RT_<double>& pj, int a) const {
        return pj.translation[a] - pi.translation[a] - truth[size_t(3 * j + a)] + truth[size_t(3 * i + a)];
    }

    bool run(int iterations, int refresh, int cancelAt = -1) {
        PairLinearize lin = [&](int i, int j, const RT_<double>& pi, const RT_<double>& pj,
                                PairBlock& hII, PairBlock& hIJ, PairBlock& hJJ, PairVector& gI,
                                PairVector& gJ) {
            linearized.emplace_back(i, j);
            if (i == 1 && j == 0 && failsOf10 > 0 && failsOf10--)
                return std::numeric_limits<double>::quiet_NaN();
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
            announced.emplace_back();
            for (int k = 0; k < n; ++k)
                if (active[k]) announced.back().push_back(pairs[k]);
        };
        ProgressFunc report = [&](int percent, bool& cancel) {
            progress.push_back(percent);
            cancel = int(progress.size()) == cancelAt;
        };
        return alignFrames(lin, eval, poses.data(), int(poses.size()), iterations, refresh, false,
                           true, report, changed, false);
    }
};

}  // namespace

TEST(AlignFrames, PairsAreEnumeratedRowByRowAndAnnouncedBeforeEachLinearisation) {
    Toy toy(4);
    EXPECT_TRUE(toy.run(1, 0));
    const std::vector<FramePair> order = {{1, 0}, {2, 0}, {2, 1}, {3, 0}, {3, 1}, {3, 2}};
    ASSERT_EQ(toy.announced.size(), 2u);  // the start and the one accepted step
    EXPECT_EQ(toy.announced[0], order);
    EXPECT_EQ(std::vector<FramePair>(toy.linearized.begin(), toy.linearized.begin() + 6), order);
    EXPECT_EQ(toy.progress, std::vector<int>({0, 0, 100}));  // one step, then the closing 100
}

TEST(AlignFrames, RefreshIntervalDecidesWhetherAFailedPairComesBack) {
    for (int refresh : {0, 1}) {
        Toy toy(3);
        toy.failsOf10 = 1;
        toy.gradientScale = refresh ? 0.5 : 1.0;  // half steps leave work for later iterations
        toy.run(6, refresh);
        // Out after its first test: for good, or back after the accepted step of iteration 1.
        EXPECT_EQ(std::count(toy.linearized.begin(), toy.linearized.end(), FramePair(1, 0)) == 1, refresh == 0);
        EXPECT_EQ(toy.announced.back().size(), refresh ? 3u : 2u);
    }
}

TEST(AlignFrames, CancelKeepsTheLastAcceptedPosesAndTooLittleInputIsRefused) {
    Toy later(3);
    EXPECT_FALSE(later.run(10, 0, 3));  // 0 at the start, 0 and 10 in the loop
    EXPECT_EQ(later.progress, std::vector<int>({0, 0, 10}));
    EXPECT_NEAR(later.poses[2].translation[0], later.truth[6], 1e-6);  // one step was accepted

    Toy toy(3);
    const std::vector<RT_<double>> start = toy.poses;
    EXPECT_FALSE(alignFrames(PairLinearize(), PairEvaluate(), toy.poses.data(), 1, 5, 0, false,
                             true, ProgressFunc(), PairsChanged(), false));
    EXPECT_FALSE(toy.run(0, 0));
    EXPECT_EQ(std::memcmp(start.data(), toy.poses.data(), sizeof(RT_<double>) * 3), 0);
}

// One step of a two-frame problem in closed form: H = 2 I and a fixed gradient on frame 1, with a
// trial that always lowers the error. The solved six values s give the correction D = (Rz(-s2)
// Ry(-s1) Rx(-s0), -s3..-s5), which goes after the pose with onRight and before it without.
TEST(AlignFrames, OneStepPutsTheCorrectionOnTheSideOnRightNames) {
    const double g[6] = {0.05, -0.1, 0.15, 0.3, -0.2, 0.1};
    const Pose before = Pose::fromAxisAngle(Eigen::Vector3d(1, 2, 3).normalized(), 0.7, {0.4, -0.3, 1.2});
    Pose d;
    double s[6];
    for (int a = 0; a < 6; ++a) s[a] = g[a] / (2.0 * (1.0 + 1e-6));
    d.R = (Eigen::AngleAxisd(-s[2], Eigen::Vector3d::UnitZ()) * Eigen::AngleAxisd(-s[1], Eigen::Vector3d::UnitY()) *
           Eigen::AngleAxisd(-s[0], Eigen::Vector3d::UnitX())).toRotationMatrix();
    d.t = -Eigen::Vector3d(s[3], s[4], s[5]);
    for (bool onRight : {false, true}) {
        std::vector<double> rts = Pose().matrix(), start = before.matrix();
        rts.insert(rts.end(), start.begin(), start.end());
        RT_<double> poses[2] = {poseToDouble(poseView(&rts[0])), poseToDouble(poseView(&rts[12]))};
        PairLinearize lin = [&](int, int, const RT_<double>&, const RT_<double>&, PairBlock& hII,
                                PairBlock&, PairBlock&, PairVector& gI, PairVector&) {
            for (int a = 0; a < 6; ++a) hII[a][a] = 2.0, gI[a] = g[a];
            return 1.0;
        };
        PairEvaluate eval = [](int, int, const RT_<double>&, const RT_<double>&) { return 0.0; };
        ASSERT_TRUE(alignFrames(lin, eval, poses, 2, 1, 0, false, onRight, ProgressFunc(),
                                PairsChanged(), false));
        const std::vector<double> first = rts;
        for (int f = 0; f < 2; ++f) poseFromDouble(poses[f], poseView(&rts[size_t(12 * f)]));
        EXPECT_TRUE(std::equal(first.begin(), first.begin() + 12, rts.begin()));  // frame 0 kept
        expectNear(std::vector<double>(rts.begin() + 12, rts.end()), (onRight ? before * d : d * before).matrix(), 1e-12);
    }
}
