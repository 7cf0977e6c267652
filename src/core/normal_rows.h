#pragma once
// The one accumulation of least-squares rows into normal equations, shared by every solver that
// sums rows of its own: J J^T into the upper triangle of a row-major N x N hessian and r J into
// the gradient, each product formed in double from the float row.

namespace kestor {

template <int N>
inline void addNormalRow(double* hessian, double* gradient, const float* row, float residual) {
    double j[N];
    for (int a = 0; a < N; ++a) j[a] = double(row[a]);
    for (int a = 0; a < N; ++a) {
        for (int b = a; b < N; ++b) hessian[a * N + b] += j[a] * j[b];
        gradient[a] += j[a] * double(residual);
    }
}

// Copies the upper triangle of a row-major N x N matrix into the lower one.
template <int N>
inline void mirrorUpper(double* matrix) {
    for (int a = 1; a < N; ++a)
        for (int b = 0; b < a; ++b) matrix[a * N + b] = matrix[b * N + a];
}

}  // namespace kestor
