// The pose graph and its helpers on small graphs: edges whose ends are out of range or equal,
// NaN and huge measurements and information, disconnected graphs, any flags.
#include <vector>

#include "fuzz_input.h"
#include "kestor.h"

using kestor_fuzz::FuzzInput;

namespace {

void stopAt(int percent, bool* stop, void* context) {
    if (percent >= *static_cast<int*>(context)) *stop = true;
}

// Node indices: mostly in range, sometimes just outside, negative or far away. Only the lower
// half of the nodes is used when the graph is to fall apart.
std::vector<int> edgeEnds(FuzzInput& in, int edgeCount, int nodeCount) {
    const int reach = in.flag() ? nodeCount - 1 : (nodeCount - 1) / 2;
    std::vector<int> pairs(size_t(edgeCount) * 2);
    for (int& v : pairs) v = in.size(0, 9) == 0 ? in.anyInt(-3, nodeCount + 2) : in.size(0, reach);
    return pairs;
}

std::vector<double> information(FuzzInput& in, int edgeCount) {
    std::vector<double> info(size_t(edgeCount) * 36, 0.0);
    for (int e = 0; e < edgeCount; ++e) {
        double* m = &info[size_t(e) * 36];
        const double scale = in.number(0.0, 1000.0);
        for (int i = 0; i < 6; ++i) m[i * 7] = scale;
        if (in.flag())  // broken entries anywhere, symmetry not kept
            for (int k = in.size(1, 4); k > 0; --k) m[in.size(0, 35)] = in.number(-1e3, 1e3);
    }
    return info;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const int op = in.size(0, 2);
    const int nodeCount = in.size(1, 12), edgeCount = in.size(1, 24);
    const std::vector<int> pairs = edgeEnds(in, edgeCount, nodeCount);
    const std::vector<double> transforms = in.poses(edgeCount);

    switch (op) {
    case 0: {
        const int poseCount = nodeCount < 2 ? 2 : nodeCount;
        const std::vector<double> info = information(in, edgeCount);
        std::vector<uint8_t> flags(static_cast<size_t>(edgeCount));
        for (uint8_t& f : flags) {
            const int kind = in.size(0, 3);
            f = kind == 0 ? 0 : kind == 1 ? 255 : kind == 2 ? 127 : in.byte();
        }
        std::vector<double> weights(static_cast<size_t>(edgeCount));
        std::vector<double> poses = in.poses(poseCount);
        int stopPercent = in.size(0, 120);
        KESTOROptimizePoseGraph(pairs.data(), transforms.data(), info.data(),
                                in.flag() ? flags.data() : nullptr,
                                in.flag() ? weights.data() : nullptr, edgeCount, poses.data(),
                                poseCount, in.size(-1, 8), in.number(0.0, 2.0),
                                in.number(0.0, 2.0), in.number(0.0, 1.0), in.flag(), false,
                                in.flag() ? stopAt : nullptr, &stopPercent);
        break;
    }
    case 1: {
        std::vector<int> groups(static_cast<size_t>(nodeCount));
        KESTORFindConnectedGroups(pairs.data(), edgeCount, groups.data(), nodeCount);
        break;
    }
    case 2: {
        std::vector<double> scores(static_cast<size_t>(edgeCount));
        for (double& s : scores) s = in.number(0.0, 1.0);
        std::vector<double> poses(size_t(nodeCount) * 12);
        KESTORFindInitRTsFromPairMatch(pairs.data(), transforms.data(), scores.data(), edgeCount,
                                       poses.data(), nodeCount, in.flag());
        break;
    }
    }
    return 0;
}
