#include <immintrin.h>

#include <cmath>
#include <cstring>
#include <vector>

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

// One row of the vertex map as three planes, so that runs of triangles load as vectors.
struct RowPlanes {
    std::vector<float> x, y, z;
    explicit RowPlanes(int width) : x(size_t(width)), y(size_t(width)), z(size_t(width)) {}
    void load(const Float3* row, int width) {
        for (int i = 0; i < width; ++i) {
            x[size_t(i)] = row[i].x;
            y[size_t(i)] = row[i].y;
            z[size_t(i)] = row[i].z;
        }
    }
};

// Corner planes of a run of triangles: triangle i has corners P[i], Q[i], S[i].
struct Corners {
    const float *x, *y, *z;
};
inline Corners cornersAt(const RowPlanes& row, int offset) {
    return Corners{row.x.data() + offset, row.y.data() + offset, row.z.data() + offset};
}

// Unit normals of a run of triangles, with 1 in `accepted` where a triangle counts.
struct TriangleNormals {
    std::vector<float> x, y, z;
    std::vector<uint8_t> accepted;
    explicit TriangleNormals(int count)
        : x(size_t(count)), y(size_t(count)), z(size_t(count)), accepted(size_t(count)) {}
};

// The normal n = b x a of the triangle (a = Q - P, b = S - P), made unit length, kept when all
// three corners are valid and it faces the camera within the view angle. A wrongly wound or
// grazing triangle is dropped, never flipped; so is a degenerate one (c = 0).
void triangleScalar(const Corners& P, const Corners& Q, const Corners& S, int i,
                    TriangleNormals& out) {
    out.accepted[size_t(i)] = 0;
    if (P.z[i] == 0.0f || Q.z[i] == 0.0f || S.z[i] == 0.0f) return;
    const float ax = Q.x[i] - P.x[i], ay = Q.y[i] - P.y[i], az = Q.z[i] - P.z[i];
    const float bx = S.x[i] - P.x[i], by = S.y[i] - P.y[i], bz = S.z[i] - P.z[i];
    float nx = by * az - bz * ay, ny = bz * ax - bx * az, nz = bx * ay - by * ax;
    const float length = std::sqrt(nx * nx + ny * ny + nz * nz);
    if (length != 0.0f) {
        nx /= length;
        ny /= length;
        nz /= length;
    }
    const double px = P.x[i], py = P.y[i], pz = P.z[i];
    const double c =
        -(double(nx) * px + double(ny) * py + double(nz) * pz) / std::sqrt(px * px + py * py + pz * pz);
    if (!withinViewAngle(c)) return;
    out.x[size_t(i)] = nx;
    out.y[size_t(i)] = ny;
    out.z[size_t(i)] = nz;
    out.accepted[size_t(i)] = 1;
}

// The cosine test of four triangles in double precision; returns a 4-bit mask.
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

