#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>

#include "pair/solve_dense.h"

using kestor::solveDense;

TEST(SolveDense, MatchesADenseReferenceOnRandomSystems) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> uni(-1, 1);
    for (int n : {1, 2, 6, 12}) {
        Eigen::MatrixXd A(n, n);
        Eigen::VectorXd b(n);
        for (int i = 0; i < n; ++i) {
            b(i) = uni(rng);
            for (int j = 0; j < n; ++j) A(i, j) = uni(rng);
        }
        Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> rowMajor = A;
        Eigen::VectorXd x(n);
        solveDense(rowMajor.data(), b.data(), x.data(), n);
        EXPECT_LT((A * x - b).norm(), 1e-9) << n;
    }
}

TEST(SolveDense, PivotsAroundAZeroLeadingEntry) {
    // Without row exchange the first pivot would be 0.
    const double A[9] = {0, 2, 1, 1, 1, 1, 2, 1, 0};
    const double b[3] = {7, 6, 4};
    double x[3];
    solveDense(A, b, x, 3);
    EXPECT_NEAR(x[0], 1.0, 1e-12);
    EXPECT_NEAR(x[1], 2.0, 1e-12);
    EXPECT_NEAR(x[2], 3.0, 1e-12);
}

TEST(SolveDense, SingularSystemGivesNonFiniteEntriesUnreported) {
    const double A[4] = {1, 2, 2, 4};
    const double b[2] = {1, 1};
    double x[2];
    solveDense(A, b, x, 2);
    EXPECT_FALSE(std::isfinite(x[0]) && std::isfinite(x[1]));
    const double zero[4] = {0, 0, 0, 0};
    solveDense(zero, b, x, 2);
    EXPECT_FALSE(std::isfinite(x[1]));
}
