#include "pair/projective_association.h"

#include <algorithm>
#include <cmath>

#include "core/row_block.h"
#include "core/float3_lanes.h"
#include "core/lane_front.h"

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

// The pixel of the point and plane forms for eight lanes, as nearestPixel finds it for each.
inline __m256 nearestPixelLanes(__m256 c, int size, bool strict, __m256i& pixel) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 inFront = strict ? _mm256_cmp_ps(c, zero, _CMP_GT_OQ) : _mm256_cmp_ps(c, zero, _CMP_GE_OQ);
    const __m256 shifted = _mm256_add_ps(c, _mm256_set1_ps(0.5f));
    const __m256 inside = _mm256_cmp_ps(shifted, _mm256_set1_ps(float(size)), _CMP_LT_OQ);
    pixel = _mm256_cvttps_epi32(shifted);
    return _mm256_and_ps(inFront, inside);
}

// The coloured form's pixel for eight lanes, as roundedPixel finds it for each.
inline __m256 roundedPixelLanes(__m256 c, int size, __m256& rounded, __m256i& pixel) {
    const __m256 inFront = _mm256_cmp_ps(c, _mm256_setzero_ps(), _CMP_GE_OQ);
    rounded = roundHalfAwayNonNegative(c);
    const __m256 inside = _mm256_cmp_ps(rounded, _mm256_set1_ps(float(size)), _CMP_LT_OQ);
    pixel = _mm256_cvttps_epi32(rounded);
    return _mm256_and_ps(inFront, inside);
}

// Projection of eight moved points: (p * f) / z + c, as the scalar forms compute it.
inline __m256 projectLanes(__m256 a, __m256 z, float f, float c) {
    return _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(a, _mm256_set1_ps(f)), z), _mm256_set1_ps(c));
}

// How far along a target row the passes ask for cache lines ahead of their reads.
constexpr int kPrefetchPixels = 64;

inline bool anyLane(__m256 mask) { return _mm256_movemask_ps(mask) != 0; }

inline __m256 nonZeroNormal(const Lanes3& n) {
    return _mm256_or_ps(_mm256_or_ps(nonZero(n.x), nonZero(n.y)), nonZero(n.z));
}

// The gates after the pixel, for eight lanes in `ok`: target vertex, target normal, distance
// (d = p' - q) and angle between n and the moved source normal m.
inline __m256 pairGateLanes(__m256 ok, const Lanes3& q, const Lanes3& n, const Lanes3& m,
                            const Lanes3& d, double maxDistanceSquared, __m256 cosLimit) {
    ok = _mm256_and_ps(ok, _mm256_cmp_ps(q.z, _mm256_setzero_ps(), _CMP_GT_OQ));
    ok = _mm256_and_ps(ok, nonZeroNormal(n));
    ok = _mm256_and_ps(ok, withinDistance(d, maxDistanceSquared));
    return _mm256_and_ps(ok, _mm256_cmp_ps(dotLanes(n, m), cosLimit, _CMP_GT_OQ));
}

}  // namespace

