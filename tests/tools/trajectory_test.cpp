// The trajectory report against trajectories with a known error, and the TUM file format.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "cli/trajectory.h"
#include "cli/trajectory_svg.h"
#include "io/rgbd_sequence.h"

using namespace kestor_cli;

namespace {

// A wobbly path with turning rotations, one pose every 1/30 s; poses 3 and 9 share a position.
std::vector<TimedPose> truthPath(int n) {
    std::vector<TimedPose> out;
    for (int i = 0; i < n; ++i) {
        TimedPose p;
        p.timestamp = 100.0 + i / 30.0;
        const double a = 0.1 * i, t[3] = {std::cos(a), 0.3 * std::sin(2 * a), 0.05 * i};
        kestor_io::poseFromQuaternion(t, 0.1 * std::sin(a), 0.2, 0.05 * i, 1.0, p.pose);
        out.push_back(p);
    }
    for (int k : {3, 11}) out[9].pose[k] = out[3].pose[k];
    return out;
}

// Applies M on the left: a change of world frame, which the alignment must undo completely.
std::vector<TimedPose> moved(const std::vector<TimedPose>& in, const double M[12]) {
    std::vector<TimedPose> out = in;
    for (auto& p : out) {
        double inv[12], r[12];
        const double identity[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
        kestor_io::relativePose(M, identity, inv);  // M^-1
        kestor_io::relativePose(inv, p.pose, r);    // (M^-1)^-1 p = M p
        std::copy(r, r + 12, p.pose);
    }
    return out;
}

TEST(TrajectoryErrors, ARigidMotionOfTheWholeEstimateIsNoError) {
    const std::vector<TimedPose> truth = truthPath(30);
    double M[12];
    const double t[3] = {0.7, -2.0, 0.4};
    kestor_io::poseFromQuaternion(t, 0.3, -0.5, 0.2, 0.8, M);
    const TrajectoryErrors e = compareTrajectories(moved(truth, M), truth);
    EXPECT_EQ(e.compared, 30);
    EXPECT_LT(e.ateRmse, 1e-9);
    EXPECT_LT(e.ateMax, 1e-9);
    EXPECT_EQ(e.rpePairs, 29);
    EXPECT_LT(e.rpeTranslationRmse, 1e-9);
    EXPECT_LT(e.rpeRotationRmse, 1e-4);
}

// Poses 3 and 9 stand at one place; moving one by +d and the other by -d leaves the best
// alignment where it was, so ATE = d sqrt(2 / n). Each moved pose spoils its two steps by d.
TEST(TrajectoryErrors, OffsetsOnTwoPosesGiveAComputableError) {
    const int n = 30;
    const double d = 0.01;
    const std::vector<TimedPose> truth = truthPath(n);
    std::vector<TimedPose> estimate = truth;
    estimate[3].pose[7] += d;
    estimate[9].pose[7] -= d;
    const TrajectoryErrors e = compareTrajectories(estimate, truth);
    EXPECT_NEAR(e.ateRmse, d * std::sqrt(2.0 / n), 1e-9);
    EXPECT_NEAR(e.ateMax, d, 1e-9);
    EXPECT_NEAR(e.ateMedian, 0.0, 1e-9);
    EXPECT_NEAR(e.rpeTranslationRmse, d * std::sqrt(4.0 / (n - 1)), 1e-9);
    EXPECT_LT(e.rpeRotationRmse, 1e-4);
}

// Poses pair by time stamp within 20 ms; a lost frame leaves a gap and the step across it counts
// as one step.
TEST(TrajectoryErrors, PosesPairByTimeStamp) {
    const std::vector<TimedPose> truth = truthPath(20);
    std::vector<TimedPose> estimate(truth.begin(), truth.end());
    estimate.erase(estimate.begin() + 5);
    for (auto& p : estimate) p.timestamp += 0.015;
    estimate.back().timestamp += 1.0;  // nothing near: not compared
    const TrajectoryErrors e = compareTrajectories(estimate, truth);
    EXPECT_EQ(e.compared, 18);
    EXPECT_EQ(e.rpePairs, 17);
    EXPECT_LT(e.ateRmse, 1e-9);
}

TEST(TrajectoryFiles, TumTextReadsBackAndDrawsAPicture) {
    const std::vector<TimedPose> truth = truthPath(12);
    const std::string path =
        (std::filesystem::temp_directory_path() / "kestor_traj_test.txt").string();
    std::ofstream(path) << formatTum(truth);
    const std::vector<TimedPose> back = readTum(path);
    std::filesystem::remove(path);
    ASSERT_EQ(back.size(), truth.size());
    for (size_t i = 0; i < back.size(); ++i) {
        EXPECT_NEAR(back[i].timestamp, truth[i].timestamp, 1e-6);
        for (int k = 0; k < 12; ++k) EXPECT_NEAR(back[i].pose[k], truth[i].pose[k], 1e-5);
    }
    const std::string svg = trajectorySvg("test", compareTrajectories(back, truth));
    EXPECT_EQ(svg.rfind("<svg", 0), 0u);
    EXPECT_EQ(std::count(svg.begin(), svg.end(), '\n') > 5, true);
    EXPECT_NE(svg.find("</svg>"), std::string::npos);
    EXPECT_EQ(trajectorySvg("none", TrajectoryErrors{}), "");
}

}  // namespace
