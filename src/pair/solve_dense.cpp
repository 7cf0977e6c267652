#include "pair/solve_dense.h"

#include <cmath>
#include <utility>
#include <vector>

namespace kestor {

void solveDense(const double* A, const double* b, double* x, int n) {
    const int cols = n + 1;
    // Augmented rows [A | b].
    std::vector<double> m(size_t(n) * size_t(cols));
    for (int r = 0; r < n; ++r) {
        for (int c = 0; c < n; ++c) m[size_t(r * cols + c)] = A[r * n + c];
        m[size_t(r * cols + n)] = b[r];
    }
    auto at = [&](int r, int c) -> double& { return m[size_t(r * cols + c)]; };

    for (int col = 0; col < n; ++col) {
        // The row of largest magnitude in this column; the first one wins a tie.
        int pivot = col;
        for (int r = col + 1; r < n; ++r)
            if (std::abs(at(r, col)) > std::abs(at(pivot, col))) pivot = r;
        if (pivot != col)
            for (int c = 0; c < cols; ++c) std::swap(at(pivot, c), at(col, c));
        for (int r = col + 1; r < n; ++r) {
            if (at(r, col) == 0.0) continue;
            const double factor = at(r, col) / at(col, col);
            for (int c = col; c < cols; ++c) at(r, c) -= factor * at(col, c);
        }
    }
    for (int r = n - 1; r >= 0; --r) {
        double sum = at(r, n);
        for (int c = r + 1; c < n; ++c) sum -= at(r, c) * x[c];
        x[r] = sum / at(r, r);
    }
}

}  // namespace kestor
