// The background pass's graph over groups: a node per group at its key frame, link edges through
// the overlap frames, loop edges from loop closing and relocalisation.
#include <algorithm>
#include <mutex>

#include "pipeline/engine_graph.h"
#include "pipeline/group_math.h"

namespace kestor {

EngineGraph buildGroupGraph(const RGBDFusionImpl& instance, const std::vector<_Group*>& groups,
                            int count) {
    EngineGraph graph;
    for (int g = 0; g < count; ++g) graph.poses.push_back(keyFrameOf(*groups[size_t(g)])->pose);
    for (int g = 0; g + 1 < count; ++g) {
        const _Group& a = *groups[size_t(g)];
        if (!isFullGroup(instance, a)) continue;
        graph.addEdge(g + 1, g, linkTransform(instance, a, *groups[size_t(g + 1)]), a.linkInfo,
                      kTrackedWeight);
    }
    const uint8_t searchedWeight = instance.para.fullLoopWeight ? kTrackedWeight : kSearchedWeight;
    for (int c = 0; c < count; ++c) {
        const _Group& group = *groups[size_t(c)];
        for (const GroupEdge& e : group.loopEdges) {
            // A relocalisation edge was measured from member 0, not from the key frame.
            if (e.weight == kTrackedWeight && e.from == 0) {
                const RT_<double> memberToKey =
                    compose(inverseOf(group.frameRTs[0]), group.frameRTs[size_t(group.keyIndex)]);
                graph.addEdge(c, e.to, compose(e.rt, memberToKey), e.info, kTrackedWeight);
            } else {
                graph.addEdge(c, e.to, e.rt, e.info, searchedWeight);
            }
        }
    }
    return graph;
}

void applyGroupGraph(RGBDFusionImpl& instance, const std::vector<_Group*>& groups, int count,
                     const EngineGraph& graph) {
    const _Group& last = *groups[size_t(count - 1)];
    const _Frame* newest = last.frames[size_t(last.frameCount - 1)];
    const RT_<double> newLast =
        compose(graph.poses[size_t(count - 1)],
                compose(inverseOf(last.frameRTs[size_t(last.keyIndex)]),
                        last.frameRTs[size_t(last.frameCount - 1)]));
    const RT_<double> correction = compose(newest->pose, inverseOf(newLast));
    for (int g = 0; g < count; ++g) {
        const _Group& group = *groups[size_t(g)];
        const RT_<double> keyToWorld =
            compose(correction, compose(graph.poses[size_t(g)],
                                        inverseOf(group.frameRTs[size_t(group.keyIndex)])));
        const int members = std::min(instance.groupSize, group.frameCount);
        std::lock_guard<std::mutex> guard(instance.lock);
        for (int j = 0; j < members; ++j)
            group.frames[size_t(j)]->pose = compose(keyToWorld, group.frameRTs[size_t(j)]);
    }
}

}  // namespace kestor
