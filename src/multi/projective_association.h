#pragma once
#include <cmath>

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

struct ProjectiveTest {
    float maxDistanceSq;
    float cosMaxAngle;
    bool useNormals;  // source and target normals must be set and agree within the angle
};

// Carries every valid source vertex into the target frame by T, projects it, and hands each
// element that survives the tests to keep(sourceIndex, targetIndex, p, p', q, n), indexes being
// row * width + column. n is null without normals. Returns kept over valid source elements.
template <typename Keep>
double associateProjective(const ImageView<const Float3>& sourceV,
                           const ImageView<const Float3>& sourceN,
                           const ImageView<const Float3>& targetV,
                           const ImageView<const Float3>& targetN, const Intrinsics& k,
                           const RT_<float>& T, const ProjectiveTest& test, Keep&& keep) {
    const int width = sourceV.width, height = sourceV.height;
    const float fw = float(width), fh = float(height);
    int valid = 0, kept = 0;
    for (int row = 0; row < height; ++row) {
        const Float3* vRow = rowOf(sourceV, row);
        const Float3* nRow = test.useNormals ? rowOf(sourceN, row) : nullptr;
        for (int col = 0; col < width; ++col) {
            const Float3& p = vRow[col];
            if (test.useNormals ? (p.z == 0.0f || isZero(nRow[col])) : !(p.z > 0.0f)) continue;
            ++valid;
            float pt[3];
            transformPoint(T, &p.x, pt);
            const float u = k.fx * pt[0] / pt[2] + k.cx;
            const float v = k.fy * pt[1] / pt[2] + k.cy;
            // Written so that NaN and values past the image fail before any conversion.
            if (!(u >= 0.0f) || !(v >= 0.0f) || !(u + 0.5f < fw) || !(v + 0.5f < fh)) continue;
            const int tc = int(u + 0.5f), tr = int(v + 0.5f);
            const Float3& q = rowOf(targetV, tr)[tc];
            if (!(q.z > 0.0f)) continue;
            const Float3* n = nullptr;
            if (test.useNormals) {
                n = &rowOf(targetN, tr)[tc];
                if (isZero(*n)) continue;
            }
            const float dx = pt[0] - q.x, dy = pt[1] - q.y, dz = pt[2] - q.z;
            if (!(dx * dx + dy * dy + dz * dz < test.maxDistanceSq)) continue;
            if (test.useNormals) {
                float m[3];
                rotateVector(T.rotation, &nRow[col].x, m);
                if (!(n->x * m[0] + n->y * m[1] + n->z * m[2] > test.cosMaxAngle)) continue;
            }
            ++kept;
            keep(row * width + col, tr * width + tc, p, pt, q, n);
        }
    }
    return double(kept) / double(valid);
}

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
