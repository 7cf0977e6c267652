#include "pipeline/engine_graph.h"

#include <algorithm>

#include "graph/pose_graph.h"

namespace kestor {

namespace {

constexpr int kMaxIterations = 10000;
constexpr double kPruneThreshold = 0.05;

}  // namespace

void EngineGraph::addEdge(int from, int to, const RT_<double>& rt, const double info[6][6],
                          uint8_t weight) {
    pairs.push_back(NodePair{from, to});
    relative.push_back(rt);
    InformationMatrix m;
    std::copy_n(&info[0][0], 36, m.begin());
    infos.push_back(m);
    weights.push_back(weight);
}

std::vector<double> solveEngineGraph(const RGBDFusionImpl& instance, EngineGraph& graph,
                                     double preference, bool useThreads) {
    std::vector<double> results(graph.pairs.size(), 1.0);
    if (graph.edgeCount() < 1 || graph.poses.size() < 2 || instance.levelDistances.empty())
        return results;
    optimizePoseGraph(graph.pairs.data(), graph.relative.data(), graph.infos.data(),
                      graph.weights.data(), results.data(), graph.edgeCount(), graph.poses.data(),
                      int(graph.poses.size()), instance.levelDistances[0], preference,
                      kMaxIterations, kPruneThreshold, instance.para.verbose != 0, ProgressFunc(),
                      useThreads);
    return results;
}

}  // namespace kestor
