// The refinement of a finished run's point map: its edge cases (no groups, one group, no
// alignment within groups, cancel between groups, a group without points), its progress and log
// lines, the iteration rule, the work blocks, and on rendered frames with perturbed poses that
// it brings the poses and the fused map closer to the truth, the same with a spill cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "kestor.h"
#include "support/engine_harness.h"
#include "pointmap/point_map_refinement.h"

using namespace kestor;
using namespace kestor_test;

namespace {

struct Record {
    std::vector<int> percents;
    std::vector<int> ids, counts;
    int cancelAt = -1;
};

void onProgress(int percent, bool* cancel, void* user) {
    Record& r = *static_cast<Record*>(user);
    r.percents.push_back(percent);
    if (percent == r.cancelAt) *cancel = true;
}

void onCloud(const KESTORPointCloud* c, void* user) {
    Record& r = *static_cast<Record*>(user);
    r.ids.push_back(c->id);
    r.counts.push_back(c->count);
}

void setVerbose(EngineState& state, bool verbose, int groupIterations = 10) {
    KESTORPara para;
    KESTORGetPara(state.handle(), &para);
    para.verbose = verbose;
    para.groupIterations = groupIterations;
    KESTORSetPara(state.handle(), &para);
}

// Ten frames of the room at 80x60 in three full groups of four (groupSize 3), the last member of
// each shared with the next group, and a fourth group that holds only the last frame.
const RoomSequence& room() {
    static const RoomSequence seq(10, 80, 60);
    return seq;
}

// Each frame moved off its truth by a few degrees and centimetres, and each group as a whole by
// more, so that both stages have work.
std::vector<Pose> perturbed(const RoomSequence& seq) {
    std::vector<Pose> out;
    for (size_t k = 0; k < seq.truth.size(); ++k) {
        const double s = (k % 2) ? 1.0 : -1.0;
        const Pose frame = Pose::fromAxisAngle({1, 0.5 * s, 0.3}, 0.02, {0.015 * s, -0.01, 0.012});
        const double g = double(k / 3);
        const Pose group = Pose::fromAxisAngle({0.2, 1, -0.4}, 0.015 * g, {0.02 * g, 0.015 * g, -0.01 * g});
        out.push_back(group * frame * seq.truth[k]);
    }
    return out;
}

void fillRoom(EngineState& state, const std::vector<Pose>& poses, int firstBlank = 1000) {
    const RoomSequence& seq = room();
    const Frame blank{80, 60, std::vector<float>(80 * 60, 0.0f), std::vector<uint8_t>(80 * 60 * 3, 0)};
    for (size_t k = 0; k < seq.frames.size(); ++k)
        state.addFrame(int(k) >= firstBlank ? blank : seq.frames[k], poses[k]);
    state.groupAndFinish();
}

// Largest difference between the entries of two poses.
double poseGap(const RT_<double>& a, const RT_<double>& b) {
    double gap = 0;
    for (int e = 0; e < 9; ++e) gap = std::max(gap, std::abs(a.rotation[e] - b.rotation[e]));
    for (int e = 0; e < 3; ++e) gap = std::max(gap, std::abs(a.translation[e] - b.translation[e]));
    return gap;
}

RT_<double> relative(const RT_<double>& from, const RT_<double>& to) {
    return toRT(fromRT(from).inverse() * fromRT(to));
}

std::string tempPath(const char* name) { return ::testing::TempDir() + "kestor_refine_" + name; }

}  // namespace

