#pragma once
// The pose graphs the engine builds for itself (inside a group, over groups, over frames): plain
// edge arrays in the solver's layout, and one solve with the engine's fixed settings.
#include <vector>

#include "core/fusion_instance.h"
#include "graph/node_pair.h"

namespace kestor {

struct EngineGraph {
    std::vector<RT_<double>> poses;  // start values, then the solution
    std::vector<NodePair> pairs;     // from, to: T_from = T_to * relative
    std::vector<RT_<double>> relative;
    std::vector<InformationMatrix> infos;
    std::vector<uint8_t> weights;

    void addEdge(int from, int to, const RT_<double>& rt, const double info[6][6], uint8_t weight);
    int edgeCount() const { return int(pairs.size()); }
};

// Solves the graph in place when it has an edge and more than one node: 10000 iterations at most,
// the first level distance as the length scale, prune threshold 0.05, the instance's verbose
// flag, no progress. Returns the line-process weight of each edge (1.0 for every edge when
// nothing was solved).
std::vector<double> solveEngineGraph(const RGBDFusionImpl& instance, EngineGraph& graph,
                                     double preference, bool useThreads);

// The graph of a background pass over the first `count` groups: one node per group at its key
// frame (globalMode 1), or one per member short of a full group's overlap frame (globalMode 2).
EngineGraph buildGroupGraph(const RGBDFusionImpl& instance, const std::vector<_Group*>& groups,
                            int count);
EngineGraph buildFrameGraph(const RGBDFusionImpl& instance, const std::vector<_Group*>& groups,
                            int count);

// Publish a solved graph, under the lock a group or a frame at a time, moved as a whole so that
// the newest finished frame keeps its pose.
void applyGroupGraph(RGBDFusionImpl& instance, const std::vector<_Group*>& groups, int count,
                     const EngineGraph& graph);
void applyFrameGraph(RGBDFusionImpl& instance, const std::vector<_Group*>& groups, int count,
                     const EngineGraph& graph);

}  // namespace kestor
