#include "pipeline/pose_optimisation.h"

#include <algorithm>

#include "core/log.h"
#include "pipeline/engine_graph.h"
#include "pipeline/loop_closing.h"

namespace kestor {

namespace {

// The group graph trusts its few strong edges less than the frame graph its many.
constexpr double kGroupGraphPreference = 10.0;
constexpr double kFrameGraphPreference = 100.0;

}  // namespace

void runOptimisationPass(RGBDFusionImpl& instance, const std::vector<_Group*>& groups, int start,
                         int count) {
    const KESTORPara& p = instance.para;
    if (p.globalMode == 0) return;
    if (p.verbose) KESTOR_LOG("optimizeProc %d\n", count);
    if (count < 1) return;
    for (int g = std::max(start, 0); g < count; ++g)
        closeGroupLoops(instance, groups.data(), g, *groups[size_t(g)]);
    if (p.globalMode == 1) {
        EngineGraph graph = buildGroupGraph(instance, groups, count);
        solveEngineGraph(instance, graph, kGroupGraphPreference, false);
        applyGroupGraph(instance, groups, count, graph);
    } else if (p.globalMode == 2) {
        EngineGraph graph = buildFrameGraph(instance, groups, count);
        solveEngineGraph(instance, graph, kFrameGraphPreference, false);
        applyFrameGraph(instance, groups, count, graph);
    }
}

}  // namespace kestor