namespace {

// Keeps the pixels with z > 0 and, with normals, a normal that is not (0, 0, 0), in row order.
// Eight pixels at a time: the kept lanes are moved to the front and all eight written at the
// next free place, which then moves on by the kept count, so that the holes of a depth map cost
// no branch. The arrays are sized for a full image.
template <bool kNormals>
void compactRows(const ImageView<const Float3>& vmap, const ImageView<const Float3>* nmap,
                 const ImageView<const float>& gray, CompactSource& s) {
    const size_t most = size_t(vmap.width) * size_t(vmap.height);
    const bool withGray = gray.data != nullptr;
    auto atLeast = [most](auto& array) {
        if (array.size() < most) array.resize(most);
    };
    atLeast(s.points);
    if (kNormals) atLeast(s.normals);
    if (withGray) atLeast(s.gray);
    Float3* points = s.points.data();
    Float3* normals = s.normals.data();
    float* grays = s.gray.data();
    const __m256 zero = _mm256_setzero_ps();
    size_t count = 0;
    for (int y = 0; y < vmap.height; ++y) {
        const Float3* v = rowOf(vmap, y);
        const Float3* n = kNormals ? rowOf(*nmap, y) : nullptr;
        const float* g = withGray ? rowOf(gray, y) : nullptr;
        int x = 0;
        // Writing eight from `count` stays inside the image-sized arrays: count is at most the
        // number of pixels before this block.
        for (; x + 8 <= vmap.width; x += 8) {
            const Lanes3 p = loadLanes(v + x);
            __m256 keep = _mm256_cmp_ps(p.z, zero, _CMP_GT_OQ);
            Lanes3 m{};
            if constexpr (kNormals) {
                m = loadLanes(n + x);
                keep = _mm256_and_ps(keep, _mm256_or_ps(_mm256_or_ps(nonZero(m.x), nonZero(m.y)), nonZero(m.z)));
            }
            const int bits = _mm256_movemask_ps(keep);
            if (bits == 0) continue;
            const __m256i order = frontOrder(bits);
            storeLanes(points + count, Lanes3{toFront(p.x, order), toFront(p.y, order), toFront(p.z, order)});
            if constexpr (kNormals)
                storeLanes(normals + count, Lanes3{toFront(m.x, order), toFront(m.y, order), toFront(m.z, order)});
            if (withGray) _mm256_storeu_ps(grays + count, toFront(_mm256_loadu_ps(g + x), order));
            count += size_t(__builtin_popcount(unsigned(bits)));
        }
        for (; x < vmap.width; ++x) {
            if (!(v[x].z > 0.0f) || (kNormals && isZero(n[x]))) continue;
            points[count] = v[x];
            if (kNormals) normals[count] = n[x];
            if (withGray) grays[count] = g[x];
            ++count;
        }
    }
    s.count = int(count);
}

}  // namespace

void compactPoints(const ImageView<const Float3>& vmap, CompactSource& s) {
    compactRows<false>(vmap, nullptr, ImageView<const float>{}, s);
}

void compactWithNormals(const ImageView<const Float3>& vmap, const ImageView<const Float3>& nmap,
                        const ImageView<const float>& gray, CompactSource& s) {
    compactRows<true>(vmap, &nmap, gray, s);
}

CompactSource compactPoints(const ImageView<const Float3>& vmap) {
    CompactSource s;
    compactPoints(vmap, s);
    return s;
}

CompactSource compactWithNormals(const ImageView<const Float3>& vmap,
                                 const ImageView<const Float3>& nmap,
                                 const ImageView<const float>& gray) {
    CompactSource s;
    compactWithNormals(vmap, nmap, gray, s);
    return s;
}

namespace {

// Grows a workspace array to at least n entries and never shrinks it: a thread's runs go from
// coarse to fine levels, and shrinking would zero-fill the arrays again on every run.
template <typename T>
void growTo(std::vector<T>& v, int n) {
    if (v.size() < size_t(n)) v.resize(size_t(n));
}

}  // namespace

void PairArrays::resizePoint(int n) {
    growTo(matchFlags, n);
    std::fill_n(matchFlags.begin(), n, uint8_t(0));
    growTo(pairPoints, n);
}

void PairArrays::resizePlane(int n) {
    resizePoint(n);
    growTo(pairNormals, n);
}

