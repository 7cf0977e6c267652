#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <Eigen/SparseCore>
#include <cmath>
#include <vector>

#include "core/rigid_transform.h"
#include "graph/edge_model.h"

using namespace kestor;

namespace {

Matrix4 rigid(double a, double b, double c, double x, double y, double z) {
    double r[9];
    eulerToRotation(a, b, c, r);
    Matrix4 m;
    m << r[0], r[1], r[2], x, r[3], r[4], r[5], y, r[6], r[7], r[8], z, 0, 0, 0, 1;
    return m;
}

// Error vector of an edge, straight from its definition.
Vector6 edgeError(const Matrix4& Ti, const Matrix4& Tj, const Matrix4& Z) {
    return misalignment(Tj.inverse() * Ti * Z.inverse());
}

}  // namespace

TEST(EdgeModel, JacobianIsTheDerivativeOfLeftIncrements) {
    const Matrix4 Ti = rigid(0.3, -0.2, 1.1, 0.5, -1.0, 2.0);
    const Matrix4 Tj = rigid(-0.1, 0.4, 0.9, 0.2, 0.3, 1.5);
    const Matrix4 Z = Tj.inverse() * Ti * rigid(0.02, -0.01, 0.03, 0.05, -0.02, 0.01);
    Matrix6 J;
    Vector6 e;
    edgeJacobian(Ti, Tj, Z, J, e);
    EXPECT_LT((e - edgeError(Ti, Tj, Z)).norm(), 1e-12);
    const double h = 1e-6;
    for (int k = 0; k < 6; ++k) {
        double s[6] = {0, 0, 0, 0, 0, 0};
        s[k] = h;
        const Matrix4 up = rigid(s[0], s[1], s[2], s[3], s[4], s[5]);
        s[k] = -h;
        const Matrix4 down = rigid(s[0], s[1], s[2], s[3], s[4], s[5]);
        const Vector6 di = (edgeError(up * Ti, Tj, Z) - edgeError(down * Ti, Tj, Z)) / (2 * h);
        const Vector6 dj = (edgeError(Ti, up * Tj, Z) - edgeError(Ti, down * Tj, Z)) / (2 * h);
        EXPECT_LT((di - J.col(k)).norm(), 1e-6) << k;
        EXPECT_LT((dj + J.col(k)).norm(), 1e-6) << k;  // pose j: exactly -J
    }
}

TEST(EdgeModel, WeightsPruneAndCost) {
    struct Case {
        uint8_t flag;
        double chi2, scale, prune, weight, cost;
    };
    for (const Case c : {Case{kEdgeRobust, 0, 0.7, 0.05, 1, 0},      // satisfied: no cost
                         Case{kEdgeRobust, 2, 2, 0.05, 0.25, 0.5 + 0.5},  // chi2 = scale: 1/4
                         Case{kEdgeRobust, 1, 0, 0.05, 0, 0},        // no kernel: robust drops
                         Case{kEdgeTrusted, 1, 0, 0.05, 1, 1},       // a 255 pays chi2
                         Case{kEdgeTrusted, 1, 3, 1.5, 0, 3}}) {     // above 1 prunes it too
        SCOPED_TRACE(c.chi2 + 10 * c.scale);
        const double weight = edgeWeight(c.flag, c.chi2, c.scale, c.prune);
        EXPECT_DOUBLE_EQ(weight, c.weight);
        EXPECT_DOUBLE_EQ(edgeCost(weight, c.chi2, c.scale), c.cost);
    }
}

TEST(EdgeModel, LoopsWriteOnlyActiveEdgesOnTheBlocksOfBothPoses) {
    const Matrix4 Ti = rigid(0.2, 0.1, -0.3, 1, 0.5, 0), Tj = rigid(-0.2, 0.3, 0.1, 0, 1, 0.2);
    const Matrix4 Z = rigid(0.1, 0, 0.2, 0.3, 0.1, 0);
    // Edge 1 is off and edge 2 names pose 4 of 4: both keep their entries. Edge 3 joins a pose
    // to itself: its blocks cancel and only its cost is left.
    const std::vector<NodePair> pairs = {{3, 1}, {0, 2}, {4, 0}, {2, 2}};
    const std::vector<uint8_t> flags = {kEdgeTrusted, kEdgeIgnored, kEdgeRobust, kEdgeTrusted};
    const Matrix4Array poses = {Matrix4::Identity(), Tj, rigid(0.3, 0, 0, 1, 1, 1), Ti};
    const Matrix4Array inverses(4, Z.inverse());
    InformationMatrix W{};
    for (int d = 0; d < 6; ++d) W[d * 7] = 1.0;
    const std::vector<InformationMatrix> information(4, W);
    std::vector<double> costs(4, -1.0), weights(4, -1.0);
    std::vector<Eigen::Triplet<double>> triplets(4 * kTripletsPerEdge, {0, 0, 0.0});
    std::vector<Eigen::VectorXd> gradient(1, Eigen::VectorXd::Constant(24, 9.0));
    const EdgeLoopData d{pairs.data(), inverses.data(), information.data(), flags.data(), 4, 1.0,
                         0.05, costs.data(), weights.data(), triplets.data(), gradient.data()};
    linearizeEdges(d, poses.data(), 0, 4, 0);
    for (int k = kTripletsPerEdge; k < 3 * kTripletsPerEdge; ++k)
        EXPECT_TRUE(triplets[k].row() == 0 && triplets[k].col() == 0 && triplets[k].value() == 0) << k;
    EXPECT_EQ(costs[1] + weights[1] + costs[2] + weights[2], -4.0);
    EXPECT_GT(costs[3], 0.01);

    Matrix6 J;
    Vector6 e;
    edgeJacobian(Ti, Tj, Z, J, e);
    Eigen::MatrixXd H = Eigen::MatrixXd::Zero(24, 24);
    Eigen::VectorXd b = Eigen::VectorXd::Zero(24);
    H.block<6, 6>(18, 18) = H.block<6, 6>(6, 6) = J.transpose() * J;
    H.block<6, 6>(18, 6) = H.block<6, 6>(6, 18) = -J.transpose() * J;
    b.segment<6>(18) = J.transpose() * e;
    b.segment<6>(6) = -J.transpose() * e;
    Eigen::SparseMatrix<double> sum(24, 24);
    sum.setFromTriplets(triplets.begin(), triplets.end());
    EXPECT_LT((Eigen::MatrixXd(sum) - H).norm(), 1e-12);
    EXPECT_LT((gradient[0] - b).norm(), 1e-12);  // cleared on entry

    // The trial pricing keeps the weights and reads the trial poses: there edge 0 is satisfied.
    weights[0] = 0.5;
    const Matrix4Array trial = {Matrix4::Identity(), Tj, poses[2], Tj * Z};
    priceEdges(d, trial.data(), 0, 4);
    EXPECT_EQ(weights[0], 0.5);
    EXPECT_NEAR(costs[0], (std::sqrt(0.5) - 1) * (std::sqrt(0.5) - 1), 1e-12);
    EXPECT_EQ(costs[1], -1.0);
}
