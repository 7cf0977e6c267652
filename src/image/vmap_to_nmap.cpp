// Normals from the triangles of the pixel grid, eight pixels at a time.
//
// Each pair of rows (y, y + 1) holds two runs of triangles: A at x, with corners p(x, y),
// p(x + 1, y), p(x, y + 1), and B at x, with corners p(x, y), p(x, y + 1), p(x - 1, y + 1).
// Adding every kept triangle to its three corners, all A of a row pair before all B, and the row
// pairs from the top, gives pixel (x, y) its sum in this order:
//   A[y-1][x], B[y-1][x], B[y-1][x+1], A[y][x-1], A[y][x], B[y][x].
// The kernel forms exactly these sums, per pixel, so the float result is that of the
// triangle-by-triangle loop: the first three when row pair y - 1 is done (a partial sum kept for
// the next row), the last three onto it when row pair y is done. A dropped triangle is stored as
// +0, and adding +0 changes no sum here: every sum starts at +0 and so is never -0.
#include <immintrin.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "core/float3_lanes.h"
#include "image/normal_kernel.h"
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

// The view-angle test is decided in single precision where that cannot differ from the double
// test, and in double precision otherwise. With the unscaled normal m = b x a (n = m / |m|), the
// float verdict compares (m . P)^2 with t^2 |P|^2 |m|^2 for t = kMinCosine and t = 1, so it
// needs neither the division nor the square roots. It differs from c by less than 1e-6 (the
// rounding of n and of the float sums) while |P|^2 and |m|^2 keep the products in the normal
// float range, which the range bounds check. kMargin is ten times that: a triangle within it of
// either limit, out of range, or NaN takes the exact double test on n.
constexpr double kMargin = 1e-5;
constexpr float kApexMin = 0x1p-50f, kApexMax = 0x1p50f;      // on |P|^2
constexpr float kNormalMin = 0x1p-60f, kNormalMax = 0x1p60f;  // on |m|^2

// The exact cosine test of four triangles in double precision; returns a 4-bit mask.
inline int facingMask4(__m128 nx, __m128 ny, __m128 nz, __m128 px, __m128 py, __m128 pz) {
    const __m256d dnx = _mm256_cvtps_pd(nx), dny = _mm256_cvtps_pd(ny), dnz = _mm256_cvtps_pd(nz);
    const __m256d dpx = _mm256_cvtps_pd(px), dpy = _mm256_cvtps_pd(py), dpz = _mm256_cvtps_pd(pz);
    const __m256d dot = _mm256_add_pd(
        _mm256_add_pd(_mm256_mul_pd(dnx, dpx), _mm256_mul_pd(dny, dpy)), _mm256_mul_pd(dnz, dpz));
    const __m256d norm = _mm256_sqrt_pd(_mm256_add_pd(
        _mm256_add_pd(_mm256_mul_pd(dpx, dpx), _mm256_mul_pd(dpy, dpy)), _mm256_mul_pd(dpz, dpz)));
    const __m256d c = _mm256_div_pd(_mm256_sub_pd(_mm256_setzero_pd(), dot), norm);
    const __m256d ok = _mm256_and_pd(_mm256_cmp_pd(c, _mm256_set1_pd(kMinCosine), _CMP_GE_OQ),
                                     _mm256_cmp_pd(c, _mm256_set1_pd(1.0), _CMP_LE_OQ));
    return _mm256_movemask_pd(ok);
}

// Lane mask from the low 8 bits of `bits`.
inline __m256 maskFromBits(int bits) {
    const __m256i lane = _mm256_setr_epi32(1, 2, 4, 8, 16, 32, 64, 128);
    return _mm256_castsi256_ps(
        _mm256_cmpeq_epi32(_mm256_and_si256(_mm256_set1_epi32(bits), lane), lane));
}

