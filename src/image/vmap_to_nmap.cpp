// Normals from the triangles of the pixel grid, eight pixels at a time.
//
// Each pair of rows (y, y + 1) holds two runs of triangles: A at x, with corners p(x, y),
// p(x + 1, y), p(x, y + 1), and B at x, with corners p(x, y), p(x, y + 1), p(x - 1, y + 1).
// Adding every kept triangle to its three corners, all A of a row pair before all B, and the row
// pairs from the top, gives pixel (x, y) its sum in this order:
//   A[y-1][x], B[y-1][x], B[y-1][x+1], A[y][x-1], A[y][x], B[y][x].
// The kernel forms exactly these sums, per pixel, from the triangle normals of the two row pairs
// that touch row y, so the float result is that of the triangle-by-triangle loop. A dropped
// triangle is stored as +0, and adding +0 changes no sum here: every sum starts at +0 and so is
// never -0.
#include <immintrin.h>

#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include "image/float3_lanes.h"
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
// test, and in double precision otherwise. c = -(n . P) / |P| is compared through squares, with
// |n . P|^2 against t^2 |P|^2 for t = kMinCosine and t = 1, each widened by kMargin. The float
// error of c is below 1e-6 as long as |n| stays near 1 and no product leaves the normal float
// range, which kSaneRange checks; kMargin is ten times that, and any triangle inside the margin,
// or out of range, or NaN, takes the exact double test.
constexpr double kMargin = 1e-5;
constexpr float kSmallest = 1e-18f, kLargest = 1e18f;  // bounds on |P| and on |n| before scaling

struct FacingBounds {
    __m256 acceptLow, acceptHigh, rejectLow, rejectHigh;
};

FacingBounds facingBounds() {
    auto square = [](double t) { return _mm256_set1_ps(float(t * t)); };
    return FacingBounds{square(kMinCosine + kMargin), square(1.0 - kMargin),
                        square(kMinCosine - kMargin), square(1.0 + kMargin)};
}

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
inline __m256 squaredLength(const Lanes3& v) {
    return _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(v.x, v.x), _mm256_mul_ps(v.y, v.y)),
                         _mm256_mul_ps(v.z, v.z));
}
// v / |v| where |v| != 0 (and `also` holds), v itself elsewhere.
inline Lanes3 normalised(const Lanes3& v, __m256 length, __m256 also) {
    const __m256 scale = _mm256_and_ps(also, _mm256_cmp_ps(length, _mm256_setzero_ps(), _CMP_NEQ_UQ));
    return Lanes3{_mm256_blendv_ps(v.x, _mm256_div_ps(v.x, length), scale),
                  _mm256_blendv_ps(v.y, _mm256_div_ps(v.y, length), scale),
                  _mm256_blendv_ps(v.z, _mm256_div_ps(v.z, length), scale)};
}

// The first corner of eight triangles with what the view-angle test needs of it.
struct Apex {
    Lanes3 p;
    __m256 zeroZ;  // p.z == 0: no triangle at this corner counts
    __m256 acceptLow, acceptHigh, rejectLow, rejectHigh, sane;
};

inline Apex makeApex(const Lanes3& p, const FacingBounds& b) {
    const __m256 norm2 = squaredLength(p);
    const __m256 sane = _mm256_and_ps(
        _mm256_cmp_ps(norm2, _mm256_set1_ps(kSmallest * kSmallest), _CMP_GE_OQ),
        _mm256_cmp_ps(norm2, _mm256_set1_ps(kLargest * kLargest), _CMP_LE_OQ));
    return Apex{p,
                _mm256_cmp_ps(p.z, _mm256_setzero_ps(), _CMP_EQ_OQ),
                _mm256_mul_ps(b.acceptLow, norm2),
                _mm256_mul_ps(b.acceptHigh, norm2),
                _mm256_mul_ps(b.rejectLow, norm2),
                _mm256_mul_ps(b.rejectHigh, norm2),
                sane};
}

