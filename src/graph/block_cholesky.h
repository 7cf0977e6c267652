#pragma once
// Sparse Cholesky factorisation of a pose-graph system, by 6x6 blocks (one per pose) gathered
// into supernodes, so that the fill-in, which on graphs with many loop edges becomes nearly
// dense at the top of the elimination tree, is factorised by dense matrix products. The block
// pattern and its fill-reducing ordering are fixed by the edges; the values may change between
// factorisations.
#include <Eigen/Core>
#include <Eigen/SparseCore>
#include <cstdint>
#include <vector>

#include "graph/node_pair.h"

namespace kestor {

class BlockCholesky {
public:
    // The pattern: `blockCount` poses; each pair joins two of them (pairs naming a pose out of
    // range, or one pose twice, add nothing).
    void analyze(int blockCount, const std::vector<NodePair>& pairs);

    // Factorises hessian + damping * diag(hessian), reading only the blocks of the pattern
    // (entries elsewhere must be zero). False when a pivot is not positive, as for a pose that
    // no edge reaches. The hessian (compressed, both triangles) must keep its structure from
    // the first call after analyze() on: where each entry goes is worked out once.
    bool factorize(const Eigen::SparseMatrix<double>& hessian, double damping);

    // x = A^-1 b with the last successful factorisation.
    void solve(const Eigen::VectorXd& b, Eigen::VectorXd& x) const;

private:
    struct Supernode {
        int firstColumn, columnCount;  // block columns in elimination order
        int rowStart, rowCount;        // its block rows in `rows_`: its columns, then the rest
        size_t valueStart;             // column-major, 6 * rowCount scalar rows
        // Later supernodes that this one updates: for each, the range of this one's rows
        // (positions in its row list) that fall into that supernode's columns.
        std::vector<int> targets, targetRowBegin, targetRowEnd;
    };
    void mapEntries(const Eigen::SparseMatrix<double>& hessian);

    struct Update {
        int source, rowBegin, rowEnd;
    };

    int blockCount_ = 0;
    std::vector<int> newOf_, oldOf_;     // block position in elimination order and back
    std::vector<int> supernodeOf_;       // per block column in elimination order
    std::vector<int> rows_;              // block rows of all supernodes, back to back
    std::vector<Supernode> supernodes_;
    std::vector<std::vector<Update>> updates_;  // per supernode, the earlier ones that update it
    std::vector<double> values_;
    // Per entry of the hessian, its place in its supernode's values (-1: above the diagonal);
    // per unknown, the place of its diagonal entry.
    std::vector<int64_t> destination_, diagonal_;
    bool mapped_ = false;
    mutable std::vector<int> positionOf_;  // scratch: block row -> position in one row list
    mutable Eigen::VectorXd permuted_;
};

}  // namespace kestor
