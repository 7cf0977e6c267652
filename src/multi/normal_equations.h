#pragma once
#include "multi/align_frames.h"

namespace kestor {

// Sums of J J^T (upper triangle only) and r J in double, for rows of N entries.
template <int N>
struct NormalEquations {
    double hessian[N][N] = {};
    double gradient[N] = {};

    void add(const float* row, float residual) {
        double j[N];
        for (int a = 0; a < N; ++a) j[a] = double(row[a]);
        for (int a = 0; a < N; ++a) {
            for (int b = a; b < N; ++b) hessian[a][b] += j[a] * j[b];
            gradient[a] += double(residual) * j[a];
        }
    }

    void merge(const NormalEquations& other) {
        for (int a = 0; a < N; ++a) {
            for (int b = a; b < N; ++b) hessian[a][b] += other.hessian[a][b];
            gradient[a] += other.gradient[a];
        }
    }

    void mirror() {
        for (int a = 0; a < N; ++a)
            for (int b = 0; b < a; ++b) hessian[a][b] = hessian[b][a];
    }
};

// One-sided rows that stand for the source's correction: the target's is their negative, so
// II = H, IJ = -H, JJ = H, gI = -b, gJ = b. `sums` must be mirrored.
void fillOneSided(const NormalEquations<6>& sums, PairBlock& hessianII, PairBlock& hessianIJ,
                  PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ);

// Rows of 12: six for the target's correction, then six for the source's. The cross block is
// taken from its upper triangle and mirrored. `sums` must be mirrored.
void fillTwoSided(const NormalEquations<12>& sums, PairBlock& hessianII, PairBlock& hessianIJ,
                  PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ);

}  // namespace kestor