// The unit normal n = b x a of eight triangles (a = Q - P, b = S - P), zeroed where the triangle
// does not count: a corner with z = 0, or a normal facing away or seen at 1.5 rad or more. A
// triangle wound the wrong way or seen at a grazing angle is dropped, never flipped; so is a
// degenerate one (c = 0). The operations are those of the plain per-triangle form, no fused
// multiply-add, in the same order.
inline Lanes3 triangleNormals(const Apex& P, const Lanes3& Q, const Lanes3& S) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 skipped = _mm256_or_ps(
        P.zeroZ, _mm256_or_ps(_mm256_cmp_ps(Q.z, zero, _CMP_EQ_OQ), _mm256_cmp_ps(S.z, zero, _CMP_EQ_OQ)));
    const int validBits = ~_mm256_movemask_ps(skipped) & 0xff;
    if (validBits == 0) return Lanes3{zero, zero, zero};

    const __m256 ax = _mm256_sub_ps(Q.x, P.p.x), ay = _mm256_sub_ps(Q.y, P.p.y),
                 az = _mm256_sub_ps(Q.z, P.p.z);
    const __m256 bx = _mm256_sub_ps(S.x, P.p.x), by = _mm256_sub_ps(S.y, P.p.y),
                 bz = _mm256_sub_ps(S.z, P.p.z);
    const Lanes3 cross{_mm256_sub_ps(_mm256_mul_ps(by, az), _mm256_mul_ps(bz, ay)),
                       _mm256_sub_ps(_mm256_mul_ps(bz, ax), _mm256_mul_ps(bx, az)),
                       _mm256_sub_ps(_mm256_mul_ps(bx, ay), _mm256_mul_ps(by, ax))};
    const __m256 length = _mm256_sqrt_ps(squaredLength(cross));
    const Lanes3 n = normalised(cross, length, _mm256_castsi256_ps(_mm256_set1_epi32(-1)));

    // Single-precision verdict with its margins.
    const __m256 toward = _mm256_sub_ps(
        zero, _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(n.x, P.p.x), _mm256_mul_ps(n.y, P.p.y)),
                            _mm256_mul_ps(n.z, P.p.z)));
    const __m256 toward2 = _mm256_mul_ps(toward, toward);
    const __m256 accept = _mm256_and_ps(
        _mm256_cmp_ps(toward, zero, _CMP_GT_OQ),
        _mm256_and_ps(_mm256_cmp_ps(toward2, P.acceptLow, _CMP_GE_OQ),
                      _mm256_cmp_ps(toward2, P.acceptHigh, _CMP_LE_OQ)));
    const __m256 reject = _mm256_or_ps(
        _mm256_cmp_ps(toward, zero, _CMP_LE_OQ),
        _mm256_or_ps(_mm256_cmp_ps(toward2, P.rejectLow, _CMP_LT_OQ),
                     _mm256_cmp_ps(toward2, P.rejectHigh, _CMP_GT_OQ)));
    const __m256 sane = _mm256_and_ps(
        P.sane, _mm256_and_ps(_mm256_cmp_ps(length, _mm256_set1_ps(kSmallest), _CMP_GE_OQ),
                              _mm256_cmp_ps(length, _mm256_set1_ps(kLargest), _CMP_LE_OQ)));
    const int decidedBits = _mm256_movemask_ps(_mm256_and_ps(sane, _mm256_or_ps(accept, reject)));
    int keepBits = _mm256_movemask_ps(_mm256_and_ps(sane, accept));
    const int undecided = validBits & ~decidedBits;
    if (undecided != 0) {
        const int exact =
            facingMask4(_mm256_castps256_ps128(n.x), _mm256_castps256_ps128(n.y),
                        _mm256_castps256_ps128(n.z), _mm256_castps256_ps128(P.p.x),
                        _mm256_castps256_ps128(P.p.y), _mm256_castps256_ps128(P.p.z)) |
            (facingMask4(_mm256_extractf128_ps(n.x, 1), _mm256_extractf128_ps(n.y, 1),
                         _mm256_extractf128_ps(n.z, 1), _mm256_extractf128_ps(P.p.x, 1),
                         _mm256_extractf128_ps(P.p.y, 1), _mm256_extractf128_ps(P.p.z, 1))
             << 4);
        keepBits = (keepBits & ~undecided) | (exact & undecided);
    }
    const __m256 keep = maskFromBits(keepBits & validBits);
    return Lanes3{_mm256_and_ps(keep, n.x), _mm256_and_ps(keep, n.y), _mm256_and_ps(keep, n.z)};
}

// Scratch for one call, reused by the thread. Planes of one vertex row hold pixel x at index
// x + 1, with zeros at index 0 and past the row, so that the triangles at both ends of a row find
// a corner of z = 0 outside the image and drop out without a test of their own. The triangle
// runs of a row pair keep A[x] at index x + 1 (a zero A[-1] in front) and B[x] at index x.
struct Scratch {
    int length = 0;  // floats per plane: a whole number of vectors past the row and its padding
    float* rows[2][3];
    float* sweepA[2][3];
    float* sweepB[2][3];

