#pragma once
#include "multi/row_sums.h"

namespace kestor {

// What a rows pass leaves of one pair: its row sums, squared residuals and kept count.
template <int N>
struct PairSums {
    RowSums<N> rows;
    double error = 0.0;
    int kept = 0;

    PairSums& operator+=(const PairSums& o) {
        rows += o.rows;
        error += o.error;
        kept += o.kept;
        return *this;
    }
};

}  // namespace kestor
