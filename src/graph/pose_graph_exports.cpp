// Exports of the pose graph: argument checks, then the interface arrays as the workers' records.
#include <cstring>
#include <vector>

#include "core/argument_sizes.h"
#include "core/progress.h"
#include "graph/connected_groups.h"
#include "graph/initial_poses.h"
#include "graph/pose_graph.h"
#include "kestor.h"

using namespace kestor;

namespace {

std::vector<NodePair> pairsFrom(const int* pairs, int count) {
    std::vector<NodePair> out(static_cast<size_t>(count));
    for (int e = 0; e < count; ++e) out[e] = NodePair{pairs[2 * e], pairs[2 * e + 1]};
    return out;
}

std::vector<RT_<double>> transformsFrom(const double* poses, int count) {
    std::vector<RT_<double>> out(static_cast<size_t>(count));
    // The view is only read.
    for (int k = 0; k < count; ++k)
        out[k] = poseToDouble(poseView(const_cast<double*>(poses + 12 * k)));
    return out;
}

}  // namespace

extern "C" {

int KESTOROptimizePoseGraph(const int* edgePairs, const double* edgeTransforms,
                            const double* edgeInformation, const unsigned char* edgeFlags,
                            double* edgeWeights, int edgeCount, double* poses, int poseCount,
                            int maxIterations, double preference, double distanceScale,
                            double pruneThreshold, bool useThreads, bool verbose,
                            KESTORProgressFunc progress, void* progressContext) {
    if (edgePairs == nullptr || edgeTransforms == nullptr || edgeInformation == nullptr ||
        poses == nullptr || !countFits(edgeCount, 36) || poseCount < 2 ||
        !countFits(poseCount, 12))
        return KESTOR_STATUS_BAD_ARGUMENT;
    const std::vector<NodePair> pairs = pairsFrom(edgePairs, edgeCount);
    const std::vector<RT_<double>> measurements = transformsFrom(edgeTransforms, edgeCount);
    std::vector<InformationMatrix> information(static_cast<size_t>(edgeCount));
    std::memcpy(information.data(), edgeInformation, sizeof(InformationMatrix) * size_t(edgeCount));
    std::vector<RT_<double>> solved = transformsFrom(poses, poseCount);

    // The solver reports 100 only once its poses are final, so they go out to the caller before
    // that call: a progress function sees the result it may still reject. Unwritten poses come
    // back as the same doubles; the first is never written.
    const auto writeBack = [&] {
        for (int k = 1; k < poseCount; ++k) poseFromDouble(solved[k], poseView(poses + 12 * k));
    };
    const ProgressFunc report = wrapProgress(progress, progressContext);
    const ProgressFunc forward = [&](int percent, bool& stop) {
        if (percent == 100) writeBack();
        report(percent, stop);
    };
    // The solver's own result is dropped on purpose: a stopped or failed run leaves the poses
    // as they were, which is all a caller can see of it.
    optimizePoseGraph(pairs.data(), measurements.data(), information.data(), edgeFlags, edgeWeights,
                      edgeCount, solved.data(), poseCount, distanceScale, preference,
                      maxIterations, pruneThreshold, verbose, forward, useThreads);
    writeBack();
    return KESTOR_STATUS_OK;
}

// These two answer bad arguments with 1, not 4.
int KESTORFindConnectedGroups(const int* pairs, int pairCount, int* groups, int nodeCount) {
    if (pairs == nullptr || !countFits(pairCount, 2) || groups == nullptr || nodeCount < 1)
        return KESTOR_STATUS_FAILED;
    const std::vector<NodePair> nodePairs = pairsFrom(pairs, pairCount);
    findConnectedGroups(nodePairs.data(), pairCount, groups, nodeCount);
    return KESTOR_STATUS_OK;
}

int KESTORFindInitRTsFromPairMatch(const int* pairs, const double* pairTransforms,
                                   const double* pairScores, int pairCount, double* poses,
                                   int nodeCount, bool preferNeighbours) {
    if (pairs == nullptr || pairTransforms == nullptr || pairScores == nullptr ||
        !countFits(pairCount, 12) || poses == nullptr || !countFits(nodeCount, 12))
        return KESTOR_STATUS_FAILED;
    const std::vector<NodePair> nodePairs = pairsFrom(pairs, pairCount);
    const std::vector<RT_<double>> transforms = transformsFrom(pairTransforms, pairCount);
    std::vector<RT_<double>> found(static_cast<size_t>(nodeCount));
    findInitialPoses(nodePairs.data(), transforms.data(), pairScores, pairCount, found.data(),
                     nodeCount, preferNeighbours);
    for (int k = 0; k < nodeCount; ++k) poseFromDouble(found[k], poseView(poses + 12 * k));
    return KESTOR_STATUS_OK;
}

}  // extern "C"