void PairArrays::resizeColored(int n) {
    resizePlane(n);
    growTo(residualG, n);
    growTo(pairGray, n);
    growTo(pairGradX, n);
    growTo(pairGradY, n);
    growTo(residualC, n);
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
    RowBlock<6> block;
    int i = begin;
    if (lanesCanRead(target.vmap) && lanesCanRead(target.nmap)) {
        const LaneMap vl = laneMap(target.vmap), nl = laneMap(target.nmap);
        const __m256 cosLimit = _mm256_set1_ps(floatBelowOrAt(limits.cosMaxAngle));
        for (; i + 8 <= end; i += 8) {
            const Lanes3 p = transformLanes(pose, loadLanes(&source.points[size_t(i)]));
            __m256i iu, iv;
            __m256 ok = _mm256_and_ps(
                nearestPixelLanes(projectLanes(p.x, p.z, k.fx, k.cx), W, true, iu),
                nearestPixelLanes(projectLanes(p.y, p.z, k.fy, k.cy), H, true, iv));
            if (!anyLane(ok)) {
                storeFlags(&pairs.matchFlags[size_t(i)], ok);
                continue;
            }
            // Every read of a pixel inside the map is issued at once, so that the cache misses
            // of the two maps overlap; the vertex and normal gates are applied afterwards.
            const __m256i vo = laneOffsets(vl, iu, iv), no = laneOffsets(nl, iu, iv);
            Lanes3 q, n;
            if (oneRowRun(iu, iv, ok)) {
                q = loadLanes(reinterpret_cast<const Float3*>(vl.base + _mm256_cvtsi256_si32(vo)));
                n = loadLanes(reinterpret_cast<const Float3*>(nl.base + _mm256_cvtsi256_si32(no)));
            } else {
                q = loadLanes3(vl, vo, ok);
                n = loadLanes3(nl, no, ok);
            }
            prefetchAhead(vl, vo, ok, kPrefetchPixels);
            prefetchAhead(nl, no, ok, kPrefetchPixels);
            const Lanes3 m = rotateLanes(pose, loadLanes(&source.normals[size_t(i)]));
            const Lanes3 d = differenceLanes(p, q);
            ok = pairGateLanes(ok, q, n, m, d, limits.maxDistanceSquared, cosLimit);

            storeFlags(&pairs.matchFlags[size_t(i)], ok);
            storeLanes(&pairs.pairPoints[size_t(i)], q);
            storeLanes(&pairs.pairNormals[size_t(i)], n);
            const __m256 r = dotLanes(d, n);
            const __m256 J[6] = {
                zeroOutside(_mm256_sub_ps(_mm256_mul_ps(p.y, n.z), _mm256_mul_ps(p.z, n.y)), ok),
                zeroOutside(_mm256_sub_ps(_mm256_mul_ps(p.z, n.x), _mm256_mul_ps(p.x, n.z)), ok),
                zeroOutside(_mm256_sub_ps(_mm256_mul_ps(p.x, n.y), _mm256_mul_ps(p.y, n.x)), ok),
                zeroOutside(n.x, ok), zeroOutside(n.y, ok), zeroOutside(n.z, ok)};
            block.push8(J, zeroOutside(r, ok), ne.hessian, ne.gradient, &ne.errorSum);
            ne.matchCount += __builtin_popcount(unsigned(_mm256_movemask_ps(ok)));
        }
    }
    for (; i < end; ++i) {
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
        block.push(J, r, ne.hessian, ne.gradient, &ne.errorSum);
        ne.matchCount += 1;
    }
    block.flush(ne.hessian, ne.gradient, &ne.errorSum);
}

