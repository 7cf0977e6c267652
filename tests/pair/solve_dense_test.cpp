#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>

#include "pair/solve_dense.h"

// Random systems against Eigen and a zero leading entry that needs a row exchange. Singular
// systems are not detected; the identity start of the point-set matchers shows what follows.
TEST(SolveDense, RandomAndPivotedSystems) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> uni(-1, 1);
    for (int n : {1, 2, 6, 12}) {
        Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> A(n, n);
        Eigen::VectorXd b(n), x(n);
        for (int i = 0; i < n; ++i) {
            b(i) = uni(rng);
            for (int j = 0; j < n; ++j) A(i, j) = uni(rng);
        }
        kestor::solveDense(A.data(), b.data(), x.data(), n);
        EXPECT_LT((A * x - b).norm(), 1e-9) << n;
    }
    const double A[9] = {0, 2, 1, 1, 1, 1, 2, 1, 0}, b[3] = {7, 6, 4};
    double x[3];
    kestor::solveDense(A, b, x, 3);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(x[i], i + 1.0, 1e-12);
}
