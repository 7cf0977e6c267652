#pragma once
#include "core/intrinsics.h"
#include "core/rigid_transform.h"
#include "pair/projective_association.h"
#include "pair/solver_slots.h"

namespace kestor {

// How colorWeight c, clamped to [0, 1], shares the error: a = sqrt(c) for the image term,
// b = sqrt(1 - c) for the geometric one.
struct ColorBalance {
    float a, b;
};
ColorBalance colorBalance(double colorWeight);

// Means and weights of both residual kinds over the pairs of one iteration.
struct PhotometricScale {
    float meanG, meanC, weightG, weightC;
};
PhotometricScale photometricScale(const ResidualStats& total, const ColorBalance& balance);

// Second pass over source indices [begin, end): the weighted geometric and photometric rows of
// every flagged pair into the slot's equations.
void addColoredRows(const Intrinsics& k, const PairArrays& pairs, const Float3* movedPoints,
                    const PhotometricScale& scale, int begin, int end, NormalEquations& equations);

// The same error at the moved points after the correction delta, with this iteration's pairs,
// means and weights; the target image is stood in for by its first-order model.
double coloredTrialError(const Intrinsics& k, const PairArrays& pairs, const Float3* movedPoints,
                         const float* sourceGray, const RT_<float>& delta,
                         const PhotometricScale& scale, int begin, int end);

}  // namespace kestor
