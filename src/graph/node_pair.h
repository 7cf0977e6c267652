#pragma once
#include <array>
#include <cstdint>

namespace kestor {

// Two node numbers of a graph edge or matched pair, laid out as the two ints of the interface.
// For a pose-graph edge `first` is i and `second` is j: the edge holds when T_i = T_j * Z.
struct NodePair {
    int32_t first;
    int32_t second;
};

// A 6x6 information matrix, row-major, rows and columns in the order of the misalignment vector
// (three angles, then three translations).
using InformationMatrix = std::array<double, 36>;

}  // namespace kestor
