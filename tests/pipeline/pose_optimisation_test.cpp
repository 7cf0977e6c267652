// One background pass, called as the optimisation thread would: the graphs it builds over groups
// and over frames, the solve that pulls a drifted lap back onto the truth when a loop edge closes
// it, and the write-back that keeps the newest finished frame where tracking left it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "pipeline/engine_graph.h"
#include "support/engine_harness.h"
#include "pipeline/group_finishing.h"
#include "pipeline/pose_optimisation.h"

using namespace kestor;
using namespace kestor_test;

namespace {

using Pairs = std::vector<std::pair<int, int>>;

Pairs pairsOf(const EngineGraph& graph) {
    Pairs out;
    for (const NodePair& p : graph.pairs) out.emplace_back(p.first, p.second);
    return out;
}

void finishAll(EngineState& state, int groupMode) {
    state.engine().para.groupMode = groupMode;
    for (_Group* g : state.groups()) finishGroup(state.engine(), *g);
}

GroupEdge loopEdge(int from, int to, const Pose& rt, uint8_t weight,
                   const Information& info = Information(1e4, 1e3)) {
    GroupEdge e{};
    e.rt = toRT(rt);
    std::memcpy(e.info, info.m, sizeof(e.info));
    e.weight = weight;
    e.from = from;
    e.to = to;
    return e;
}

// groupSize 2 and four groups as tracking leaves them around a relocalisation: group 0 full;
// group 1 (its overlap frame and one more) closed short by a relocalised frame, which opens
// group 2 with a loop edge from member 0 to group 0; group 2 full; group 3 holds its overlap
// frame and a searched loop edge to group 1. Poses are the truth on the arc; key frames are
// members 0, 1, 1 and 0.
struct RelocalisedRun {
    EngineState state{2};
    std::vector<Pose> truth;
    std::vector<_Frame*> f;

    RelocalisedRun() {
        for (int k = 0; k < 7; ++k) {
            truth.push_back(arcPose(k < 4 ? k : k + 3));
            f.push_back(state.addBlankFrame(truth.back()));
        }
        state.addGroup({f[0], f[1], f[2]});
        _Group* g1 = state.addGroup({f[2], f[3]});
        _Group* g2 = state.addGroup({f[4], f[5], f[6]});
        _Group* g3 = state.addGroup({f[6]});
        g1->keyIndex = 1;
        g2->keyIndex = 1;
        g2->loopEdges.push_back(loopEdge(0, 0, relative(truth[0], truth[4]), kTrackedWeight));
        g3->loopEdges.push_back(loopEdge(0, 1, relative(truth[3], truth[6]), kSearchedWeight));
        finishAll(state, 0);
        for (_Group* g : state.groups()) g->linkInfo[5][5] = 100 + g->id;
    }
};

}  // namespace

// Group graph: link edges leave full groups only (none from group 1), the relocalisation edge is
// re-measured to the key frame, searched loops keep 127 unless full loop weight is on. Both the
// link and the relocalisation measurement match the truth between key frames.
TEST(PoseOptimisation, GroupGraphLinksFullGroupsAndRemeasuresRelocalisation) {
    for (uint8_t fullLoopWeight : {0, 1}) {
        RelocalisedRun run;
        run.state.engine().para.fullLoopWeight = fullLoopWeight;
        const EngineGraph graph = buildGroupGraph(run.state.engine(), run.state.groups(), 4);
        EXPECT_EQ(pairsOf(graph), (Pairs{{1, 0}, {3, 2}, {2, 0}, {3, 1}}));
        EXPECT_EQ(graph.weights, (std::vector<uint8_t>{255, 255, 255, uint8_t(fullLoopWeight ? 255 : 127)}));
        EXPECT_EQ(graph.infos[0][35], 100.0);
        EXPECT_EQ(graph.infos[1][35], 102.0);
        const std::vector<Pose>& t = run.truth;
        EXPECT_LT(translationMm(fromRT(graph.relative[0]), relative(t[0], t[3])), 1e-6) << "link";
        EXPECT_LT(translationMm(fromRT(graph.relative[1]), relative(t[5], t[6])), 1e-6) << "link";
        EXPECT_LT(translationMm(fromRT(graph.relative[2]), relative(t[0], t[5])), 1e-6) << "relocalisation";
        EXPECT_LT(rotationDegrees(fromRT(graph.relative[2]), relative(t[0], t[5])), 1e-6);
    }
}

// Frame graph: a node per member short of a full group's overlap frame, so a chain edge into it
// lands on the next group's first node, and past the last node when the last group is full;
// loop edges go to the other group's key frame; link edges between key frames only with the
// joint in-group alignment.
TEST(PoseOptimisation, FrameGraphNodesAndEdgesFollowTheGroups) {
    const struct Case {
        int groupMode, count, nodes;
        Pairs pairs;
    } cases[] = {
        {1, 4, 7, {{1, 0}, {2, 1}, {3, 2}, {5, 4}, {6, 5}, {4, 0}, {6, 3}}},
        {2, 4, 7, {{1, 0}, {2, 1}, {3, 2}, {5, 4}, {6, 5}, {4, 0}, {6, 3}, {3, 0}, {6, 5}}},
        {1, 3, 6, {{1, 0}, {2, 1}, {3, 2}, {5, 4}, {6, 5}, {4, 0}}},
    };
    for (const Case& c : cases) {
        RelocalisedRun run;
        run.state.engine().para.groupMode = c.groupMode;
        const EngineGraph graph = buildFrameGraph(run.state.engine(), run.state.groups(), c.count);
        EXPECT_EQ(int(graph.poses.size()), c.nodes);
        EXPECT_EQ(pairsOf(graph), c.pairs) << "groupMode " << c.groupMode << " count " << c.count;
        for (size_t e = 0; e + 1 < graph.weights.size(); ++e)
            EXPECT_EQ(graph.weights[e], e == 6 && c.count == 4 ? 127 : 255) << e;
    }
}

