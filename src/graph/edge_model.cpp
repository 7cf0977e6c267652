#include "graph/edge_model.h"

#include <Eigen/LU>
#include <cmath>

namespace kestor {

namespace {

// Generators of the rigid-motion group in the order of the Jacobian's columns: rotations about
// x, y, z, then translations along x, y, z. Built once; read-only afterwards.
struct Generators {
    Matrix4 g[6];
    Generators() {
        for (Matrix4& m : g) m.setZero();
        g[0](1, 2) = -1;
        g[0](2, 1) = 1;
        g[1](0, 2) = 1;
        g[1](2, 0) = -1;
        g[2](0, 1) = -1;
        g[2](1, 0) = 1;
        g[3](0, 3) = 1;
        g[4](1, 3) = 1;
        g[5](2, 3) = 1;
    }
};

}  // namespace

Vector6 misalignment(const Matrix4& Q) {
    Vector6 v;
    v << (Q(2, 1) - Q(1, 2)) / 2, (Q(0, 2) - Q(2, 0)) / 2, (Q(1, 0) - Q(0, 1)) / 2, Q(0, 3),
        Q(1, 3), Q(2, 3);
    return v;
}

void edgeJacobianFromInverse(const Matrix4& Ti, const Matrix4& Tj, const Matrix4& Zinverse,
                             Matrix6& J, Vector6& e) {
    static const Generators generators;
    const Matrix4 A = Ti * Zinverse;
    const Matrix4 B = Tj.inverse();
    for (int k = 0; k < 6; ++k) {
        const Matrix4 BG = B * generators.g[k];
        J.col(k) = misalignment(BG * A);
    }
    e = misalignment(B * A);
}

void edgeJacobian(const Matrix4& Ti, const Matrix4& Tj, const Matrix4& Z, Matrix6& J, Vector6& e) {
    const Matrix4 Zinverse = Z.inverse();
    edgeJacobianFromInverse(Ti, Tj, Zinverse, J, e);
}

double edgeWeight(uint8_t flag, double chi2, double lineProcessScale, double pruneThreshold) {
    double l = 1.0;
    if (flag != kEdgeTrusted) {
        const double r = lineProcessScale / (chi2 + lineProcessScale);
        l = r * r;
    }
    return l < pruneThreshold ? 0.0 : l;
}

double edgeCost(double weight, double chi2, double lineProcessScale) {
    const double root = std::sqrt(weight) - 1.0;
    return lineProcessScale * root * root + weight * chi2;
}

void linearizeEdges(const EdgeLoopData& d, const Matrix4* poses, int begin, int end, int slot) {
    Eigen::VectorXd& gradient = d.gradientParts[slot];
    gradient.setZero();
    for (int edge = begin; edge < end; ++edge) {
        if (!edgeIsActive(d, edge)) continue;
        const int i = d.pairs[edge].first;
        const int j = d.pairs[edge].second;
        Matrix6 J;
        Vector6 e;
        edgeJacobianFromInverse(poses[i], poses[j], d.measurementInverses[edge], J, e);
        const Eigen::Map<const Matrix6> W(d.information[edge].data());

        // Jj = -J, so Hjj = Hii, Hij = -Hii and bj = -bi, exactly: only the i blocks are formed.
        const Matrix6 JtW = J.transpose() * W;
        const Vector6 bi = JtW * e;
        Matrix6 Hii = JtW * J;
        const double chi2 = e.dot(W * e);

        const double l = edgeWeight(d.flags[edge], chi2, d.lineProcessScale, d.pruneThreshold);
        Hii *= l;
        d.costs[edge] = edgeCost(l, chi2, d.lineProcessScale);
        d.weights[edge] = l;

        Eigen::Triplet<double>* t = d.triplets + size_t(edge) * kTripletsPerEdge;
        for (int r = 0; r < 6; ++r) {
            for (int c = 0; c < 6; ++c) {
                const int k = r * 6 + c;
                t[k] = Eigen::Triplet<double>(6 * i + r, 6 * i + c, Hii(r, c));
                t[36 + k] = Eigen::Triplet<double>(6 * j + r, 6 * j + c, Hii(r, c));
                t[72 + k] = Eigen::Triplet<double>(6 * i + r, 6 * j + c, -Hii(r, c));
                t[108 + k] = Eigen::Triplet<double>(6 * j + r, 6 * i + c, -Hii(c, r));
            }
        }
        const Vector6 weighted = l * bi;
        gradient.segment<6>(6 * i) += weighted;
        gradient.segment<6>(6 * j) -= weighted;
    }
}

void priceEdges(const EdgeLoopData& d, const Matrix4* poses, int begin, int end) {
    for (int edge = begin; edge < end; ++edge) {
        if (!edgeIsActive(d, edge)) continue;
        const int i = d.pairs[edge].first;
        const int j = d.pairs[edge].second;
        const Matrix4 Q = poses[j].inverse() * (poses[i] * d.measurementInverses[edge]);
        const Vector6 e = misalignment(Q);
        const Eigen::Map<const Matrix6> W(d.information[edge].data());
        const double chi2 = e.dot(W * e);
        d.costs[edge] = edgeCost(d.weights[edge], chi2, d.lineProcessScale);
    }
}

}  // namespace kestor
