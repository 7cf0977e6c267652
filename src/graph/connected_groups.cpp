#include "graph/connected_groups.h"

#include <algorithm>
#include <vector>

namespace kestor {

namespace {

struct Component {
    int number;
    int size;
};

}  // namespace

int findConnectedGroups(const NodePair* pairs, int pairCount, int* groups, int nodeCount) {
    std::vector<std::vector<int>> adjacency(static_cast<size_t>(nodeCount));
    for (int e = 0; e < pairCount; ++e) {
        const int a = pairs[e].first, b = pairs[e].second;
        if (a < 0 || a >= nodeCount || b < 0 || b >= nodeCount || a == b) continue;
        adjacency[a].push_back(b);
        adjacency[b].push_back(a);
    }

    std::fill(groups, groups + nodeCount, -1);
    std::vector<Component> components;
    std::vector<int> stack;
    for (int root = 0; root < nodeCount; ++root) {
        if (groups[root] != -1) continue;
        const int number = int(components.size());
        int size = 1;
        groups[root] = number;
        stack.assign(1, root);
        while (!stack.empty()) {
            const int node = stack.back();
            stack.pop_back();
            for (int next : adjacency[node]) {
                if (groups[next] != -1) continue;
                groups[next] = number;
                ++size;
                stack.push_back(next);
            }
        }
        components.push_back(Component{number, size});
    }

    // Largest first; equal sizes keep the order of discovery, that is of their lowest node.
    std::stable_sort(components.begin(), components.end(),
                     [](const Component& a, const Component& b) { return a.size > b.size; });
    std::vector<int> place(components.size());
    for (size_t k = 0; k < components.size(); ++k) place[components[k].number] = int(k);
    for (int n = 0; n < nodeCount; ++n) groups[n] = place[groups[n]];
    return int(components.size());
}

}  // namespace kestor
