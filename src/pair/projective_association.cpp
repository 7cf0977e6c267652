#include "pair/projective_association.h"

#include <cmath>

namespace kestor {

namespace {

inline bool isZero(const Float3& n) { return n.x == 0.0f && n.y == 0.0f && n.z == 0.0f; }

// Element (x, y) of a view, with the row address worked out once per view.
template <typename T>
struct MapReader {
    const char* base;
    ptrdiff_t stride;
    explicit MapReader(const ImageView<const T>& view)
        : base(reinterpret_cast<const char*>(view.data)),
          stride(view.stride > 0 ? ptrdiff_t(view.stride) : ptrdiff_t(view.width) * sizeof(T)) {}
    const T& at(int x, int y) const {
        return reinterpret_cast<const T*>(base + ptrdiff_t(y) * stride)[x];
    }
};

// The pixel of the point and plane forms is trunc(c + 0.5). The sum is compared with the size as
// a float before it is converted, which is the same test as iu < size and keeps far-off
// projections from overflowing the conversion. `strict` rejects c == 0, as the plane form does.
inline bool nearestPixel(float c, int size, bool strict, int& pixel) {
    if (strict ? !(c > 0.0f) : !(c >= 0.0f)) return false;
    const float shifted = c + 0.5f;
    if (!(shifted < float(size))) return false;
    pixel = int(shifted);
    return true;
}

// Carries a source point into the target frame and finds its pixel in the point or plane form;
// false when it falls outside the map or on a pixel without a vertex.
inline bool projectToTarget(const Intrinsics& k, const RT_<float>& pose, const Float3& source,
                            const MapReader<Float3>& vmap, int W, int H, bool strict, Float3& p,
                            int& iu, int& iv, Float3& q) {
    p = transformPoint(pose, source);
    const float u = (p.x * k.fx) / p.z + k.cx;
    const float v = (p.y * k.fy) / p.z + k.cy;
    if (!nearestPixel(u, W, strict, iu) || !nearestPixel(v, H, strict, iv)) return false;
    q = vmap.at(iu, iv);
    return q.z > 0.0f;
}

// The coloured form rounds half away from zero.
inline bool roundedPixel(float c, int size, int& pixel) {
    if (!(c >= 0.0f)) return false;
    const float rounded = std::round(c);
    if (!(rounded < float(size))) return false;
    pixel = int(rounded);
    return true;
}

// Squared distance of a pair: differences in float, squares summed in double.
inline double squaredDistance(const Float3& a, const Float3& b, Float3& d) {
    d = Float3{a.x - b.x, a.y - b.y, a.z - b.z};
    return double(d.x) * double(d.x) + double(d.y) * double(d.y) + double(d.z) * double(d.z);
}

}  // namespace

CompactSource compactPoints(const ImageView<const Float3>& vmap) {
    CompactSource s;
    for (int y = 0; y < vmap.height; ++y) {
        const Float3* row = rowOf(vmap, y);
        for (int x = 0; x < vmap.width; ++x)
            if (row[x].z > 0.0f) s.points.push_back(row[x]);
    }
    return s;
}

CompactSource compactWithNormals(const ImageView<const Float3>& vmap,
                                 const ImageView<const Float3>& nmap,
                                 const ImageView<const float>& gray) {
    CompactSource s;
    const bool withGray = gray.data != nullptr;
    for (int y = 0; y < vmap.height; ++y) {
        const Float3* v = rowOf(vmap, y);
        const Float3* n = rowOf(nmap, y);
        const float* g = withGray ? rowOf(gray, y) : nullptr;
        for (int x = 0; x < vmap.width; ++x) {
            if (!(v[x].z > 0.0f) || isZero(n[x])) continue;
            s.points.push_back(v[x]);
            s.normals.push_back(n[x]);
            if (withGray) s.gray.push_back(g[x]);
        }
    }
    return s;
}

void PairArrays::resizePoint(int n) {
    matchFlags.assign(size_t(n), 0);
    pairPoints.resize(size_t(n));
}

void PairArrays::resizePlane(int n) {
    resizePoint(n);
    pairNormals.resize(size_t(n));
}

void PairArrays::resizeColored(int n) {
    resizePlane(n);
    residualG.resize(size_t(n));
    pairGray.resize(size_t(n));
    pairGradX.resize(size_t(n));
    pairGradY.resize(size_t(n));
    residualC.resize(size_t(n));
}

void associatePoint(const Intrinsics& k, const TargetMaps& target, const CompactSource& source,
                    const RT_<float>& pose, const AssociationLimits& limits, PairArrays& pairs,
                    int begin, int end, NormalEquations& ne) {
    const MapReader<Float3> vmap(target.vmap);
    const int W = target.vmap.width, H = target.vmap.height;
    double* h = ne.hessian;
    for (int i = begin; i < end; ++i) {
        Float3 p, q;
        int iu, iv;
        if (!projectToTarget(k, pose, source.points[size_t(i)], vmap, W, H, false, p, iu, iv, q))
            continue;
        Float3 d;
        const double d2 = squaredDistance(p, q, d);
        if (!(limits.maxDistanceSquared > d2)) continue;

        pairs.matchFlags[size_t(i)] = 1;
        pairs.pairPoints[size_t(i)] = q;
        const float x = p.x, y = p.y, z = p.z;
        h[0] += double(z * z + y * y);
        h[1] += double(-x * y);
        h[2] += double(-x * z);
        h[4] += double(-z);
        h[5] += double(y);
        h[7] += double(x * x + z * z);
        h[8] += double(-y * z);
        h[9] += double(z);
        h[11] += double(-x);
        h[14] += double(x * x + y * y);
        h[15] += double(-y);
        h[16] += double(x);
        ne.gradient[0] += double(y * d.z - z * d.y);
        ne.gradient[1] += double(z * d.x - x * d.z);
        ne.gradient[2] += double(x * d.y - y * d.x);
        ne.gradient[3] += double(d.x);
        ne.gradient[4] += double(d.y);
        ne.gradient[5] += double(d.z);
        ne.errorSum += d2;
        ne.matchCount += 1;
    }
    // The translation block of G^T G is the identity per pair: its diagonal is the pair count.
    h[21] = h[28] = h[35] = double(ne.matchCount);
}

void associatePlane(const Intrinsics& k, const TargetMaps& target, const CompactSource& source,
                    const RT_<float>& pose, const AssociationLimits& limits, PairArrays& pairs,
                    int begin, int end, NormalEquations& ne) {
    const MapReader<Float3> vmap(target.vmap), nmap(target.nmap);
    const int W = target.vmap.width, H = target.vmap.height;
    for (int i = begin; i < end; ++i) {
        Float3 p, q;
        int iu, iv;
        if (!projectToTarget(k, pose, source.points[size_t(i)], vmap, W, H, true, p, iu, iv, q))
            continue;
        const Float3 n = nmap.at(iu, iv);
        if (isZero(n)) continue;
        Float3 d;
        const double d2 = squaredDistance(p, q, d);
        if (!(limits.maxDistanceSquared > d2)) continue;
        const Float3 m = rotateVector(pose, source.normals[size_t(i)]);
        const float cosine = n.x * m.x + n.y * m.y + n.z * m.z;
        if (!(double(cosine) > limits.cosMaxAngle)) continue;

        pairs.matchFlags[size_t(i)] = 1;
        pairs.pairPoints[size_t(i)] = q;
        pairs.pairNormals[size_t(i)] = n;
        const float r = d.x * n.x + d.y * n.y + d.z * n.z;
        const float J[6] = {p.y * n.z - p.z * n.y, p.z * n.x - p.x * n.z, p.x * n.y - p.y * n.x,
                            n.x, n.y, n.z};
        addRow(ne, J, r);
        ne.errorSum += double(r) * double(r);
        ne.matchCount += 1;
    }
}

void associateColored(const Intrinsics& k, const TargetMaps& target, const Float3* movedPoints,
                      const Float3* movedNormals, const float* sourceGray,
                      const AssociationLimits& limits, PairArrays& pairs, int begin, int end,
                      ResidualStats& stats) {
    const MapReader<Float3> vmap(target.vmap), nmap(target.nmap);
    const MapReader<float> gray(target.gray), gradX(target.gradX), gradY(target.gradY);
    const int W = target.vmap.width, H = target.vmap.height;
    for (int i = begin; i < end; ++i) {
        const Float3& p = movedPoints[i];
        const float u = (p.x * k.fx) / p.z + k.cx;
        const float v = (p.y * k.fy) / p.z + k.cy;
        int iu, iv;
        if (!roundedPixel(u, W, iu) || !roundedPixel(v, H, iv)) continue;
        const Float3 q = vmap.at(iu, iv);
        if (!(q.z > 0.0f)) continue;
        const Float3 n = nmap.at(iu, iv);
        if (isZero(n)) continue;
        Float3 d;
        const double d2 = squaredDistance(p, q, d);
        if (!(limits.maxDistanceSquared > d2)) continue;
        const Float3& m = movedNormals[i];
        const float cosine = n.x * m.x + n.y * m.y + n.z * m.z;
        if (!(double(cosine) > limits.cosMaxAngle)) continue;

        const size_t j = size_t(i);
        pairs.matchFlags[j] = 1;
        pairs.pairPoints[j] = q;
        pairs.pairNormals[j] = n;
        const float rg = d.y * n.y + d.x * n.x + d.z * n.z;
        pairs.residualG[j] = rg;
        const float g = gray.at(iu, iv), gx = gradX.at(iu, iv), gy = gradY.at(iu, iv);
        pairs.pairGray[j] = g;
        pairs.pairGradX[j] = gx;
        pairs.pairGradY[j] = gy;
        // First-order step from the rounded pixel to the exact projection, instead of sampling.
        const float rc = g + (u - float(iu)) * gx + (v - float(iv)) * gy - sourceGray[i];
        pairs.residualC[j] = rc;
        stats.count += 1;
        stats.sumG += double(rg);
        stats.sumC += double(rc);
        stats.sumSquaresG += double(rg * rg);
        stats.sumSquaresC += double(rc * rc);
    }
}

}  // namespace kestor
