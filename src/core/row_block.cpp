#include "core/row_block.h"

#include <immintrin.h>

namespace kestor {

namespace {

inline double laneSum(__m256d v) {
    const __m128d pair = _mm_add_pd(_mm256_castpd256_pd128(v), _mm256_extractf128_pd(v, 1));
    return _mm_cvtsd_f64(_mm_add_sd(pair, _mm_unpackhi_pd(pair, pair)));
}

inline __m256d widened(const float* p) { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }

// Hessian row A, and row A + 1 when kPair, with their gradient entries over the whole block, so
// that the accumulators of one sweep stay in registers. An exact double product makes the fused
// multiply-add equal to a multiply and an add. With kUnit every residual is one: the gradient
// entries are plain sums, which leave the multiply-add units to the hessian.
template <int N, int A, bool kPair, bool kUnit>
void sweepRows(const float* const* rows, const float* residuals, int count, double* hessian,
               double* gradient) {
    __m256d first[N], second[N], gradFirst = _mm256_setzero_pd(), gradSecond = _mm256_setzero_pd();
#pragma GCC unroll 16
    for (int b = 0; b < N; ++b) first[b] = second[b] = _mm256_setzero_pd();
    for (int i = 0; i < count; i += 4) {
        const __m256d ja = widened(rows[A] + i);
        const __m256d r = kUnit ? _mm256_setzero_pd() : widened(residuals + i);
        gradFirst = kUnit ? _mm256_add_pd(gradFirst, ja) : _mm256_fmadd_pd(ja, r, gradFirst);
        if constexpr (kPair) {
            const __m256d jn = widened(rows[A + 1] + i);
            gradSecond = kUnit ? _mm256_add_pd(gradSecond, jn) : _mm256_fmadd_pd(jn, r, gradSecond);
            first[A] = _mm256_fmadd_pd(ja, ja, first[A]);
#pragma GCC unroll 16
            for (int b = A + 1; b < N; ++b) {
                const __m256d jb = b == A + 1 ? jn : widened(rows[b] + i);
                first[b] = _mm256_fmadd_pd(ja, jb, first[b]);
                second[b] = _mm256_fmadd_pd(jn, jb, second[b]);
            }
        } else {
#pragma GCC unroll 16
            for (int b = A; b < N; ++b) first[b] = _mm256_fmadd_pd(ja, b == A ? ja : widened(rows[b] + i), first[b]);
        }
    }
#pragma GCC unroll 16
    for (int b = A; b < N; ++b) hessian[A * N + b] += laneSum(first[b]);
    gradient[A] += laneSum(gradFirst);
    if constexpr (kPair) {
#pragma GCC unroll 16
        for (int b = A + 1; b < N; ++b) hessian[(A + 1) * N + b] += laneSum(second[b]);
        gradient[A + 1] += laneSum(gradSecond);
    }
}

// Two rows a sweep where their accumulators fit the sixteen vector registers with the three the
// loop needs besides (2 (N - A) + 1 of them), one row otherwise: a sweep whose accumulators spill
// waits on memory at every step. Each entry's sum is the same either way.
template <int N, int A, bool kUnit>
void sweepFrom(const float* const* rows, const float* residuals, int count, double* hessian,
               double* gradient) {
    if constexpr (A < N) {
        constexpr bool kPair = A + 1 < N && 2 * (N - A) + 1 <= 13;
        sweepRows<N, A, kPair, kUnit>(rows, residuals, count, hessian, gradient);
        sweepFrom<N, A + (kPair ? 2 : 1), kUnit>(rows, residuals, count, hessian, gradient);
    }
}

double squareSum(const float* residuals, int count) {
    __m256d sum = _mm256_setzero_pd();
    for (int i = 0; i < count; i += 4) {
        const __m256d r = widened(residuals + i);
        sum = _mm256_fmadd_pd(r, r, sum);
    }
    return laneSum(sum);
}

}  // namespace

template <int N>
void addRowColumns(const float* const* rows, const float* residuals, int count, double* hessian,
                   double* gradient, double* squares) {
    if (residuals == nullptr) {
        sweepFrom<N, 0, true>(rows, residuals, count, hessian, gradient);
        return;
    }
    sweepFrom<N, 0, false>(rows, residuals, count, hessian, gradient);
    if (squares != nullptr) *squares += squareSum(residuals, count);
}

template void addRowColumns<6>(const float* const*, const float*, int, double*, double*, double*);
template void addRowColumns<7>(const float* const*, const float*, int, double*, double*, double*);
template void addRowColumns<12>(const float* const*, const float*, int, double*, double*, double*);

}  // namespace kestor
