#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <Eigen/SparseCore>
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

// One graph of `poses` poses and the given edges, with every array the loops need.
struct LoopFixture {
    std::vector<NodePair> pairs;
    Matrix4Array inverses, poses;
    std::vector<InformationMatrix> information;
    std::vector<uint8_t> flags;
    std::vector<double> costs, weights;
    std::vector<Eigen::Triplet<double>> triplets;
    std::vector<Eigen::VectorXd> gradients;
    EdgeLoopData data;

    void finish(int poseCount, double scale, double prune) {
        const size_t n = pairs.size();
        costs.assign(n, -1.0);
        weights.assign(n, -1.0);
        triplets.assign(n * kTripletsPerEdge, Eigen::Triplet<double>(0, 0, 0.0));
        gradients.assign(1, Eigen::VectorXd::Constant(6 * poseCount, 9.0));
        data.pairs = pairs.data();
        data.measurementInverses = inverses.data();
        data.information = information.data();
        data.flags = flags.data();
        data.poseCount = poseCount;
        data.lineProcessScale = scale;
        data.pruneThreshold = prune;
        data.costs = costs.data();
        data.weights = weights.data();
        data.triplets = triplets.data();
        data.gradientParts = gradients.data();
    }
    void add(int i, int j, const Matrix4& Z, uint8_t flag) {
        pairs.push_back({i, j});
        inverses.push_back(Z.inverse());
        InformationMatrix W{};
        for (int d = 0; d < 6; ++d) W[d * 7] = 1.0;
        information.push_back(W);
        flags.push_back(flag);
    }
    Eigen::MatrixXd hessian(int poseCount) const {
        Eigen::SparseMatrix<double> H(6 * poseCount, 6 * poseCount);
        H.setFromTriplets(triplets.begin(), triplets.end());
        return Eigen::MatrixXd(H);
    }
};

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

TEST(EdgeModel, SatisfiedEdgeCostsNothing) {
    const Matrix4 Tj = rigid(0.1, 0.2, 0.3, 1, 2, 3);
    const Matrix4 Z = rigid(-0.3, 0.1, 0.2, 0.5, 0, -0.5);
    LoopFixture f;
    f.poses = {Tj * Z, Tj};  // T_i = T_j * Z
    f.add(0, 1, Z, kEdgeRobust);
    f.finish(2, 0.7, 0.05);
    linearizeEdges(f.data, f.poses.data(), 0, 1, 0);
    EXPECT_NEAR(f.costs[0], 0.0, 1e-20);
    EXPECT_NEAR(f.weights[0], 1.0, 1e-12);
    EXPECT_LT(f.gradients[0].norm(), 1e-9);  // cleared on entry, bi = 0
}

TEST(EdgeModel, WeightsPruneAndCost) {
    // T_i one unit along x from what Z says: e = (0, 0, 0, 1, 0, 0), chi2 = 1 under W = I.
    const Matrix4 Z = Matrix4::Identity();
    LoopFixture f;
    f.poses = {rigid(0, 0, 0, 1, 0, 0), Matrix4::Identity()};
    f.add(0, 1, Z, kEdgeRobust);
    f.add(0, 1, Z, kEdgeTrusted);
    f.finish(2, 1.0, 0.05);
    linearizeEdges(f.data, f.poses.data(), 0, 2, 0);
    EXPECT_DOUBLE_EQ(f.weights[0], 0.25);  // chi2 equal to the scale
    EXPECT_DOUBLE_EQ(f.costs[0], 0.25 + 0.25);
    EXPECT_EQ(f.weights[1], 1.0);
    EXPECT_DOUBLE_EQ(f.costs[1], 1.0);

    f.finish(2, 0.0, 0.05);  // no kernel: a robust edge drops out, a trusted one pays chi2
    linearizeEdges(f.data, f.poses.data(), 0, 2, 0);
    EXPECT_EQ(f.weights[0], 0.0);
    EXPECT_EQ(f.weights[1], 1.0);
    EXPECT_DOUBLE_EQ(f.costs[1], 1.0);

    f.finish(2, 3.0, 1.5);  // a threshold above 1 prunes the trusted edge too
    linearizeEdges(f.data, f.poses.data(), 0, 2, 0);
    EXPECT_EQ(f.weights[1], 0.0);
    EXPECT_DOUBLE_EQ(f.costs[1], 3.0);
    EXPECT_EQ(f.hessian(2).norm(), 0.0);  // pruned edges stay in with zero entries
    EXPECT_EQ(f.gradients[0].norm(), 0.0);

    // The trial pricing keeps the weights and uses the trial poses.
    f.finish(2, 1.0, 0.05);
    f.weights = {0.5, 1.0};
    const Matrix4Array trial = {rigid(0, 0, 0, 2, 0, 0), Matrix4::Identity()};
    priceEdges(f.data, trial.data(), 0, 2);
    EXPECT_EQ(f.weights[0], 0.5);
    EXPECT_NEAR(f.costs[0], (std::sqrt(0.5) - 1) * (std::sqrt(0.5) - 1) + 0.5 * 4, 1e-12);
    EXPECT_NEAR(f.costs[1], 4.0, 1e-12);
}