void associateColored(const Intrinsics& k, const TargetMaps& target, const Float3* movedPoints,
                      const Float3* movedNormals, const float* sourceGray,
                      const AssociationLimits& limits, PairArrays& pairs, int begin, int end,
                      ResidualStats& stats) {
    const MapReader<Float3> vmap(target.vmap), nmap(target.nmap);
    const MapReader<float> gray(target.gray), gradX(target.gradX), gradY(target.gradY);
    const int W = target.vmap.width, H = target.vmap.height;
    int i = begin;
    if (lanesCanRead(target.vmap) && lanesCanRead(target.nmap) && lanesCanRead(target.gray) &&
        lanesCanRead(target.gradX) && lanesCanRead(target.gradY)) {
        const LaneMap vl = laneMap(target.vmap), nl = laneMap(target.nmap);
        const LaneMap gl = laneMap(target.gray), xl = laneMap(target.gradX),
                      yl = laneMap(target.gradY);
        const __m256 cosLimit = _mm256_set1_ps(floatBelowOrAt(limits.cosMaxAngle));
        const __m256d none = _mm256_setzero_pd();
        __m256d sums[4] = {none, none, none, none};  // rg, rc, rg^2, rc^2
        auto addWidened = [](__m256d& sum, __m256 v) {
            sum = _mm256_add_pd(sum, _mm256_cvtps_pd(_mm256_castps256_ps128(v)));
            sum = _mm256_add_pd(sum, _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1)));
        };
        for (; i + 8 <= end; i += 8) {
            const Lanes3 p = loadLanes(movedPoints + i);
            const __m256 u = projectLanes(p.x, p.z, k.fx, k.cx);
            const __m256 v = projectLanes(p.y, p.z, k.fy, k.cy);
            __m256 ru, rv;
            __m256i iu, iv;
            __m256 ok = _mm256_and_ps(roundedPixelLanes(u, W, ru, iu), roundedPixelLanes(v, H, rv, iv));
            if (!anyLane(ok)) {
                storeFlags(&pairs.matchFlags[size_t(i)], ok);
                continue;
            }
            // Every read of a pixel inside the map is issued at once, so that the cache misses
            // of the two maps overlap; the vertex and normal gates are applied afterwards.
            const __m256i vo = laneOffsets(vl, iu, iv), no = laneOffsets(nl, iu, iv),
                          go = laneOffsets(gl, iu, iv), xo = laneOffsets(xl, iu, iv),
                          yo = laneOffsets(yl, iu, iv);
            Lanes3 q, n;
            __m256 g, gx, gy;
            if (oneRowRun(iu, iv, ok)) {
                // Eight neighbouring target pixels, as a row of source pixels usually lands on.
                q = loadLanes(reinterpret_cast<const Float3*>(vl.base + _mm256_cvtsi256_si32(vo)));
                n = loadLanes(reinterpret_cast<const Float3*>(nl.base + _mm256_cvtsi256_si32(no)));
                g = _mm256_loadu_ps(gl.base + _mm256_cvtsi256_si32(go));
                gx = _mm256_loadu_ps(xl.base + _mm256_cvtsi256_si32(xo));
                gy = _mm256_loadu_ps(yl.base + _mm256_cvtsi256_si32(yo));
            } else {
                q = loadLanes3(vl, vo, ok);
                n = loadLanes3(nl, no, ok);
                g = gatherLanes(gl, go, ok);
                gx = gatherLanes(xl, xo, ok);
                gy = gatherLanes(yl, yo, ok);
            }
            prefetchAhead(vl, vo, ok, kPrefetchPixels);
            prefetchAhead(nl, no, ok, kPrefetchPixels);
            prefetchAhead(gl, go, ok, kPrefetchPixels);
            prefetchAhead(xl, xo, ok, kPrefetchPixels);
            prefetchAhead(yl, yo, ok, kPrefetchPixels);
            const Lanes3 d = differenceLanes(p, q);
            ok = pairGateLanes(ok, q, n, loadLanes(movedNormals + i), d, limits.maxDistanceSquared,
                               cosLimit);

            const size_t j = size_t(i);
            storeFlags(&pairs.matchFlags[j], ok);
            storeLanes(&pairs.pairPoints[j], q);
            storeLanes(&pairs.pairNormals[j], n);
            const __m256 rg = _mm256_add_ps(
                _mm256_add_ps(_mm256_mul_ps(d.y, n.y), _mm256_mul_ps(d.x, n.x)), _mm256_mul_ps(d.z, n.z));
            _mm256_storeu_ps(&pairs.residualG[j], rg);
            _mm256_storeu_ps(&pairs.pairGray[j], g);
            _mm256_storeu_ps(&pairs.pairGradX[j], gx);
            _mm256_storeu_ps(&pairs.pairGradY[j], gy);
            const __m256 rc = _mm256_sub_ps(
                _mm256_add_ps(_mm256_add_ps(g, _mm256_mul_ps(_mm256_sub_ps(u, ru), gx)),
                              _mm256_mul_ps(_mm256_sub_ps(v, rv), gy)),
                _mm256_loadu_ps(sourceGray + i));
            _mm256_storeu_ps(&pairs.residualC[j], rc);
            const __m256 rgIn = zeroOutside(rg, ok), rcIn = zeroOutside(rc, ok);
            stats.count += __builtin_popcount(unsigned(_mm256_movemask_ps(ok)));
            addWidened(sums[0], rgIn);
            addWidened(sums[1], rcIn);
            addWidened(sums[2], _mm256_mul_ps(rgIn, rgIn));
            addWidened(sums[3], _mm256_mul_ps(rcIn, rcIn));
        }
        double lanes[4][4];
        for (int s = 0; s < 4; ++s) _mm256_storeu_pd(lanes[s], sums[s]);
        double* targets[4] = {&stats.sumG, &stats.sumC, &stats.sumSquaresG, &stats.sumSquaresC};
        for (int s = 0; s < 4; ++s) *targets[s] += (lanes[s][0] + lanes[s][1]) + (lanes[s][2] + lanes[s][3]);
    }
    for (; i < end; ++i) {
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
