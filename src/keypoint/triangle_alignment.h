#pragma once
#include "core/rigid_transform.h"

namespace kestor {

// Rotation from a rotation vector w (axis times angle): I + A [w] + B [w]^2 with
// A = sin(a) / a and B = (1 - cos(a)) / a^2, or A = 1 and B = 1/2 below a = 1e-7. Evaluated in
// double, stored as float.
void rodriguesRotation(const double w[3], float rotation[9]);

// The rigid motion that lays the source triangle s0 s1 s2 onto the target triangle t0 t1 t2:
// the normals are brought together, then the in-plane angle is refined by three Gauss-Newton
// steps. Each argument points at a packed float triple.
RT_<float> alignTriangles(const float* s0, const float* s1, const float* s2, const float* t0,
                          const float* t1, const float* t2);

}  // namespace kestor
