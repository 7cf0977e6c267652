#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <random>
#include <vector>

#include "graph/block_cholesky.h"

using kestor::BlockCholesky;
using kestor::NodePair;

namespace {

// hessian of a graph as the pose-graph solver forms it: per edge a random positive block B on
// (i, i) and (j, j) and -B on (i, j), (j, i); both triangles stored, compressed.
Eigen::SparseMatrix<double> graphHessian(int poses, const std::vector<NodePair>& pairs,
                                         std::mt19937& rng) {
    std::normal_distribution<double> normal;
    std::vector<Eigen::Triplet<double>> t;
    for (const NodePair& p : pairs) {
        if (p.first < 0 || p.first >= poses || p.second < 0 || p.second >= poses) continue;
        Eigen::Matrix<double, 6, 6> J;
        for (int k = 0; k < 36; ++k) J(k / 6, k % 6) = normal(rng);
        const Eigen::Matrix<double, 6, 6> B = J.transpose() * J;
        for (int r = 0; r < 6; ++r) {
            for (int c = 0; c < 6; ++c) {
                t.emplace_back(6 * p.first + r, 6 * p.first + c, B(r, c));
                t.emplace_back(6 * p.second + r, 6 * p.second + c, B(r, c));
                t.emplace_back(6 * p.first + r, 6 * p.second + c, -B(r, c));
                t.emplace_back(6 * p.second + r, 6 * p.first + c, -B(r, c));
            }
        }
    }
    Eigen::SparseMatrix<double> H(6 * poses, 6 * poses);
    H.setFromTriplets(t.begin(), t.end());
    return H;
}

// A chain of poses, loops between laps of `lap` poses, plus pairs the pattern must ignore.
std::vector<NodePair> loopGraph(int poses, int lap, int loops, std::mt19937& rng) {
    std::vector<NodePair> pairs;
    for (int k = 0; k + 1 < poses; ++k) pairs.push_back({k + 1, k});
    std::uniform_int_distribution<int> any(0, poses - 1);
    for (int l = 0; l < loops; ++l) {
        const int i = any(rng);
        pairs.push_back({i, std::max(0, i - lap * (1 + l % 3))});
    }
    pairs.push_back({3, 3});
    pairs.push_back({-1, 2});
    pairs.push_back({1, poses});
    return pairs;
}

}  // namespace

// Against a dense solve of the same damped matrix, on graphs from a bare chain to one whose
// factor is mostly dense, and again with new values and damping on the same pattern.
TEST(BlockCholesky, SolvesTheDampedSystemLikeADenseFactorisation) {
    std::mt19937 rng(3);
    struct Case {
        int poses, lap, loops;
    };
    for (const Case& c : {Case{2, 1, 0}, Case{40, 5, 0}, Case{300, 20, 30}, Case{400, 50, 200}}) {
        SCOPED_TRACE(testing::Message() << c.poses << " poses, " << c.loops << " loops");
        const std::vector<NodePair> pairs = loopGraph(c.poses, c.lap, c.loops, rng);
        BlockCholesky solver;
        solver.analyze(c.poses, pairs);
        for (double damping : {1e-6, 0.5}) {
            const Eigen::SparseMatrix<double> H = graphHessian(c.poses, pairs, rng);
            ASSERT_TRUE(solver.factorize(H, damping));
            Eigen::MatrixXd A(H);
            A.diagonal() *= 1 + damping;
            const Eigen::VectorXd b = Eigen::VectorXd::Random(6 * c.poses);
            Eigen::VectorXd x;
            solver.solve(b, x);
            const Eigen::VectorXd expected = A.ldlt().solve(b);
            EXPECT_LT((x - expected).norm(), 1e-8 * expected.norm());
            EXPECT_LT((A * x - b).norm(), 1e-9 * b.norm());
        }
    }
}

// A pose that no pair reaches has an empty row: the factorisation reports it, whatever the
// damping, so that the caller can take the dense path.
TEST(BlockCholesky, UnreachedPoseFails) {
    std::mt19937 rng(5);
    const std::vector<NodePair> pairs = {{1, 0}, {2, 1}, {0, 2}};
    BlockCholesky solver;
    solver.analyze(4, pairs);
    EXPECT_FALSE(solver.factorize(graphHessian(4, pairs, rng), 1.0));
    solver.analyze(3, pairs);
    EXPECT_TRUE(solver.factorize(graphHessian(3, pairs, rng), 1e-6));
}