// One finished group: a one-node graph, nothing solved, and the members' poses re-derived from
// frameRTs (here a joint alignment's truth) around the overlap frame, which does not move.
TEST(PoseOptimisation, OneGroupIsRederivedFromFrameRTsAroundItsLastFrame) {
    EngineState state(2);
    std::vector<Pose> truth;
    std::vector<_Frame*> members;
    for (int k = 0; k < 3; ++k) {
        truth.push_back(arcPose(k));
        members.push_back(state.addBlankFrame(perturbed(truth.back(), k)));
    }
    _Group* group = state.addGroup(members);
    finishAll(state, 0);
    for (int j = 0; j < 3; ++j) group->frameRTs[size_t(j)] = toRT(relative(truth[0], truth[size_t(j)]));
    const RT_<double> last = members[2]->pose;
    state.engine().para.globalMode = 1;
    runOptimisationPass(state.engine(), state.groups(), 0, 1);
    EXPECT_EQ(std::memcmp(&last, &members[2]->pose, sizeof(last)), 0);
    for (int j = 0; j < 2; ++j) {
        const Pose want = relative(truth[size_t(j)], truth[2]);
        const Pose got = relative(fromRT(members[size_t(j)]->pose), fromRT(last));
        EXPECT_LT(translationMm(got, want), 1e-6) << j;
        EXPECT_LT(rotationDegrees(got, want), 1e-6) << j;
    }
}

// globalMode 0 does nothing at all; otherwise the pass announces itself with its group count.
TEST(PoseOptimisation, PassLogsItsCountAndDoesNothingInGlobalMode0) {
    for (int globalMode : {0, 1}) {
        RelocalisedRun run;
        RGBDFusionImpl& f = run.state.engine();
        f.para.globalMode = globalMode;
        f.para.verbose = 1;
        int asked = 0;
        f.pairMatchFunc = [&](const _Frame*, const _Frame*, RT_<double>&, _MatchFlag) { return ++asked, false; };
        const RT_<double> before = run.f[1]->pose;
        testing::internal::CaptureStdout();
        runOptimisationPass(f, run.state.groups(), 2, 3);
        const std::string out = testing::internal::GetCapturedStdout();
        if (globalMode == 0) {
            EXPECT_EQ(out, "");
            EXPECT_EQ(asked, 0);
            EXPECT_EQ(std::memcmp(&before, &run.f[1]->pose, sizeof(before)), 0);
        } else {
            EXPECT_EQ(out.rfind("[KESTOR INFO] optimizeProc 3\n", 0), 0u) << out;
            EXPECT_EQ(asked, 2) << "loop closing for group 2 only";
        }
    }
}

// A lap of 18 frames in six groups of three (the last one open), tracked with a small bias on
// every step, so the end has drifted by a few degrees and centimetres. A loop edge from the last
// group's key frame to the first one's, at the truth, closes the lap; both graphs pull the lap,
// seen from frame 0, to well under half its drift (a constant bias on biased steps is not fully
// undone by least squares), while the newest frame stays where tracking put it.
TEST(PoseOptimisation, LoopEdgePullsADriftedLapBackOntoTheTruth) {
    for (int globalMode : {1, 2}) {
        EngineState state(3);
        std::vector<Pose> truth, tracked;
        std::vector<_Frame*> frames;
        const Pose bias = Pose::fromAxisAngle({0, 1, 0}, 0.003, {0.003, 0, 0.002});
        for (int k = 0; k < 18; ++k) {
            const double angle = 2 * M_PI * k / 18;
            truth.push_back(Pose::fromAxisAngle({0, 1, 0}, -angle, {std::cos(angle), 0, std::sin(angle)}));
            tracked.push_back(k == 0 ? truth[0] : tracked.back() * relative(truth[size_t(k - 1)], truth.back()) * bias);
            frames.push_back(state.addBlankFrame(tracked.back()));
        }
        for (int g = 0; g < 6; ++g)
            state.addGroup(std::vector<_Frame*>(frames.begin() + 3 * g, frames.begin() + std::min(3 * g + 4, 18)));
        finishAll(state, 0);
        for (_Group* g : state.groups()) std::memcpy(g->linkInfo, Information(1e4, 1e3).m, sizeof(g->linkInfo));
        state.groups()[5]->loopEdges.push_back(loopEdge(0, 0, relative(truth[0], truth[15]), kSearchedWeight, Information(1e5, 1e4)));
        state.engine().para.globalMode = globalMode;
        runOptimisationPass(state.engine(), state.groups(), 6, 6);

        // Every frame of the lap as seen from frame 0, against the truth.
        double before = 0, after = 0;
        for (int k = 1; k <= 15; ++k) {
            const Pose want = relative(truth[0], truth[size_t(k)]);
            before = std::max(before, translationMm(relative(tracked[0], tracked[size_t(k)]), want));
            after = std::max(after, translationMm(relative(fromRT(frames[0]->pose), fromRT(frames[size_t(k)]->pose)), want));
        }
        SCOPED_TRACE(testing::Message() << "globalMode " << globalMode << ": " << before << " mm -> " << after << " mm");
        EXPECT_GT(before, 40.0);
        EXPECT_LT(after, 0.4 * before);
        EXPECT_LT(translationMm(fromRT(frames[17]->pose), tracked[17]), 1e-6);
        EXPECT_LT(rotationDegrees(fromRT(frames[17]->pose), tracked[17]), 1e-4);
    }
}
