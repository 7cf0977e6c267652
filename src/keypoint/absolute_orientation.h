#pragma once

namespace kestor {

// Least-squares rigid fit target = R * source + t over `count` packed float triples, by Horn's
// unit-quaternion method in single precision. result: R row by row, then t. Arguments are not
// checked; a degenerate configuration gives whichever eigenvector the solver returns.
void calcAbsoluteOrientation(const float* targetPoints, const float* sourcePoints, int count,
                             float result[12]);

}  // namespace kestor