inline __m256 load(const float* p) { return _mm256_loadu_ps(p); }
inline Lanes3 load3(const float* const* planes, int i) {
    return Lanes3{load(planes[0] + i), load(planes[1] + i), load(planes[2] + i)};
}
inline void store3(float* const* planes, int i, const Lanes3& v) {
    _mm256_storeu_ps(planes[0] + i, v.x);
    _mm256_storeu_ps(planes[1] + i, v.y);
    _mm256_storeu_ps(planes[2] + i, v.z);
}
inline Lanes3 add3(const Lanes3& a, const Lanes3& b) {
    return Lanes3{_mm256_add_ps(a.x, b.x), _mm256_add_ps(a.y, b.y), _mm256_add_ps(a.z, b.z)};
}
inline Lanes3 and3(__m256 mask, const Lanes3& v) {
    return Lanes3{_mm256_and_ps(mask, v.x), _mm256_and_ps(mask, v.y), _mm256_and_ps(mask, v.z)};
}
inline __m256 isZero(__m256 v) { return _mm256_cmp_ps(v, _mm256_setzero_ps(), _CMP_EQ_OQ); }
inline __m256 within(__m256 v, float low, float high) {
    return _mm256_and_ps(_mm256_cmp_ps(v, _mm256_set1_ps(low), _CMP_GE_OQ),
                         _mm256_cmp_ps(v, _mm256_set1_ps(high), _CMP_LE_OQ));
}
inline Lanes3 divided(const Lanes3& v, __m256 length) {
    return Lanes3{_mm256_div_ps(v.x, length), _mm256_div_ps(v.y, length),
                  _mm256_div_ps(v.z, length)};
}
// v / length where `scale` is set, v itself elsewhere.
inline Lanes3 dividedWhere(const Lanes3& v, __m256 length, __m256 scale) {
    const Lanes3 q = divided(v, length);
    return Lanes3{_mm256_blendv_ps(v.x, q.x, scale), _mm256_blendv_ps(v.y, q.y, scale),
                  _mm256_blendv_ps(v.z, q.z, scale)};
}

// What the view-angle test needs of the first corners P of eight triangles: |P|^2 times the
// squared bounds (kMinCosine + kMargin, 1 - kMargin, kMinCosine - kMargin), and whether |P|^2 is
// in range.
struct Apex {
    __m256 acceptLow, acceptHigh, reach, inRange;
};

// The unit normal n = b x a of eight triangles with first corner P and edges a = Q - P,
// b = S - P, zeroed where the triangle does not count: `skipped` (a corner with z = 0), or a
// normal facing away or seen at 1.5 rad or more. A triangle wound the wrong way or seen at a
// grazing angle is dropped, never flipped; so is a degenerate one (c = 0). The float operations
// are those of the plain per-triangle form, no fused multiply-add, in the same order.
__attribute__((always_inline)) inline Lanes3 keptNormals(const Lanes3& P, const Lanes3& a,
                                                         const Lanes3& b, __m256 skipped,
                                                         const Apex& apex) {
    const __m256 zero = _mm256_setzero_ps();
    if (_mm256_movemask_ps(skipped) == 0xff) return Lanes3{zero, zero, zero};
    const Lanes3 m{_mm256_sub_ps(_mm256_mul_ps(b.y, a.z), _mm256_mul_ps(b.z, a.y)),
                   _mm256_sub_ps(_mm256_mul_ps(b.z, a.x), _mm256_mul_ps(b.x, a.z)),
                   _mm256_sub_ps(_mm256_mul_ps(b.x, a.y), _mm256_mul_ps(b.y, a.x))};
    const __m256 m2 = dotLanes(m, m);
    const __m256 length = _mm256_sqrt_ps(m2);
    // A zero length is out of range below and goes to the exact test, which redoes n.
    Lanes3 n = divided(m, length);

    // The float verdict: dot = m . P = -c |m| |P|, compared through squares.
    const __m256 dot = dotLanes(m, P);
    const __m256 dot2 = _mm256_mul_ps(dot, dot);
    const __m256 facing = _mm256_cmp_ps(dot, zero, _CMP_LT_OQ);
    const __m256 accept = _mm256_and_ps(
        facing,
        _mm256_and_ps(_mm256_cmp_ps(dot2, _mm256_mul_ps(apex.acceptLow, m2), _CMP_GE_OQ),
                      _mm256_cmp_ps(dot2, _mm256_mul_ps(apex.acceptHigh, m2), _CMP_LE_OQ)));
    // Within reach of the accepted range without being in it: near one of the two limits.
    const __m256 near = _mm256_andnot_ps(
        accept, _mm256_and_ps(facing, _mm256_cmp_ps(dot2, _mm256_mul_ps(apex.reach, m2),
                                                    _CMP_GE_OQ)));
    const __m256 inRange = _mm256_and_ps(apex.inRange, within(m2, kNormalMin, kNormalMax));
    __m256 keep = _mm256_andnot_ps(skipped, _mm256_and_ps(inRange, accept));
    const __m256 undecided = _mm256_andnot_ps(
        skipped, _mm256_or_ps(near, _mm256_cmp_ps(inRange, zero, _CMP_EQ_OQ)));
    const int undecidedBits = _mm256_movemask_ps(undecided);
    if (undecidedBits != 0) {
        n = dividedWhere(m, length, nonZero(length));
        const int exact =
            facingMask4(_mm256_castps256_ps128(n.x), _mm256_castps256_ps128(n.y),
                        _mm256_castps256_ps128(n.z), _mm256_castps256_ps128(P.x),
                        _mm256_castps256_ps128(P.y), _mm256_castps256_ps128(P.z)) |
            (facingMask4(_mm256_extractf128_ps(n.x, 1), _mm256_extractf128_ps(n.y, 1),
                         _mm256_extractf128_ps(n.z, 1), _mm256_extractf128_ps(P.x, 1),
                         _mm256_extractf128_ps(P.y, 1), _mm256_extractf128_ps(P.z, 1))
             << 4);
        keep = _mm256_blendv_ps(keep, maskFromBits(exact), undecided);
    }
    return and3(keep, n);
}

