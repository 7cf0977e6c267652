#pragma once

namespace kestor {

// Solves A x = b for a dense square A of order n (row-major), by Gaussian elimination with row
// pivoting. There is no zero-pivot test and no regularisation: a singular system gives infinite
// or NaN entries in x, and callers judge the step by what it does to their error.
void solveDense(const double* A, const double* b, double* x, int n);

}  // namespace kestor
