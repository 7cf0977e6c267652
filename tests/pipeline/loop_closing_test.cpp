// Loop closing for one finished group, called as the optimisation pass would: which earlier
// groups are tried and in what order, what a found loop records, its log line, and the empty
// pair-match slot.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "support/engine_harness.h"
#include "pipeline/group_finishing.h"
#include "pipeline/loop_closing.h"

using namespace kestor;
using namespace kestor_test;

namespace {

// `count` groups of two members without maps; each key frame knows its group by groupId.
struct BlankGroups {
    EngineState state{4};
    std::vector<int> asked;  // groups whose key frame was offered, in order

    explicit BlankGroups(int count) {
        for (int g = 0; g < count; ++g)
            state.addGroup({state.addBlankFrame(arcPose(2 * g)), state.addBlankFrame(arcPose(2 * g + 1))});
        state.engine().pairMatchFunc = [this](const _Frame* candidate, const _Frame* current,
                                              RT_<double>&, _MatchFlag flag) {
            EXPECT_EQ(flag, MATCH_GROUP);
            EXPECT_EQ(current, state.engine().groups[size_t(current->info.groupId)]->frames[0]);
            asked.push_back(candidate->info.groupId);
            return false;
        };
    }
    void close(int position) {
        closeGroupLoops(state.engine(), state.engine().groups.data(), position,
                        *state.engine().groups[size_t(position)]);
    }
};

}  // namespace

// Without a score: nothing for the first two groups; the third draws both earlier ones once each
// (k is 2); later groups draw five distinct earlier ones. The search needs the application's
// estimate: from the third group on, an empty slot throws.
TEST(LoopClosing, RandomDrawTriesDistinctEarlierGroups) {
    BlankGroups b(12);
    b.close(0);
    b.close(1);
    EXPECT_TRUE(b.asked.empty());
    b.close(2);
    EXPECT_EQ(std::multiset<int>(b.asked.begin(), b.asked.end()), (std::multiset<int>{0, 1}));
    for (int position : {3, 6, 11}) {
        b.asked.clear();
        b.close(position);
        const std::set<int> distinct(b.asked.begin(), b.asked.end());
        EXPECT_EQ(b.asked.size(), size_t(std::min(position, 5))) << position;
        EXPECT_EQ(distinct.size(), b.asked.size()) << position;
        EXPECT_LT(*distinct.rbegin(), position) << "only earlier groups";
    }
    for (const _Group* g : b.state.groups()) EXPECT_TRUE(g->loopEdges.empty());
    b.state.engine().pairMatchFunc = nullptr;
    EXPECT_NO_THROW(b.close(1));
    EXPECT_THROW(b.close(2), std::bad_function_call);
}

// With a score: every earlier group is scored against the key frame, and exactly the five
// lowest are tried, lowest first; with up to five earlier groups all of them, in order.
TEST(LoopClosing, ScoredCandidatesAreTheFiveLowestInAscendingOrder) {
    BlankGroups b(11);
    int scored = 0, closing = 10;
    b.state.engine().calcScoreFunc = [&](const _Frame* candidate, const _Frame* current) {
        EXPECT_EQ(current->info.groupId, closing);
        EXPECT_LT(candidate->info.groupId, closing);
        ++scored;
        return float((candidate->info.groupId * 7) % 10);  // 0 7 4 1 8 5 2 9 6 3
    };
    b.close(10);
    EXPECT_EQ(scored, 10);
    EXPECT_EQ(b.asked, (std::vector<int>{0, 3, 6, 9, 2}));
    b.asked.clear();
    b.close(closing = 4);
    EXPECT_EQ(b.asked, (std::vector<int>{0, 3, 2, 1}));
}

// A group that sees the place of group 0 again: the application's estimate, off by a degree and
// 2 cm, is refined by the built-in match against the pyramid that finishing moved to group 0,
// and recorded from the key frame (member 1 here) with weight 127. Group 1 is refused. The log
// line appears only when verbose.
TEST(LoopClosing, FoundLoopIsRecordedFromTheKeyFrameAndLogged) {
    const struct Case {
        bool verbose, scored;
        const char* log;
    } cases[] = {
        {false, false, ""},
        {true, false, "[KESTOR INFO] Find Group Match: 0-2, Score: 0.000000\n"},
        {true, true, "[KESTOR INFO] Find Group Match: 0-2, Score: 0.250000\n"},
    };
    for (const Case& c : cases) {
        EngineState state(2);
        RGBDFusionImpl& f = state.engine();
        const std::vector<Pose> truth = {arcPose(0), arcPose(1), arcPose(5), arcPose(6), arcPose(1)};
        std::vector<_Frame*> frames;
        for (const Pose& p : truth) frames.push_back(state.addRenderedFrame(p, p));
        state.addGroup({frames[0], frames[1]});
        state.addGroup({frames[2], frames[3]});
        _Group* current = state.addGroup({frames[3], frames[4]});
        current->keyIndex = 1;
        f.para.groupMode = 0;
        f.para.globalMode = 0;
        for (_Group* g : state.groups()) finishGroup(f, *g);
        f.pairMatchFunc = [&](const _Frame* a, const _Frame* b, RT_<double>& rt, _MatchFlag) {
            if (a != frames[0]) return false;
            rt = toRT(relative(truth[0], truth[size_t(b->info.index)]) *
                      Pose::fromAxisAngle({1, 0, 1}, 0.017, {0.02, -0.01, 0}));
            return true;
        };
        if (c.scored) f.calcScoreFunc = [](const _Frame*, const _Frame*) { return 0.25f; };
        f.para.verbose = c.verbose;
        testing::internal::CaptureStdout();
        closeGroupLoops(f, f.groups.data(), 2, *current);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.log);
        ASSERT_EQ(current->loopEdges.size(), 1u);
        const GroupEdge& edge = current->loopEdges[0];
        EXPECT_EQ(edge.weight, kSearchedWeight);
        EXPECT_EQ(edge.from, 1);
        EXPECT_EQ(edge.to, 0);
        EXPECT_GT(edge.info[5][5], 0.0);
        EXPECT_LT(rotationDegrees(fromRT(edge.rt), relative(truth[0], truth[4])), 0.2);
        EXPECT_LT(translationMm(fromRT(edge.rt), relative(truth[0], truth[4])), 3.0);
    }
}
