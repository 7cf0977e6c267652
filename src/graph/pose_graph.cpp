#include "graph/pose_graph.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "core/log.h"
#include "core/parallel_for.h"
#include "graph/block_cholesky.h"
#include "graph/edge_model.h"

namespace kestor {

namespace {

using SparseMatrix = Eigen::SparseMatrix<double>;

Matrix4 toMatrix(const RT_<double>& rt) {
    Matrix4 m;
    m << rt.rotation[0], rt.rotation[1], rt.rotation[2], rt.translation[0],  //
        rt.rotation[3], rt.rotation[4], rt.rotation[5], rt.translation[1],   //
        rt.rotation[6], rt.rotation[7], rt.rotation[8], rt.translation[2],   //
        0, 0, 0, 1;
    return m;
}

RT_<double> toTransform(const Matrix4& m) {
    RT_<double> rt;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) rt.rotation[r * 3 + c] = m(r, c);
        rt.translation[r] = m(r, 3);
    }
    return rt;
}

// The left increment of a step: rotation Rz(-s2) Ry(-s1) Rx(-s0), translation -(s3, s4, s5).
// The gradient is J' W e without a minus, so the descent direction is minus the step.
Matrix4 increment(const double* s) {
    double rotation[9];
    eulerToRotation(-s[0], -s[1], -s[2], rotation);
    Matrix4 D;
    D << rotation[0], rotation[1], rotation[2], -s[3],  //
        rotation[3], rotation[4], rotation[5], -s[4],   //
        rotation[6], rotation[7], rotation[8], -s[5],   //
        0, 0, 0, 1;
    return D;
}

// Calls the progress, if any, and says whether it asked to stop.
bool stopRequested(const ProgressFunc& progress, int percent) {
    if (!progress) return false;
    bool stop = false;
    progress(percent, stop);
    return stop;
}

double sumOf(const std::vector<double>& values) {
    double sum = 0;
    for (double v : values) sum += v;
    return sum;
}

// A = hessian + damping * diag(hessian), solved by the supernodal block factorisation of the
// graph's pattern; a system it cannot take (an unreached pose leaves an empty row) goes to a
// dense LDLT.
void solveDamped(BlockCholesky& sparse, const SparseMatrix& hessian,
                 const SparseMatrix& hessianDiagonal, double damping,
                 const Eigen::VectorXd& gradient, Eigen::VectorXd& step) {
    if (sparse.factorize(hessian, damping)) {
        sparse.solve(gradient, step);
        return;
    }
    const SparseMatrix A = hessian + damping * hessianDiagonal;
    const Eigen::MatrixXd dense(A);
    step = dense.ldlt().solve(gradient);
}

// The state of one run: poses at the linearisation point and on trial, the fixed per-edge
// arrays, and the assembled system.
struct Solver {
    int edgeCount;
    bool useThreads;
    Matrix4Array posesA, posesB;
    Matrix4* currentPoses;
    Matrix4* candidatePoses;
    Matrix4Array measurementInverses;
    std::vector<Eigen::Triplet<double>> triplets;
    std::vector<double> costs;
    std::vector<Eigen::VectorXd> gradientParts;
    EdgeLoopData data;
    Eigen::VectorXd gradient;
    SparseMatrix hessian, hessianDiagonal;
    BlockCholesky factorization;

    // Where each triplet lands among the values of `hessian`: the triplets keep their rows and
    // columns for the whole run, so after the first build the matrix keeps its structure.
    std::vector<int> tripletSlots;

    // hessian from the triplets, duplicates summed in triplet order as setFromTriplets sums
    // them, so that both ways give the same bits.
    void assembleHessian() {
        if (tripletSlots.empty()) {
            hessian.setFromTriplets(triplets.begin(), triplets.end());
            tripletSlots.resize(triplets.size());
            const int* outer = hessian.outerIndexPtr();
            const int* inner = hessian.innerIndexPtr();
            for (size_t k = 0; k < triplets.size(); ++k) {
                const int column = int(triplets[k].col());
                tripletSlots[k] = int(std::lower_bound(inner + outer[column], inner + outer[column + 1],
                                                       int(triplets[k].row())) - inner);
            }
            return;
        }
        double* values = hessian.valuePtr();
        std::fill(values, values + hessian.nonZeros(), 0.0);
        for (size_t k = 0; k < triplets.size(); ++k) values[tripletSlots[k]] += triplets[k].value();
    }

    // Weights, costs, triplets and gradient at the current poses; returns the residual, the
    // square root of the summed costs.
    double linearize() {
        const Matrix4* poses = currentPoses;
        runLoop(useThreads, 0, edgeCount, [this, poses](int begin, int end, int slot) {
            linearizeEdges(data, poses, begin, end, slot);
        });
        return std::sqrt(sumOf(costs));
    }

    // Residual at the candidate poses, weights held.
    double price() {
        const Matrix4* poses = candidatePoses;
        runLoop(useThreads, 0, edgeCount,
                [this, poses](int begin, int end, int) { priceEdges(data, poses, begin, end); });
        return std::sqrt(sumOf(costs));
    }

    void assemble() {
        assembleHessian();
        hessianDiagonal.diagonal() = hessian.diagonal();
        gradient = gradientParts[0];
        for (size_t s = 1; s < gradientParts.size(); ++s) gradient += gradientParts[s];
    }
};

}  // namespace

