#pragma once
// Centring and scaling of residuals by their mean and deviation, for the terms that weigh a
// geometric (G) and a photometric (C) kind of residual against each other.
#include <cmath>
#include <cstdint>

namespace kestor {

// Sums over a set of residuals of both kinds.
struct ResidualStats {
    double sumSquaresG;
    double sumSquaresC;
    double sumG;
    double sumC;
    int32_t count;
};

inline void addStats(ResidualStats& total, const ResidualStats& part) {
    total.sumSquaresG += part.sumSquaresG;
    total.sumSquaresC += part.sumSquaresC;
    total.sumG += part.sumG;
    total.sumC += part.sumC;
    total.count += part.count;
}

// Mean and deviation of one kind from its sums over `count` residuals. A slightly negative
// variance from rounding gives NaN; the 1e-6 only keeps a zero deviation finite.
struct ResidualSpread {
    double mean, deviation;
};

inline ResidualSpread residualSpread(double sum, double sumSquares, double count) {
    const double mean = sum / count;
    return ResidualSpread{mean, std::sqrt(sumSquares / count - mean * mean) + 1e-6};
}

// A residual with its kind's mean removed, then scaled by the kind's weight, in single precision.
inline float centredResidual(float residual, float mean, float weight) {
    return (residual - mean) * weight;
}

}  // namespace kestor
