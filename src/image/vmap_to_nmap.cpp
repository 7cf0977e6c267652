#include <cmath>
#include <cstring>
#include <initializer_list>

#include "image/vertex_normal_maps.h"

namespace kestor {

namespace {

// The test 1.5 > acos(c) as a comparison: the smallest c for which it holds. acos is monotone, so
// c >= this bound (and c <= 1, beyond which acos is NaN) is the same test, without an acos per
// triangle.
double smallestAcceptedCosine() {
    double c = std::cos(kMaxViewAngle);
    while (kMaxViewAngle > std::acos(c)) c = std::nextafter(c, -2.0);
    while (!(kMaxViewAngle > std::acos(c))) c = std::nextafter(c, 2.0);
    return c;
}

const double kMinCosine = smallestAcceptedCosine();

}  // namespace

bool withinViewAngle(double c) { return c >= kMinCosine && c <= 1.0; }

namespace {

inline void addTriangle(const Float3& p, const Float3& q, const Float3& s, Float3& np, Float3& nq,
                        Float3& ns) {
    if (p.z == 0.0f || q.z == 0.0f || s.z == 0.0f) return;
    const Float3 a{q.x - p.x, q.y - p.y, q.z - p.z};
    const Float3 b{s.x - p.x, s.y - p.y, s.z - p.z};
    Float3 n{b.y * a.z - b.z * a.y, b.z * a.x - b.x * a.z, b.x * a.y - b.y * a.x};
    const float length = std::sqrt(n.x * n.x + n.y * n.y + n.z * n.z);
    if (length != 0.0f) {
        n.x /= length;
        n.y /= length;
        n.z /= length;
    }
    // The normal faces the camera when it points against the ray to P. A wrongly wound or
    // grazing triangle is dropped, never flipped; so is a degenerate one (c = 0).
    const double px = p.x, py = p.y, pz = p.z;
    const double c = -(double(n.x) * px + double(n.y) * py + double(n.z) * pz) /
                     std::sqrt(px * px + py * py + pz * pz);
    if (!withinViewAngle(c)) return;
    for (Float3* corner : {&np, &nq, &ns}) {
        corner->x += n.x;
        corner->y += n.y;
        corner->z += n.z;
    }
}

}  // namespace

void vmapToNmap(const ImageView<const Float3>& vmap, const ImageView<Float3>& nmap) {
    const int width = vmap.width;
    const int height = vmap.height;
    for (int y = 0; y < height; ++y)
        std::memset(static_cast<void*>(rowOf(nmap, y)), 0, sizeof(Float3) * size_t(width));

    for (int y = 0; y + 1 < height; ++y) {
        const Float3* p0 = rowOf(vmap, y);
        const Float3* p1 = rowOf(vmap, y + 1);
        Float3* n0 = rowOf(nmap, y);
        Float3* n1 = rowOf(nmap, y + 1);
        // Sweep A: the triangle right and down of each pixel.
        for (int x = 0; x + 1 < width; ++x)
            addTriangle(p0[x], p0[x + 1], p1[x], n0[x], n0[x + 1], n1[x]);
        // Sweep B: the triangle down and left of each pixel.
        for (int x = 1; x < width; ++x)
            addTriangle(p0[x], p1[x], p1[x - 1], n0[x], n1[x], n1[x - 1]);
    }

    for (int y = 0; y < height; ++y) {
        const Float3* p = rowOf(vmap, y);
        Float3* n = rowOf(nmap, y);
        for (int x = 0; x < width; ++x) {
            if (p[x].z == 0.0f) continue;
            const float length = std::sqrt(n[x].x * n[x].x + n[x].y * n[x].y + n[x].z * n[x].z);
            if (length != 0.0f) {
                n[x].x /= length;
                n[x].y /= length;
                n[x].z /= length;
            }
        }
    }
}

}  // namespace kestor