TEST(EdgeModel, TripletsLandOnTheBlocksOfBothPoses) {
    const Matrix4 Ti = rigid(0.2, 0.1, -0.3, 1, 0.5, 0), Tj = rigid(-0.2, 0.3, 0.1, 0, 1, 0.2);
    const Matrix4 Z = rigid(0.1, 0, 0.2, 0.3, 0.1, 0);
    LoopFixture f;
    f.poses = {Matrix4::Identity(), Tj, Matrix4::Identity(), Ti};
    f.add(3, 1, Z, kEdgeTrusted);
    f.add(0, 2, Z, kEdgeIgnored);  // skipped: entries stay as they were
    f.add(4, 0, Z, kEdgeRobust);   // index equal to poseCount: skipped
    f.finish(4, 1.0, 0.05);
    linearizeEdges(f.data, f.poses.data(), 0, 3, 0);
    for (int k = kTripletsPerEdge; k < 3 * kTripletsPerEdge; ++k) {
        EXPECT_EQ(f.triplets[k].row(), 0);
        EXPECT_EQ(f.triplets[k].col(), 0);
        EXPECT_EQ(f.triplets[k].value(), 0.0);
    }
    EXPECT_EQ(f.costs[1], -1.0);
    EXPECT_EQ(f.weights[2], -1.0);

    Matrix6 J;
    Vector6 e;
    edgeJacobian(Ti, Tj, Z, J, e);
    const Eigen::MatrixXd H = f.hessian(4);
    const Matrix6 JtJ = J.transpose() * J;
    EXPECT_LT((H.block<6, 6>(18, 18) - JtJ).norm(), 1e-12);
    EXPECT_LT((H.block<6, 6>(6, 6) - JtJ).norm(), 1e-12);
    EXPECT_LT((H.block<6, 6>(18, 6) + JtJ).norm(), 1e-12);
    EXPECT_LT((H.block<6, 6>(6, 18) + JtJ).norm(), 1e-12);
    EXPECT_EQ((H.block<6, 6>(0, 0).norm() + H.block<6, 6>(12, 12).norm()), 0.0);
    const Vector6 b = J.transpose() * e;
    EXPECT_LT((f.gradients[0].segment<6>(18) - b).norm(), 1e-12);
    EXPECT_LT((f.gradients[0].segment<6>(6) + b).norm(), 1e-12);
}

TEST(EdgeModel, EdgeFromAPoseToItselfLeavesOnlyItsCost) {
    const Matrix4 Z = rigid(0.1, 0.2, 0, 0.5, 0, 0);
    LoopFixture f;
    f.poses = {rigid(0.3, 0, 0, 1, 1, 1), Matrix4::Identity()};
    f.add(0, 0, Z, kEdgeTrusted);
    f.finish(2, 1.0, 0.05);
    linearizeEdges(f.data, f.poses.data(), 0, 1, 0);
    EXPECT_LT(f.hessian(2).norm(), 1e-12);
    EXPECT_LT(f.gradients[0].norm(), 1e-12);
    EXPECT_GT(f.costs[0], 0.01);
}
