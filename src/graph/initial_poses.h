#pragma once
#include "core/rigid_transform.h"
#include "graph/node_pair.h"

namespace kestor {

// One pose per node from pairwise transforms (pose[first] = pose[second] * transform), along a
// maximum spanning tree over the scores grown from the lowest node of each component, whose root
// is the identity. With preferNeighbours a neighbour whose number differs by one is taken next
// whatever the scores. Every pose is written; components are unrelated to each other. Each tree
// edge is logged as "next-from".
void findInitialPoses(const NodePair* pairs, const RT_<double>* pairTransforms,
                      const double* pairScores, int pairCount, RT_<double>* poses, int nodeCount,
                      bool preferNeighbours);

}  // namespace kestor