    explicit Scratch(int width) {
        length = ((width + 2 + 7) / 8) * 8 + 8;
        thread_local std::vector<float> buffer;
        const size_t need = size_t(length) * 18;
        if (buffer.size() < need) buffer.resize(need);
        std::memset(buffer.data(), 0, sizeof(float) * need);
        float* next = buffer.data();
        for (auto* group : {&rows, &sweepA, &sweepB})
            for (auto& planes : *group)
                for (float*& plane : planes) {
                    plane = next;
                    next += length;
                }
    }
};

// One vertex row into planes at index x + 1; entries past the row stay zero.
void loadRow(const Float3* row, int width, float* const* planes) {
    int x = 0;
    for (; x + 8 <= width; x += 8) store3(planes, x + 1, loadLanes3(&row[x].x));
    for (; x < width; ++x) {
        planes[0][x + 1] = row[x].x;
        planes[1][x + 1] = row[x].y;
        planes[2][x + 1] = row[x].z;
    }
}

// Triangle normals of the row pair (upper, lower), for x in [0, blocks * 8).
void rowPairTriangles(float* const* upper, float* const* lower, int blocks,
                      const FacingBounds& bounds, float* const* a, float* const* b) {
    for (int block = 0; block < blocks; ++block) {
        const int x = block * 8;
        const Apex P = makeApex(load3(upper, x + 1), bounds);
        const Lanes3 below = load3(lower, x + 1);
        // A: P = p(x, y), Q = p(x + 1, y), S = p(x, y + 1).
        store3(a, x + 1, triangleNormals(P, load3(upper, x + 2), below));
        // B: P = p(x, y), Q = p(x, y + 1), S = p(x - 1, y + 1).
        store3(b, x, triangleNormals(P, below, load3(lower, x)));
    }
}

// Row y of the normal map from the triangles of row pairs y - 1 (`a0`, `b0`) and y (`a1`,
// `b1`), in the order told at the top; `z` is the z plane of vertex row y.
void gatherRow(float* const* a0, float* const* b0, float* const* a1, float* const* b1,
               const float* z, int width, Float3* out) {
    const __m256 zero = _mm256_setzero_ps();
    for (int x = 0; x < width; x += 8) {
        Lanes3 sum = add3(Lanes3{zero, zero, zero}, load3(a0, x + 1));
        sum = add3(sum, load3(b0, x));
        sum = add3(sum, load3(b0, x + 1));
        sum = add3(sum, load3(a1, x));
        sum = add3(sum, load3(a1, x + 1));
        sum = add3(sum, load3(b1, x));
        const __m256 valid = _mm256_cmp_ps(load(z + x + 1), zero, _CMP_NEQ_UQ);
        const Lanes3 n = normalised(sum, _mm256_sqrt_ps(squaredLength(sum)), valid);
        if (x + 8 <= width) {
            storeLanes3(&out[x].x, n);
        } else {
            float tail[24];
            storeLanes3(tail, n);
            std::memcpy(static_cast<void*>(&out[x]), tail, sizeof(Float3) * size_t(width - x));
        }
    }
}

}  // namespace

bool withinViewAngle(double c) { return c >= kMinCosine && c <= 1.0; }

void vmapToNmap(const ImageView<const Float3>& vmap, const ImageView<Float3>& nmap) {
    const int width = vmap.width;
    const int height = vmap.height;
    // A pyramid level can be zero pixels wide (width 1 at level 1): its rows have no address.
    if (width < 1) return;
    if (width < 2 || height < 2) {
        for (int y = 0; y < height; ++y)
            std::memset(static_cast<void*>(rowOf(nmap, y)), 0, sizeof(Float3) * size_t(width));
        return;
    }

    static const FacingBounds bounds = facingBounds();
    Scratch s(width);
    const int blocks = (width + 7) / 8;
    int upper = 0, previous = 0;  // indices into the two rows and the two triangle runs
    loadRow(rowOf(vmap, 0), width, s.rows[upper]);
    for (int y = 0; y < height; ++y) {
        const int current = 1 - previous;
        const int lower = 1 - upper;
        if (y + 1 < height) {
            loadRow(rowOf(vmap, y + 1), width, s.rows[lower]);
            rowPairTriangles(s.rows[upper], s.rows[lower], blocks, bounds, s.sweepA[current],
                             s.sweepB[current]);
        } else {
            // Below the last row there are no triangles.
            for (int c = 0; c < 3; ++c) {
                std::memset(s.sweepA[current][c], 0, sizeof(float) * size_t(s.length));
                std::memset(s.sweepB[current][c], 0, sizeof(float) * size_t(s.length));
            }
        }
        gatherRow(s.sweepA[previous], s.sweepB[previous], s.sweepA[current], s.sweepB[current],
                  s.rows[upper][2], width, rowOf(nmap, y));
        previous = current;
        upper = lower;
    }
}

}  // namespace kestor
