#include <algorithm>
#include <vector>

#include "pipeline/builtin_match.h"
#include "pipeline/engine_graph.h"
#include "pipeline/group_alignment.h"
#include "pipeline/group_math.h"

namespace kestor {

namespace {

// An inner edge whose line-process weight ends below this is dropped from later graphs.
constexpr double kWeakEdge = 0.3;
constexpr double kInGroupPreference = 1.0;

// Edges between members that are not neighbours: the application's estimate (a call through an
// empty slot throws), refined by the built-in match; either failing leaves the pair out.
void matchInnerPairs(const RGBDFusionImpl& instance, _Group& group) {
    const int count = group.frameCount;
    for (int i = 0; i < count; ++i) {
        for (int j = i + 2; j < count; ++j) {
            const _Frame* first = group.frames[size_t(i)];
            const _Frame* second = group.frames[size_t(j)];
            GroupEdge edge{};
            edge.rt = compose(inverseOf(first->pose), second->pose);
            edge.from = j;
            edge.to = i;
            edge.weight = kSearchedWeight;
            if (!instance.pairMatchFunc(first, second, edge.rt, MATCH_INNER)) continue;
            if (builtInMatch(instance, first->levels, second->levels, edge.rt, edge.info))
                group.innerEdges.push_back(edge);
        }
    }
}

// The member with the most support, by the whole-number point counts of its edges; the shared
// last frame of a full group is never chosen, and the first of equals wins.
int bestConnectedMember(const RGBDFusionImpl& instance, const _Group& group) {
    std::vector<long long> scores(size_t(group.frameCount), 0);
    const auto count = [&](const std::vector<GroupEdge>& edges) {
        for (const GroupEdge& e : edges) {
            const long long points = static_cast<long long>(e.info[5][5]);
            if (e.from >= 0 && e.from < group.frameCount) scores[size_t(e.from)] += points;
            if (e.to >= 0 && e.to < group.frameCount) scores[size_t(e.to)] += points;
        }
    };
    count(group.chainEdges);
    count(group.innerEdges);
    const int candidates = std::min(instance.groupSize, group.frameCount);
    int best = 0;
    for (int j = 1; j < candidates; ++j)
        if (scores[size_t(j)] > scores[size_t(best)]) best = j;
    return best;
}

}  // namespace

void alignGroupByPoseGraph(const RGBDFusionImpl& instance, _Group& group) {
    matchInnerPairs(instance, group);
    EngineGraph graph;
    for (int j = 0; j < group.frameCount; ++j) graph.poses.push_back(group.frames[size_t(j)]->pose);
    for (const GroupEdge& e : group.chainEdges) graph.addEdge(e.from, e.to, e.rt, e.info, e.weight);
    for (const GroupEdge& e : group.innerEdges) graph.addEdge(e.from, e.to, e.rt, e.info, e.weight);
    const std::vector<double> results =
        solveEngineGraph(instance, graph, kInGroupPreference, true);
    const size_t chainCount = group.chainEdges.size();
    for (size_t e = 0; e < group.innerEdges.size(); ++e)
        if (results[chainCount + e] < kWeakEdge) group.innerEdges[e].weight = 0;

    group.keyIndex = bestConnectedMember(instance, group);
    group.frameRTs = relativeToKey(graph.poses, group.keyIndex);
}

}  // namespace kestor
