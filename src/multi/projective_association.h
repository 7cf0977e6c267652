#pragma once
#include "core/image_view.h"
#include "core/intrinsics.h"
#include "multi/pair_pose.h"

namespace kestor {

// Element `index` of a map read as rows of `width` elements.
template <typename T>
inline const T& atFlat(const ImageView<const T>& view, int index) {
    return rowOf(view, index / view.width)[index % view.width];
}

inline bool isZero(const Float3& v) { return v.x == 0.0f && v.y == 0.0f && v.z == 0.0f; }

// The gates of projective association on image grids, in float: a pair is kept when its squared
// distance is below maxDistanceSq and, with normals, n . (R m) is above cosMaxAngle.
struct ProjectiveTest {
    float maxDistanceSq;
    float cosMaxAngle;
    bool useNormals;  // source and target normals must be set and agree within the angle
};

// (a x b, b): the row of a residual along b at the moved point a.
inline void crossRow(const float* a, const float* b, float* row) {
    row[0] = a[1] * b[2] - a[2] * b[1];
    row[1] = a[2] * b[0] - a[0] * b[2];
    row[2] = a[0] * b[1] - a[1] * b[0];
    row[3] = b[0];
    row[4] = b[1];
    row[5] = b[2];
}

}  // namespace kestor
