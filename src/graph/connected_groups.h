#pragma once
#include "graph/node_pair.h"

namespace kestor {

// Numbers the connected components of the match graph by size, largest first (group 0), ties in
// order of their lowest node. Pairs with an index outside 0..nodeCount-1, or joining a node to
// itself, are skipped; a node without valid pairs is a group of one. Returns the group count.
int findConnectedGroups(const NodePair* pairs, int pairCount, int* groups, int nodeCount);

}  // namespace kestor