bool optimizePoseGraph(const NodePair* edgePairs, const RT_<double>* edgeTransforms,
                       const InformationMatrix* edgeInformation, const uint8_t* edgeFlags,
                       double* edgeWeights, int edgeCount, RT_<double>* poses, int poseCount,
                       double distanceScale, double preference, int maxIterations,
                       double pruneThreshold, bool verbose, const ProgressFunc& progress,
                       bool useThreads) {
    if (stopRequested(progress, 0)) return false;

    std::vector<double> ownWeights;
    std::vector<uint8_t> ownFlags;
    if (edgeWeights == nullptr) {
        ownWeights.assign(size_t(edgeCount), 1.0);
        edgeWeights = ownWeights.data();
    }
    if (edgeFlags == nullptr) {
        ownFlags.assign(size_t(edgeCount), kEdgeRobust);
        edgeFlags = ownFlags.data();
    }

    Solver s;
    s.edgeCount = edgeCount;
    s.useThreads = useThreads;
    s.posesA.resize(static_cast<size_t>(poseCount));
    s.posesB.assign(size_t(poseCount), Matrix4::Identity());
    for (int k = 0; k < poseCount; ++k) s.posesA[k] = toMatrix(poses[k]);
    s.currentPoses = s.posesA.data();
    s.candidatePoses = s.posesB.data();

    // The element (5,5) stands for the number of correspondences behind an edge; its mean over
    // all edges, inactive ones included, sets the scale of the robust kernel.
    double informationSum = 0;
    for (int e = 0; e < edgeCount; ++e) informationSum += edgeInformation[e][35];
    const double meanInformation = informationSum / edgeCount;
    const double lineProcessScale = distanceScale * preference * distanceScale * meanInformation;

    s.measurementInverses.resize(static_cast<size_t>(edgeCount));
    for (int e = 0; e < edgeCount; ++e)
        s.measurementInverses[e] = toMatrix(edgeTransforms[e]).inverse();
    s.triplets.assign(size_t(edgeCount) * kTripletsPerEdge, Eigen::Triplet<double>(0, 0, 0.0));
    s.costs.assign(size_t(edgeCount), 0.0);
    const int unknowns = 6 * poseCount;
    s.gradientParts.assign(size_t(loopSlots(useThreads)), Eigen::VectorXd::Zero(unknowns));
    s.hessian.resize(unknowns, unknowns);
    s.hessianDiagonal.resize(unknowns, unknowns);
    s.hessianDiagonal.setIdentity();

    EdgeLoopData& d = s.data;
    d.pairs = edgePairs;
    d.measurementInverses = s.measurementInverses.data();
    d.information = edgeInformation;
    d.flags = edgeFlags;
    d.poseCount = poseCount;
    d.lineProcessScale = lineProcessScale;
    d.pruneThreshold = pruneThreshold;
    d.costs = s.costs.data();
    d.weights = edgeWeights;
    d.triplets = s.triplets.data();
    d.gradientParts = s.gradientParts.data();

    // The pattern of the system is that of the active edges for the whole run.
    std::vector<NodePair> activePairs;
    for (int e = 0; e < edgeCount; ++e)
        if (edgeIsActive(d, e)) activePairs.push_back(edgePairs[e]);
    s.factorization.analyze(poseCount, activePairs);

    double damping = 1e-6;
    int32_t growth = 2;
    bool converged = false;
    double residual = s.linearize();
    s.assemble();
    Eigen::VectorXd step(unknowns);

    for (int k = 0; k < maxIterations; ++k) {
        if (stopRequested(progress, int(int64_t(100) * k / maxIterations))) return false;
        if (converged) break;

        solveDamped(s.factorization, s.hessian, s.hessianDiagonal, damping, s.gradient, step);
        const double predicted = std::sqrt(
            (s.gradient - damping * (s.hessianDiagonal * step)).dot(step));
        if (std::isnan(predicted)) return false;
        if (predicted < 1e-6) break;

        for (int m = 0; m < poseCount; ++m)
            s.candidatePoses[m] = increment(step.data() + 6 * m) * s.currentPoses[m];
        const double newResidual = s.price();
        const double rho = (residual - newResidual) / (predicted + 1e-6);

        if (rho > 0) {
            growth = 2;
            const double t = 2 * rho - 1;
            double factor = 1 - t * t * t;
            if (factor > 2.0 / 3.0) factor = 2.0 / 3.0;
            if (factor < 1.0 / 3.0) factor = 1.0 / 3.0;
            damping *= factor;
            converged = residual * 1e-6 >= residual - newResidual;
            if (verbose)
                KESTOR_LOG("\tIter %4d: \t%14.7lf \t%14.7lf \t%14.7lf \t%14.7lf\n", k, residual,
                           newResidual, residual - newResidual, predicted);
            std::swap(s.currentPoses, s.candidatePoses);
            residual = s.linearize();
            s.assemble();
        } else {
            damping *= growth;
            // Doubling without a guard, wrapping as a 32-bit integer; long runs of rejections
            // end first through a vanishing `predicted`.
            growth = int32_t(uint32_t(growth) * 2u);
            if (verbose)
                KESTOR_LOG("\tIter %4d: \t%14.7lf \t%14.7lf \t%14.7lf \t-\n", k, residual,
                           newResidual, residual - newResidual);
        }
    }

    // Gauge: re-base the solution rigidly on the caller's first pose, which stays as given.
    const Matrix4 G = toMatrix(poses[0]) * s.currentPoses[0].inverse();
    for (int k = 1; k < poseCount; ++k) poses[k] = toTransform(G * s.currentPoses[k]);
    return !stopRequested(progress, 100);
}

}  // namespace kestor
