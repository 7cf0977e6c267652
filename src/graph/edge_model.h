#pragma once
#include <Eigen/Core>
#include <Eigen/SparseCore>
#include <cstdint>
#include <vector>

#include "core/parallel_for.h"
#include "graph/node_pair.h"

namespace kestor {

using Matrix4 = Eigen::Matrix<double, 4, 4, Eigen::RowMajor>;
using Matrix6 = Eigen::Matrix<double, 6, 6, Eigen::RowMajor>;
using Vector6 = Eigen::Matrix<double, 6, 1>;
using Matrix4Array = std::vector<Matrix4, Eigen::aligned_allocator<Matrix4>>;

// Flag bytes of an edge: 0 leaves it out, 255 trusts it (weight 1), anything else is robust.
constexpr uint8_t kEdgeIgnored = 0;
constexpr uint8_t kEdgeTrusted = 255;
constexpr uint8_t kEdgeRobust = 127;

// Every edge owns this many triplets of the sparse system: four 6x6 blocks.
constexpr int kTripletsPerEdge = 144;

// Skew part and translation of Q: ((Q21 - Q12)/2, (Q02 - Q20)/2, (Q10 - Q01)/2, Q03, Q13, Q23).
// No rotation logarithm: the small-angle form is what the edge model measures.
Vector6 misalignment(const Matrix4& Q);

// e = misalignment(inverse(Tj) * Ti * inverse(Z)) and J, its derivative with respect to a
// left increment of pose i (the derivative for pose j is exactly -J).
void edgeJacobian(const Matrix4& Ti, const Matrix4& Tj, const Matrix4& Z, Matrix6& J, Vector6& e);
// The same with inverse(Z) already formed, as the loops keep it for the whole run.
void edgeJacobianFromInverse(const Matrix4& Ti, const Matrix4& Tj, const Matrix4& Zinverse,
                             Matrix6& J, Vector6& e);

// Line-process weight of an edge: 1 when trusted, else (scale / (chi2 + scale))^2; below the
// prune threshold it becomes exactly 0, trusted edges included.
double edgeWeight(uint8_t flag, double chi2, double lineProcessScale, double pruneThreshold);
// l * chi2 plus the line-process penalty scale * (sqrt(l) - 1)^2.
double edgeCost(double weight, double chi2, double lineProcessScale);

// What both edge loops read and write. The loops write only entries indexed by the edge, and
// the gradient of their own slot.
struct EdgeLoopData {
    const NodePair* pairs = nullptr;
    const Matrix4* measurementInverses = nullptr;  // inverse(Z) per edge
    const InformationMatrix* information = nullptr;
    const uint8_t* flags = nullptr;
    int poseCount = 0;
    double lineProcessScale = 0;
    double pruneThreshold = 0;
    double* costs = nullptr;
    double* weights = nullptr;
    Eigen::Triplet<double>* triplets = nullptr;      // kTripletsPerEdge per edge
    Eigen::VectorXd* gradientParts = nullptr;        // one per slot
};

// True when the edge's flag is not 0 and both of its indices name a pose.
inline bool edgeIsActive(const EdgeLoopData& d, int edge) {
    const NodePair& p = d.pairs[edge];
    return d.flags[edge] != kEdgeIgnored && p.first >= 0 && p.first < d.poseCount &&
           p.second >= 0 && p.second < d.poseCount;
}

// Linearises edges [begin, end) at `poses`: new weights, costs, triplets, and the slot's gradient
// (cleared first).
void linearizeEdges(const EdgeLoopData& d, const Matrix4* poses, int begin, int end, int slot);
// Prices edges [begin, end) at trial `poses` with the weights as they stand.
void priceEdges(const EdgeLoopData& d, const Matrix4* poses, int begin, int end);

}  // namespace kestor
