#pragma once
#include "core/normal_rows.h"
#include "multi/align_frames.h"

namespace kestor {

// One frame pair's sums of J J^T (upper triangle only) and r J in double, for rows of N entries.
template <int N>
struct RowSums {
    double hessian[N * N] = {};
    double gradient[N] = {};

    void add(const float* row, float residual) { addNormalRow<N>(hessian, gradient, row, residual); }
    void mirror() { mirrorUpper<N>(hessian); }
    RowSums& operator+=(const RowSums& o) {
        for (int a = 0; a < N * N; ++a) hessian[a] += o.hessian[a];
        for (int a = 0; a < N; ++a) gradient[a] += o.gradient[a];
        return *this;
    }
    double at(int a, int b) const { return hessian[a * N + b]; }
};

// One-sided rows that stand for the source's correction: the target's is their negative, so
// II = H, IJ = -H, JJ = H, gI = -b, gJ = b. `sums` must be mirrored.
void fillOneSided(const RowSums<6>& sums, PairBlock& hessianII, PairBlock& hessianIJ,
                  PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ);

// Rows of 12: six for the target's correction, then six for the source's. The cross block is
// taken from its upper triangle and mirrored. `sums` must be mirrored.
void fillTwoSided(const RowSums<12>& sums, PairBlock& hessianII, PairBlock& hessianIJ,
                  PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ);

}  // namespace kestor