// The triangles of the row pair (U, L): A[x] to a[x + 1], B[x] to b[x], x in [0, blocks * 8).
void rowPairTriangles(float* const* U, float* const* L, int blocks, float* const* a,
                      float* const* b) {
    const __m256 zero = _mm256_setzero_ps();
    auto square = [](double t) { return _mm256_set1_ps(float(t * t)); };
    const __m256 acceptLow = square(kMinCosine + kMargin), acceptHigh = square(1.0 - kMargin),
                 reach = square(kMinCosine - kMargin);
    for (int x = 0; x < blocks * 8; x += 8) {
        // A: P = p(x, y), Q = p(x + 1, y), S = p(x, y + 1).
        // B: P = p(x, y), Q = p(x, y + 1), S = p(x - 1, y + 1).
        const Lanes3 P = load3(U, x + 1), right = load3(U, x + 2);
        const Lanes3 below = load3(L, x + 1), belowLeft = load3(L, x);
        const __m256 shared = _mm256_or_ps(isZero(P.z), isZero(below.z));
        const __m256 skippedA = _mm256_or_ps(shared, isZero(right.z));
        const __m256 skippedB = _mm256_or_ps(shared, isZero(belowLeft.z));
        if (_mm256_movemask_ps(_mm256_and_ps(skippedA, skippedB)) == 0xff) {
            store3(a, x + 1, Lanes3{zero, zero, zero});
            store3(b, x, Lanes3{zero, zero, zero});
            continue;
        }
        const __m256 p2 = dotLanes(P, P);
        const Apex apex{_mm256_mul_ps(acceptLow, p2), _mm256_mul_ps(acceptHigh, p2),
                        _mm256_mul_ps(reach, p2), within(p2, kApexMin, kApexMax)};
        const Lanes3 down = differenceLanes(below, P);
        store3(a, x + 1, keptNormals(P, differenceLanes(right, P), down, skippedA, apex));
        store3(b, x, keptNormals(P, down, differenceLanes(belowLeft, P), skippedB, apex));
    }
}

// Scratch for one call, reused by the thread. Planes of one vertex row hold pixel x at index
// x + 1, with zeros at index 0 and past the row, so that the triangles at both ends of a row find
// a corner of z = 0 outside the image and drop out without a test of their own. The triangle
// runs of a row pair keep A[x] at index x + 1 (a zero A[-1] in front) and B[x] at index x; the
// partial sums keep pixel x at index x.
struct Scratch {
    int length = 0;  // floats per plane: a whole number of vectors past the row and its padding
    float* rows[2][3];
    float* sweepA[3];
    float* sweepB[3];
    float* partial[3];

