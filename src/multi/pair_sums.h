#pragma once
#include "multi/row_sums.h"
#include "pair/residual_scale.h"

namespace kestor {

// What a rows pass leaves of one pair: its row sums, squared residuals and kept count.
template <int N>
struct PairSums {
    RowSums<N> rows;
    double error = 0.0;
    int kept = 0;

    PairSums& operator+=(const PairSums& o) {
        for (int a = 0; a < N * N; ++a) rows.hessian[a] += o.rows.hessian[a];
        for (int a = 0; a < N; ++a) rows.gradient[a] += o.rows.gradient[a];
        error += o.error;
        kept += o.kept;
        return *this;
    }
};

// What the coloured residual pass leaves of one pair.
struct PairStats {
    ResidualStats stats{};
    int kept = 0;

    PairStats& operator+=(const PairStats& o) {
        addStats(stats, o.stats);
        kept += o.kept;
        return *this;
    }
};

}  // namespace kestor
