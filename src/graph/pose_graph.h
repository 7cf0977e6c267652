#pragma once
#include <cstdint>

#include "core/progress.h"
#include "core/rigid_transform.h"
#include "graph/node_pair.h"

namespace kestor {

// Robust sparse Levenberg-Marquardt over a pose graph. Edge e joins poses i = first and
// j = second with measurement Z (T_i = T_j * Z) and information matrix W; a line-process weight
// per edge, re-estimated at every linearisation, switches wrong edges off.
//
// edgeFlags may be null (every edge robust, 127); edgeWeights may be null (kept internally),
// otherwise each active edge receives the weight of its last linearisation. On a finished run
// poses 1..poseCount-1 are rewritten, re-based so that poses[0] keeps its value; poses[0] itself
// is never written. Returns false when the progress asked to stop or the step became
// not-a-number; poses are then unwritten (except a stop asked at the final 100, which only
// changes the result). `progress` may be empty. `useThreads` runs the edge loops on the OpenMP
// team. Arguments are not checked: counts are taken to be at least 1 and pointers valid.
bool optimizePoseGraph(const NodePair* edgePairs, const RT_<double>* edgeTransforms,
                       const InformationMatrix* edgeInformation, const uint8_t* edgeFlags,
                       double* edgeWeights, int edgeCount, RT_<double>* poses, int poseCount,
                       double distanceScale, double preference, int maxIterations,
                       double pruneThreshold, bool verbose, const ProgressFunc& progress,
                       bool useThreads);

}  // namespace kestor
