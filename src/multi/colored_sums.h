#pragma once
// The coloured mode's sums of one frame pair. The residuals of each kind are centred and weighted
// by their spread over all pairs, which is known only once every pair is associated; so a pair
// keeps, per kind, the unweighted sums of its rows (g, r) with weight one, and its blocks are
// formed from them afterwards: with w the kind's weight and m its mean,
//   sum (w g)(w g)^T = w^2 G,   sum (w (r - m)) (w g) = w^2 (sum r g - m sum g),
//   sum (w (r - m))^2 = w^2 (sum r^2 - 2 m sum r + n m^2).
#include <vector>

#include "multi/row_sums.h"
#include "pair/residual_scale.h"

namespace kestor {

// One global scale per residual kind, from all qualifying pairs: each residual has the kind's
// mean removed and is weighted by the square root of the kind's deviation, with colorWeight
// splitting the two.
struct ColoredScales {
    double meanGeometric = 0, meanPhotometric = 0;
    double weightGeometric = 0, weightPhotometric = 0;

    void update(const std::vector<ResidualStats>& slots, double colorWeight);
};

struct ColoredSums {
    // Upper triangle of the 7 x 7 sum of (g, r)(g, r)^T; the gradient holds sum g and sum r.
    RowSums<7> geometric, photometric;
    int kept = 0;

    ColoredSums& operator+=(const ColoredSums& o);
    // Adds one kept pair of points: its geometric row and residual, its photometric ones.
    void add(const float* geometricRow, float rg, const float* photometricRow, float rc);
    // Counts, sums and sums of squares of both residual kinds.
    ResidualStats stats() const;
    // Adds the pair's centred and weighted J J^T (upper triangle) and r J to `rows`; returns its
    // error, the sum of both kinds' squared centred and weighted residuals.
    double weightedRows(const ColoredScales& scales, RowSums<6>& rows) const;
    // The same as a pair's blocks, one-sided as the point-to-plane form; returns the error.
    double blocks(const ColoredScales& scales, PairBlock& hessianII, PairBlock& hessianIJ,
                  PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ) const;
    // The photometric part of that error, which does not change with the pose.
    double photometricError(const ColoredScales& scales) const;
};

}  // namespace kestor
