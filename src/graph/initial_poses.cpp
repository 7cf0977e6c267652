#include "graph/initial_poses.h"

#include <cstdint>
#include <cstdlib>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/log.h"

namespace kestor {

namespace {

struct Neighbour {
    int node;
    double score;
};

struct FrontierEntry {
    int from;
    double score;
};

// Key of an unordered pair: smaller node in the high half.
uint64_t pairKey(int a, int b) {
    if (a > b) std::swap(a, b);
    return (uint64_t(uint32_t(a)) << 32) | uint32_t(b);
}

const RT_<double>& identityPose() {
    static const RT_<double> identity = RT_<double>::identity();
    return identity;
}

}  // namespace

void findInitialPoses(const NodePair* pairs, const RT_<double>* pairTransforms,
                      const double* pairScores, int pairCount, RT_<double>* poses, int nodeCount,
                      bool preferNeighbours) {
    std::vector<std::vector<Neighbour>> adjacency(static_cast<size_t>(nodeCount));
    std::unordered_map<uint64_t, int> pairIndex;
    for (int e = 0; e < pairCount; ++e) {
        const int a = pairs[e].first, b = pairs[e].second;
        if (a < 0 || a >= nodeCount || b < 0 || b >= nodeCount || a == b) continue;
        adjacency[a].push_back(Neighbour{b, pairScores[e]});
        adjacency[b].push_back(Neighbour{a, pairScores[e]});
        // A repeated pair keeps its later record.
        pairIndex[pairKey(a, b)] = e;
    }

    std::vector<int> parent(size_t(nodeCount), -1);
    std::unordered_map<int, FrontierEntry> frontier;
    for (int root = 0; root < nodeCount; ++root) {
        if (parent[root] != -1) continue;
        parent[root] = root;
        poses[root] = identityPose();
        int current = root;
        int nextNeighbour = -1;
        frontier.clear();
        for (;;) {
            frontier.erase(current);
            for (const Neighbour& n : adjacency[current]) {
                if (parent[n.node] != -1) continue;
                const auto found = frontier.find(n.node);
                if (found == frontier.end() || n.score > found->second.score)
                    frontier[n.node] = FrontierEntry{current, n.score};
                if (preferNeighbours && std::abs(n.node - current) == 1) nextNeighbour = n.node;
            }
            if (frontier.empty()) break;

            int next = -1, from = -1;
            if (preferNeighbours && nextNeighbour != -1) {
                next = nextNeighbour;
                from = current;
                nextNeighbour = -1;
            } else {
                // Best score; at equal scores the shorter jump in node numbers.
                double bestScore = 0;
                int bestDistance = 0;
                for (const auto& entry : frontier) {
                    const int distance = std::abs(entry.first - entry.second.from);
                    if (next == -1 || entry.second.score > bestScore ||
                        (entry.second.score == bestScore && distance < bestDistance)) {
                        next = entry.first;
                        from = entry.second.from;
                        bestScore = entry.second.score;
                        bestDistance = distance;
                    }
                }
            }
            parent[next] = from;

            const int e = pairIndex.at(pairKey(next, from));
            RT_<double> M = pairTransforms[e];
            if (pairs[e].first != next) invertRT(pairTransforms[e], M);
            KESTOR_LOG("%d-%d\n", next, from);
            composeRT(poses[from], M, poses[next]);
            current = next;
        }
    }
}

}  // namespace kestor