    explicit Scratch(int width) {
        length = ((width + 2 + 7) / 8) * 8 + 8;
        constexpr int kPlanes = 6 + 3 + 3 + 3;
        thread_local std::vector<float> buffer;
        const size_t need = size_t(length) * kPlanes;
        if (buffer.size() < need) buffer.resize(need);
        std::memset(buffer.data(), 0, sizeof(float) * need);
        float* next = buffer.data();
        auto take = [&]() {
            float* plane = next;
            next += length;
            return plane;
        };
        for (auto& planes : rows)
            for (float*& plane : planes) plane = take();
        for (int c = 0; c < 3; ++c) sweepA[c] = take(), sweepB[c] = take(), partial[c] = take();
    }
};

// Row y of the normal map: the partial sum of row pair y - 1 plus A[x - 1], A[x], B[x] of row
// pair y, in that order; and the partial sum of row pair y for the next row.
void finishRow(float* const* a, float* const* b, float* const* partial, int width, Float3* out) {
    const __m256 zero = _mm256_setzero_ps();
    const Lanes3 start{zero, zero, zero};
    for (int x = 0; x < width; x += 8) {
        const Lanes3 ax = load3(a, x + 1), bx = load3(b, x);
        Lanes3 sum = add3(load3(partial, x), load3(a, x));
        sum = add3(add3(sum, ax), bx);
        store3(partial, x, add3(add3(add3(start, ax), bx), load3(b, x + 1)));
        // A pixel with z = 0 is a corner of no counted triangle, so its sum is +0 and stays so.
        const __m256 length = _mm256_sqrt_ps(dotLanes(sum, sum));
        const Lanes3 n = dividedWhere(sum, length, nonZero(length));
        if (x + 8 <= width) {
            storeLanes(&out[x], n);
        } else {
            Float3 tail[8];
            storeLanes(tail, n);
            std::memcpy(static_cast<void*>(&out[x]), tail, sizeof(Float3) * size_t(width - x));
        }
    }
}

}  // namespace

bool withinViewAngle(double c) { return c >= kMinCosine && c <= 1.0; }

void normalsFromRows(int width, int height, const VertexRowSource& source,
                     const ImageView<Float3>& nmap) {
    // A pyramid level can be zero pixels wide (width 1 at level 1): its rows have no address.
    if (width < 1 || height < 1) return;
    Scratch s(width);
    if (width < 2 || height < 2) {
        for (int y = 0; y < height; ++y) {
            source(y, s.rows[0]);
            std::memset(static_cast<void*>(rowOf(nmap, y)), 0, sizeof(Float3) * size_t(width));
        }
        return;
    }

    const int blocks = (width + 7) / 8;
    int upper = 0;
    source(0, s.rows[upper]);
    for (int y = 0; y < height; ++y) {
        const int lower = 1 - upper;
        if (y + 1 < height) {
            source(y + 1, s.rows[lower]);
            float* const* U = s.rows[upper];
            float* const* L = s.rows[lower];
            rowPairTriangles(U, L, blocks, s.sweepA, s.sweepB);
        } else {
            // Below the last row there are no triangles.
            for (int c = 0; c < 3; ++c) {
                std::memset(s.sweepA[c], 0, sizeof(float) * size_t(s.length));
                std::memset(s.sweepB[c], 0, sizeof(float) * size_t(s.length));
            }
        }
        finishRow(s.sweepA, s.sweepB, s.partial, width, rowOf(nmap, y));
        upper = lower;
    }
}

void vmapToNmap(const ImageView<const Float3>& vmap, const ImageView<Float3>& nmap) {
    const int width = vmap.width;
    normalsFromRows(width, vmap.height, [&](int y, float* const* planes) {
        const Float3* row = rowOf(vmap, y);
        int x = 0;
        for (; x + 8 <= width; x += 8) store3(planes, x + 1, loadLanes(&row[x]));
        for (; x < width; ++x) {
            planes[0][x + 1] = row[x].x;
            planes[1][x + 1] = row[x].y;
            planes[2][x + 1] = row[x].z;
        }
    }, nmap);
}

}  // namespace kestor
