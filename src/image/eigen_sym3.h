#pragma once
// Closed-form eigen-decomposition of a symmetric 3x3 float matrix, no iteration.

namespace kestor {

// `m` is row-major 3x3 and only its upper triangle is read. `values` gets the three eigenvalues
// sorted by falling absolute value, `vectors` the matching unit eigenvectors as rows. The angle of
// the trigonometric solution is not clamped: a matrix whose rounding pushes it past 1 gives NaN,
// and so does one with three equal eigenvalues.
void eigenSym3(const float m[9], float values[3], float vectors[9]);

}  // namespace kestor
