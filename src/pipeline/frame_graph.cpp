// The background pass's graph over frames: a node per member (a full group's overlap frame is
// the next group's first node), the recorded chain, inner and loop edges, and with joint
// in-group alignment the link edges between key frames.
#include <algorithm>
#include <mutex>

#include "pipeline/engine_graph.h"
#include "pipeline/group_math.h"

namespace kestor {

namespace {

int membersOf(const RGBDFusionImpl& instance, const _Group& group) {
    return std::min(instance.groupSize, group.frameCount);
}

// First node of each group.
std::vector<int> groupBases(const RGBDFusionImpl& instance, const std::vector<_Group*>& groups,
                            int count) {
    std::vector<int> base;
    int nodes = 0;
    for (int g = 0; g < count; ++g) {
        base.push_back(nodes);
        nodes += membersOf(instance, *groups[size_t(g)]);
    }
    return base;
}

}  // namespace

EngineGraph buildFrameGraph(const RGBDFusionImpl& instance, const std::vector<_Group*>& groups,
                            int count) {
    EngineGraph graph;
    const std::vector<int> base = groupBases(instance, groups, count);
    for (int g = 0; g < count; ++g) {
        const _Group& group = *groups[size_t(g)];
        for (int j = 0; j < membersOf(instance, group); ++j)
            graph.poses.push_back(group.frames[size_t(j)]->pose);
    }
    const bool fullLoops = instance.para.fullLoopWeight != 0;
    for (int g = 0; g < count; ++g) {
        const _Group& group = *groups[size_t(g)];
        const int b = base[size_t(g)];
        // A chain edge into the overlap frame lands on the next group's first node; past the
        // last node, the solver skips it.
        for (const GroupEdge& e : group.chainEdges)
            graph.addEdge(b + e.from, b + e.to, e.rt, e.info, e.weight);
        for (const GroupEdge& e : group.innerEdges)
            graph.addEdge(b + e.from, b + e.to, e.rt, e.info, e.weight);
        for (const GroupEdge& e : group.loopEdges) {
            // A loop edge names another group; one outside this pass points nowhere.
            const int to = e.to >= 0 && e.to < count
                               ? base[size_t(e.to)] + groups[size_t(e.to)]->keyIndex
                               : -1;
            graph.addEdge(b + e.from, to, e.rt, e.info, fullLoops ? kTrackedWeight : e.weight);
        }
    }
    if (instance.para.groupMode == 2) {
        for (int g = 0; g + 1 < count; ++g) {
            const _Group& a = *groups[size_t(g)];
            const _Group& next = *groups[size_t(g + 1)];
            if (!isFullGroup(instance, a)) continue;
            graph.addEdge(base[size_t(g + 1)] + next.keyIndex, base[size_t(g)] + a.keyIndex,
                          linkTransform(instance, a, next), a.linkInfo, kTrackedWeight);
        }
    }
    return graph;
}

void applyFrameGraph(RGBDFusionImpl& instance, const std::vector<_Group*>& groups, int count,
                     const EngineGraph& graph) {
    std::vector<_Frame*> nodes;
    for (int g = 0; g < count; ++g) {
        const _Group& group = *groups[size_t(g)];
        for (int j = 0; j < membersOf(instance, group); ++j) nodes.push_back(group.frames[size_t(j)]);
    }
    if (nodes.empty()) return;
    const RT_<double> correction =
        compose(nodes.back()->pose, inverseOf(graph.poses.back()));
    for (size_t n = 0; n < nodes.size(); ++n) {
        std::lock_guard<std::mutex> guard(instance.lock);
        nodes[n]->pose = compose(correction, graph.poses[n]);
    }
}

}  // namespace kestor