// Eight triangles at a time with exactly the operations of triangleScalar (no fused
// multiply-add, same order), so both give the same bits.
void triangleRun(const Corners& P, const Corners& Q, const Corners& S, int count,
                 TriangleNormals& out) {
    int i = 0;
    const __m256 zero = _mm256_setzero_ps();
    for (; i + 8 <= count; i += 8) {
        const __m256 px = _mm256_loadu_ps(P.x + i), py = _mm256_loadu_ps(P.y + i),
                     pz = _mm256_loadu_ps(P.z + i);
        const __m256 qz = _mm256_loadu_ps(Q.z + i), sz = _mm256_loadu_ps(S.z + i);
        const __m256 valid = _mm256_and_ps(
            _mm256_and_ps(_mm256_cmp_ps(pz, zero, _CMP_NEQ_UQ), _mm256_cmp_ps(qz, zero, _CMP_NEQ_UQ)),
            _mm256_cmp_ps(sz, zero, _CMP_NEQ_UQ));
        const int validBits = _mm256_movemask_ps(valid);
        if (validBits == 0) {
            std::memset(&out.accepted[size_t(i)], 0, 8);
            continue;
        }
        const __m256 ax = _mm256_sub_ps(_mm256_loadu_ps(Q.x + i), px);
        const __m256 ay = _mm256_sub_ps(_mm256_loadu_ps(Q.y + i), py);
        const __m256 az = _mm256_sub_ps(qz, pz);
        const __m256 bx = _mm256_sub_ps(_mm256_loadu_ps(S.x + i), px);
        const __m256 by = _mm256_sub_ps(_mm256_loadu_ps(S.y + i), py);
        const __m256 bz = _mm256_sub_ps(sz, pz);
        __m256 nx = _mm256_sub_ps(_mm256_mul_ps(by, az), _mm256_mul_ps(bz, ay));
        __m256 ny = _mm256_sub_ps(_mm256_mul_ps(bz, ax), _mm256_mul_ps(bx, az));
        __m256 nz = _mm256_sub_ps(_mm256_mul_ps(bx, ay), _mm256_mul_ps(by, ax));
        const __m256 length = _mm256_sqrt_ps(_mm256_add_ps(
            _mm256_add_ps(_mm256_mul_ps(nx, nx), _mm256_mul_ps(ny, ny)), _mm256_mul_ps(nz, nz)));
        const __m256 nonZero = _mm256_cmp_ps(length, zero, _CMP_NEQ_UQ);
        nx = _mm256_blendv_ps(nx, _mm256_div_ps(nx, length), nonZero);
        ny = _mm256_blendv_ps(ny, _mm256_div_ps(ny, length), nonZero);
        nz = _mm256_blendv_ps(nz, _mm256_div_ps(nz, length), nonZero);
        const int facing =
            facingMask4(_mm256_castps256_ps128(nx), _mm256_castps256_ps128(ny),
                        _mm256_castps256_ps128(nz), _mm256_castps256_ps128(px),
                        _mm256_castps256_ps128(py), _mm256_castps256_ps128(pz)) |
            (facingMask4(_mm256_extractf128_ps(nx, 1), _mm256_extractf128_ps(ny, 1),
                         _mm256_extractf128_ps(nz, 1), _mm256_extractf128_ps(px, 1),
                         _mm256_extractf128_ps(py, 1), _mm256_extractf128_ps(pz, 1))
             << 4);
        const int accepted = facing & validBits;
        _mm256_storeu_ps(&out.x[size_t(i)], nx);
        _mm256_storeu_ps(&out.y[size_t(i)], ny);
        _mm256_storeu_ps(&out.z[size_t(i)], nz);
        for (int k = 0; k < 8; ++k) out.accepted[size_t(i + k)] = uint8_t((accepted >> k) & 1);
    }
    for (; i < count; ++i) triangleScalar(P, Q, S, i, out);
}

inline void addTo(Float3& sum, const TriangleNormals& t, int i) {
    sum.x += t.x[size_t(i)];
    sum.y += t.y[size_t(i)];
    sum.z += t.z[size_t(i)];
}

}  // namespace

bool withinViewAngle(double c) { return c >= kMinCosine && c <= 1.0; }

void vmapToNmap(const ImageView<const Float3>& vmap, const ImageView<Float3>& nmap) {
    const int width = vmap.width;
    const int height = vmap.height;
    // A pyramid level can be zero pixels wide (width 1 at level 1): its rows have no address.
    if (width < 1) return;
    for (int y = 0; y < height; ++y)
        std::memset(static_cast<void*>(rowOf(nmap, y)), 0, sizeof(Float3) * size_t(width));
    if (width < 2 || height < 2) return;

    RowPlanes upper(width), lower(width);
    TriangleNormals sweepA(width - 1), sweepB(width - 1);
    lower.load(rowOf(vmap, 0), width);
    for (int y = 0; y + 1 < height; ++y) {
        std::swap(upper, lower);
        lower.load(rowOf(vmap, y + 1), width);
        // Sweep A, x = 0 .. w-2: P = p(x, y), Q = p(x+1, y), S = p(x, y+1).
        triangleRun(cornersAt(upper, 0), cornersAt(upper, 1), cornersAt(lower, 0), width - 1, sweepA);
        // Sweep B, x = 1 .. w-1: P = p(x, y), Q = p(x, y+1), S = p(x-1, y+1).
        triangleRun(cornersAt(upper, 1), cornersAt(lower, 1), cornersAt(lower, 0), width - 1, sweepB);

        // Sums in the order of the sweeps, so the float result does not depend on the vectors.
        Float3* n0 = rowOf(nmap, y);
        Float3* n1 = rowOf(nmap, y + 1);
        for (int x = 0; x + 1 < width; ++x) {
            if (!sweepA.accepted[size_t(x)]) continue;
            addTo(n0[x], sweepA, x);
            addTo(n0[x + 1], sweepA, x);
            addTo(n1[x], sweepA, x);
        }
        for (int x = 1; x < width; ++x) {
            if (!sweepB.accepted[size_t(x - 1)]) continue;
            addTo(n0[x], sweepB, x - 1);
            addTo(n1[x], sweepB, x - 1);
            addTo(n1[x - 1], sweepB, x - 1);
        }
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