TEST(PointMapRefinement, NoGroupsReportsZeroAndStops) {
    EngineState state(3, room().camera, 2, 0);
    for (int k = 0; k < 2; ++k) state.addFrame(room().frames[size_t(k)], room().truth[size_t(k)]);
    const std::vector<RT_<double>> before = recordPoses(state.engine());
    Record run;
    testing::internal::CaptureStdout();
    EXPECT_EQ(KESTOROptimizePointsMap(state.handle(), 0.05, 5, 0, onCloud, onProgress, &run), KESTOR_STATUS_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(run.percents, std::vector<int>({0}));
    EXPECT_TRUE(run.ids.empty());
    for (size_t k = 0; k < before.size(); ++k) EXPECT_EQ(poseGap(before[k], state.engine().frames[k]->pose), 0.0);
}

TEST(PointMapRefinement, OneGroupWithoutLevelIsOnlyRebasedOnItsFirstFrame) {
    // One group of four (groupSize 4, not full): no alignment between groups, and level -1 means
    // none inside; the poses are just rebased so that frame 0 is the origin.
    EngineState state(4, room().camera, 2, 0);
    const std::vector<Pose> start = perturbed(room());
    for (int k = 0; k < 4; ++k) state.addFrame(room().frames[size_t(k)], start[size_t(k)]);
    state.groupAndFinish();
    ASSERT_EQ(state.engine().groups.size(), 1u);
    Record run;
    EXPECT_EQ(KESTOROptimizePointsMap(state.handle(), 0.05, 5, -1, onCloud, onProgress, &run), KESTOR_STATUS_OK);
    EXPECT_EQ(run.ids, std::vector<int>({0}));
    EXPECT_GT(run.counts[0], 4000);
    EXPECT_EQ(run.percents, std::vector<int>({0, 1, 70, 100}));
    for (int k = 0; k < 4; ++k)
        EXPECT_LT(poseGap(state.engine().frames[size_t(k)]->pose, toRT(start[0].inverse() * start[size_t(k)])), 1e-12) << k;
}

TEST(PointMapRefinement, GroupCloudsCarryGrayAndColourAsTheInstanceKeepsThem) {
    // With device memory nothing can be read back: the cloud is empty and nothing is touched.
    struct Case { const char* name; unsigned flags; bool points, gray, color; };
    const Case cases[] = {{"mask and colour", 0, true, false, true}, {"gray maps", 8, true, true, true},
                          {"depth only", 3, true, false, false}, {"device memory", 4, false, false, false}};
    for (const Case& c : cases) {
        EngineState state(4, room().camera, 2, c.flags);
        for (int k = 0; k < 4; ++k) state.addFrame(room().frames[size_t(k)], room().truth[size_t(k)]);
        state.groupAndFinish();
        std::vector<size_t> sizes;  // points, normals, grays, colours
        optimizePointsMap(state.engine(), 0.05, 3, 1,
                          [&](int, const _Group&, const _PointCloud& cloud) {
                              sizes = {cloud.points.size() / 3, cloud.normals.size() / 3, cloud.grays.size(), cloud.colors.size() / 3};
                          },
                          ProgressFunc());
        ASSERT_EQ(sizes.size(), 4u) << c.name;
        EXPECT_EQ(sizes[0] > 4000u, c.points) << c.name;
        EXPECT_EQ(sizes[1], sizes[0]) << c.name;
        EXPECT_EQ(sizes[2], c.gray ? sizes[0] : 0u) << c.name;
        EXPECT_EQ(sizes[3], c.color ? sizes[0] : 0u) << c.name;
    }
}

TEST(PointMapRefinement, LevelOutOfRangeKeepsEachGroupRigidButStillAlignsGroups) {
    const std::vector<Pose> start = perturbed(room());
    for (int level : {-1, 2, 1}) {
        EngineState state(3, room().camera, 2, 0);
        fillRoom(state, start);
        const std::vector<RT_<double>> before = recordPoses(state.engine());
        Record run;
        EXPECT_EQ(KESTOROptimizePointsMap(state.handle(), 0.04, 10, level, onCloud, onProgress, &run), KESTOR_STATUS_OK);
        EXPECT_EQ(run.ids, std::vector<int>({0, 1, 2, 3})) << level;
        for (int count : run.counts) EXPECT_GT(count, 4000) << level;
        const std::vector<RT_<double>> after = recordPoses(state.engine());
        double withinGroups = 0, betweenGroups = 0;
        for (int g = 0; g < 3; ++g)
            for (int k = 1; k < 3; ++k) {
                const int f = 3 * g + k;
                withinGroups = std::max(withinGroups, poseGap(relative(before[size_t(3 * g)], before[size_t(f)]),
                                                              relative(after[size_t(3 * g)], after[size_t(f)])));
            }
        for (int g : {1, 2})
            betweenGroups = std::max(betweenGroups, poseGap(relative(before[0], before[size_t(3 * g)]),
                                                            relative(after[0], after[size_t(3 * g)])));
        if (level == 1) {
            EXPECT_GT(withinGroups, 1e-3) << "members were not aligned";
        } else {
            EXPECT_LT(withinGroups, 1e-9) << level;
        }
        EXPECT_GT(betweenGroups, 1e-3) << level << ": groups were not aligned";
    }
}

TEST(PointMapRefinement, CancelAtAGroupStopsBeforeItAndSkipsTheRebase) {
    EngineState state(3, room().camera, 2, 0);
    fillRoom(state, perturbed(room()));
    state.setKeyFrame(0, 1);
    setVerbose(state, true);
    const std::vector<RT_<double>> before = recordPoses(state.engine());
    Record run;
    run.cancelAt = 1 * 70 / 4 + 1;  // the call for group 1
    testing::internal::CaptureStdout();
    EXPECT_EQ(KESTOROptimizePointsMap(state.handle(), 0.04, 5, 0, onCloud, onProgress, &run), KESTOR_STATUS_OK);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(run.percents, std::vector<int>({0, 1, 18, 100}));
    EXPECT_EQ(run.ids, std::vector<int>({0}));
    EXPECT_NE(log.find("[KESTOR INFO] Group ID: 0, Num: 4\n"), std::string::npos);
    EXPECT_EQ(log.find("Group ID: 1"), std::string::npos);
    EXPECT_EQ(log.find("optimize point cloud starting"), std::string::npos);
    EXPECT_NE(log.find("[KESTOR INFO] Optimize point cloud finished.\n"), std::string::npos);
    const std::vector<RT_<double>> after = recordPoses(state.engine());
    // Group 0 refined around its key frame (member 1), which keeps its pose; the rest untouched.
    EXPECT_LT(poseGap(after[1], before[1]), 1e-12);
    EXPECT_GT(poseGap(after[0], before[0]), 1e-3);
    EXPECT_GT(poseGap(after[2], before[2]), 1e-3);
    for (size_t k = 3; k < after.size(); ++k) EXPECT_EQ(poseGap(after[k], before[k]), 0.0) << k;
}

TEST(PointMapRefinement, AGroupWithoutPointsGivesAnEmptyCloud) {
    EngineState state(3, room().camera, 2, 0);
    fillRoom(state, perturbed(room()), 4);  // frames 4.. blank: group 1 has only its frame 3
    Record run;
    EXPECT_EQ(KESTOROptimizePointsMap(state.handle(), 0.04, 5, 0, onCloud, onProgress, &run), KESTOR_STATUS_OK);
    ASSERT_EQ(run.counts.size(), 4u);
    EXPECT_GT(run.counts[0], 10000);
    EXPECT_GT(run.counts[1], 1000);
    EXPECT_EQ(run.counts[2], 0);
    EXPECT_EQ(run.counts[3], 0);
    EXPECT_EQ(run.percents.back(), 100);
}

TEST(PointMapRefinement, GroupIterationsOfTwoTakeTwoFromTheLimitWithinGroups) {
    // One group, so only the alignment within it runs. groupIterations 2 with a limit of 3 must
    // equal any other setting with a limit of 1, and differ from a limit of 3.
    auto run = [](int groupIterations, int iterations) {
        EngineState state(4, room().camera, 2, 0);
        setVerbose(state, false, groupIterations);
        const std::vector<Pose> start = perturbed(room());
        for (int k = 0; k < 4; ++k) state.addFrame(room().frames[size_t(k)], start[size_t(k)]);
        state.groupAndFinish();
        optimizePointsMap(state.engine(), 0.05, iterations, 0, GroupCloudFunc(), ProgressFunc());
        return recordPoses(state.engine());
    };
    const auto reduced = run(2, 3), one = run(10, 1), three = run(10, 3);
    for (size_t k = 1; k < 4; ++k) {
        EXPECT_LT(poseGap(reduced[k], one[k]), 1e-12) << k;
        EXPECT_GT(poseGap(reduced[k], three[k]), 1e-6) << k;
    }
}

// Both runs also pin the progress schedule, the log lines and that the work blocks go back.
TEST(PointMapRefinement, BringsPosesAndTheFusedMapCloserToTheTruthSpilledOrNot) {
    const std::vector<Pose> start = perturbed(room());
    std::vector<std::vector<RT_<double>>> results;
    for (bool spill : {false, true}) {
        SCOPED_TRACE(spill ? "spilled" : "in memory");
        EngineState state(3, room().camera, 2, 0, spill ? tempPath("truth") : "");
        fillRoom(state, start);
        state.setKeyFrame(0, 1);  // the first frame moves with the refinement of its group
        setVerbose(state, true);
        RGBDFusionImpl& f = state.engine();
        const auto inUse = [](const BlockPool* pool) { return pool->carvedCount() - pool->freeCount(); };
        const size_t pyramids = inUse(f.pyramidPool), images = inUse(f.imagePool);
        const double ateBefore = trajectoryError(recordPoses(f), room().truth);
        const double mapBefore = fusedMapError(f, room().truth);
        Record run;
        testing::internal::CaptureStdout();
        EXPECT_EQ(KESTOROptimizePointsMap(state.handle(), 0.04, 20, 1, onCloud, onProgress, &run), KESTOR_STATUS_OK);
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_LT(trajectoryError(recordPoses(f), room().truth), 0.4 * ateBefore);
        EXPECT_LT(fusedMapError(f, room().truth), 0.4 * mapBefore);
        // The first group's first frame is the origin, and its group stays where it is.
        EXPECT_LT(poseGap(f.frames[0]->pose, RT_<double>::identity()), 1e-12);
        results.push_back(recordPoses(f));

        EXPECT_EQ(inUse(f.pyramidPool), pyramids);
        EXPECT_EQ(inUse(f.imagePool), images);
        EXPECT_GT(f.pyramidPool->freeCount(), 0u);  // the slots were taken from the pool
        if (spill) {
            EXPECT_GT(f.imagePool->freeCount(), 0u);
        }
        // Groups at 1, 18, 36, 53; the stage between groups on 70..99; 100 once, at the end.
        ASSERT_GT(run.percents.size(), 7u);
        EXPECT_EQ(std::vector<int>(run.percents.begin(), run.percents.begin() + 6), std::vector<int>({0, 1, 18, 36, 53, 70}));
        EXPECT_EQ(run.percents.back(), 100);
        for (size_t i = 6; i + 1 < run.percents.size(); ++i) {
            EXPECT_GE(run.percents[i], 70);
            EXPECT_LE(run.percents[i], 99);
        }
        size_t at = 0;
        for (const char* line : {"[KESTOR INFO] Group ID: 0, Num: 4\n", "[KESTOR INFO] Group ID: 1, Num: 4\n",
                                 "[KESTOR INFO] Group ID: 2, Num: 4\n", "[KESTOR INFO] Group ID: 3, Num: 1\n",
                                 "[KESTOR INFO] optimize point cloud starting...\n",
                                 "[KESTOR INFO] Optimize point cloud finished.\n"}) {
            at = log.find(line, at);
            EXPECT_NE(at, std::string::npos) << line;
        }
    }
    for (size_t k = 0; k < results[0].size(); ++k) EXPECT_LT(poseGap(results[0][k], results[1][k]), 1e-9) << k;
    std::remove(tempPath("truth").c_str());
}
