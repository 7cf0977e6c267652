#pragma once
// Least-squares rows gathered into short structure-of-arrays blocks, so that their J J^T, J r
// and r^2 sums run four rows at a time in double. Each product of two floats is exact in double,
// so only the order of the additions differs from adding row by row.
#include <immintrin.h>

#include <cstring>

namespace kestor {

// Adds the rows [0, count) of a block to the upper triangle of a row-major N x N hessian, to the
// gradient and to `squares` (the sum of r^2). `rows[a]` holds entry a of every row; count must be
// a multiple of 4. Null `residuals` stands for residuals of one: the gradient receives the sums of
// the rows, and `squares` is not touched.
template <int N>
void addRowColumns(const float* const* rows, const float* residuals, int count, double* hessian,
                   double* gradient, double* squares);

// With kUnitResidual every row's residual is one, and the pushes take none: the gradient
// receives the sums of the rows, and `squares` is left alone.
template <int N, bool kUnitResidual = false>
struct RowBlock {
    static constexpr int kCapacity = 64;
    alignas(32) float rows[N][kCapacity];
    alignas(32) float residuals[kUnitResidual ? 1 : kCapacity];
    int count = 0;

    // Adds one row, first emptying a full block into the sums.
    inline void push(const float* row, float residual, double* hessian, double* gradient,
                     double* squares) {
        if (count == kCapacity) flush(hessian, gradient, squares);
        for (int a = 0; a < N; ++a) rows[a][count] = row[a];
        if constexpr (!kUnitResidual) residuals[count] = residual;
        ++count;
    }
    inline void push(const float* row, double* hessian, double* gradient) {
        static_assert(kUnitResidual, "rows without residuals need kUnitResidual");
        push(row, 1.0f, hessian, gradient, nullptr);
    }

    // Adds eight rows at once, entry a of all eight in row[a], first emptying a block without room
    // for them; rows to leave out must be zeros.
    inline void push8(const __m256* row, __m256 residual, double* hessian, double* gradient,
                      double* squares) {
        if (count + 8 > kCapacity) flush(hessian, gradient, squares);
#pragma GCC unroll 16
        for (int a = 0; a < N; ++a) _mm256_storeu_ps(&rows[a][count], row[a]);
        if constexpr (!kUnitResidual) _mm256_storeu_ps(&residuals[count], residual);
        count += 8;
    }
    inline void push8(const __m256* row, double* hessian, double* gradient) {
        static_assert(kUnitResidual, "rows without residuals need kUnitResidual");
        push8(row, _mm256_setzero_ps(), hessian, gradient, nullptr);
    }

    // Adds what is left, padded with zero rows to a multiple of four; zero rows add nothing.
    inline void flush(double* hessian, double* gradient, double* squares) {
        if (count == 0) return;
        const int padded = (count + 3) & ~3;
        for (int i = count; i < padded; ++i) {
            for (int a = 0; a < N; ++a) rows[a][i] = 0.0f;
            if constexpr (!kUnitResidual) residuals[i] = 0.0f;
        }
        const float* columns[N];
        for (int a = 0; a < N; ++a) columns[a] = rows[a];
        addRowColumns<N>(columns, kUnitResidual ? nullptr : residuals, padded, hessian, gradient,
                         kUnitResidual ? nullptr : squares);
        count = 0;
    }
};

}  // namespace kestor
