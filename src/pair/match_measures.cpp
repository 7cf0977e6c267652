#include "pair/match_measures.h"

#include <cmath>

#include "core/float3_lanes.h"
#include "pair/point_set_math.h"

namespace kestor {

namespace {

// The sums from which the information matrix is formed in closed form.
struct InfoSums {
    double xx = 0, yy = 0, zz = 0, xy = 0, xz = 0, yz = 0, x = 0, y = 0, z = 0;
    int count = 0;

    void add(const float* p) {
        const double px = p[0], py = p[1], pz = p[2];
        xx += px * px;
        yy += py * py;
        zz += pz * pz;
        xy += px * py;
        xz += px * pz;
        yz += py * pz;
        x += px;
        y += py;
        z += pz;
        ++count;
    }

    // Eight moved points at once; lanes outside `in` hold zeros and add nothing.
    void addLanes(const Lanes3& p, __m256 in) {
        const Lanes3 m{_mm256_and_ps(p.x, in), _mm256_and_ps(p.y, in), _mm256_and_ps(p.z, in)};
        for (int half = 0; half < 2; ++half) {
            auto widen = [half](__m256 v) {
                return _mm256_cvtps_pd(half ? _mm256_extractf128_ps(v, 1) : _mm256_castps256_ps128(v));
            };
            const __m256d px = widen(m.x), py = widen(m.y), pz = widen(m.z);
            lanes[0] = _mm256_fmadd_pd(px, px, lanes[0]);
            lanes[1] = _mm256_fmadd_pd(py, py, lanes[1]);
            lanes[2] = _mm256_fmadd_pd(pz, pz, lanes[2]);
            lanes[3] = _mm256_fmadd_pd(px, py, lanes[3]);
            lanes[4] = _mm256_fmadd_pd(px, pz, lanes[4]);
            lanes[5] = _mm256_fmadd_pd(py, pz, lanes[5]);
            lanes[6] = _mm256_add_pd(px, lanes[6]);
            lanes[7] = _mm256_add_pd(py, lanes[7]);
            lanes[8] = _mm256_add_pd(pz, lanes[8]);
        }
        count += __builtin_popcount(unsigned(_mm256_movemask_ps(in)));
    }
    // Folds the lane sums into the scalar ones (products of floats are exact in double, so the
    // fused form equals a multiply and an add).
    void foldLanes() {
        double* fields[9] = {&xx, &yy, &zz, &xy, &xz, &yz, &x, &y, &z};
        for (int f = 0; f < 9; ++f) {
            alignas(32) double v[4];
            _mm256_store_pd(v, lanes[f]);
            *fields[f] += (v[0] + v[1]) + (v[2] + v[3]);
            lanes[f] = _mm256_setzero_pd();
        }
    }
    __m256d lanes[9] = {};

    // The sum of J^T J with J rows (0, z, -y, 1, 0, 0), (-z, 0, x, 0, 1, 0), (y, -x, 0, 0, 0, 1).
    void write(const ImageView<double>& info) const {
        const double c = count;
        const double m[36] = {yy + zz, -xy,     -xz,     0,  -z, y,   //
                              -xy,     xx + zz, -yz,     z,  0,  -x,  //
                              -xz,     -yz,     xx + yy, -y, x,  0,   //
                              0,       z,       -y,      c,  0,  0,   //
                              -z,      0,       x,       0,  c,  0,   //
                              y,       -x,      0,       0,  0,  c};
        for (int r = 0; r < 6; ++r) {
            double* row = rowOf(info, r);
            for (int col = 0; col < 6; ++col) row[col] = m[r * 6 + col];
        }
    }
};

bool isInfoView(const ImageView<double>& info) {
    return info.data != nullptr && info.width == 6 && info.height == 6;
}

bool isEmpty(const ImageView<const Float3>& view) { return rowOf(view, 0) == nullptr; }

bool sameSize(const ImageView<const Float3>& a, const ImageView<const Float3>& b) {
    return a.width == b.width && a.height == b.height;
}

bool isZero(const Float3& v) { return v.x == 0.0f && v.y == 0.0f && v.z == 0.0f; }

}  // namespace

double calcPointMatchScore(const PointIndex& index, const float* normals1, const float* points2,
                           const float* normals2, int count2, const RT_<float>& pose,
                           const ImageView<double>& info, double maxDistance, double maxAngle) {
    if (index.points() == nullptr || int32_t(index.count()) < 1 || points2 == nullptr ||
        count2 < 1 || !isInfoView(info))
        return 0.0;
    const float radiusSq = float(maxDistance * maxDistance);
    const float cosMaxAngle = float(std::cos(maxAngle));
    const bool useNormals = normals1 != nullptr && normals2 != nullptr;
    InfoSums sums;
    for (int i = 0; i < count2; ++i) {
        float moved[3];
        const int32_t c = nearestTarget(index, pose, points2 + 3 * size_t(i), radiusSq, moved);
        if (c < 0) continue;
        if (useNormals) {
            float movedNormal[3];
            rotateVector(pose.rotation, normals2 + 3 * size_t(i), movedNormal);
            if (cosMaxAngle > dot3(normals1 + 3 * size_t(c), movedNormal)) continue;
        }
        sums.add(moved);
    }
    sums.write(info);
    return double(sums.count) / double(count2);
}

double calcVmapMatchScore(const ImageView<const Float3>& vmap1, const ImageView<const Float3>& nmap1,
                          const ImageView<const Float3>& vmap2, const ImageView<const Float3>& nmap2,
                          const Intrinsics& k, const RT_<float>& pose,
                          const ImageView<double>& info, double maxDistance, double maxAngle) {
    if (isEmpty(vmap1) || isEmpty(vmap2) || !isInfoView(info)) return 0.0;
    const float radiusSq = float(maxDistance * maxDistance);
    const float cosMaxAngle = float(std::cos(maxAngle));
    const bool useNormals = !isEmpty(nmap1) && !isEmpty(nmap2) && sameSize(vmap1, nmap1) &&
                            sameSize(vmap1, vmap2) && sameSize(vmap2, nmap2);
    InfoSums sums;
    int total = 0;
    const int W = vmap1.width, H = vmap1.height;
    // Pixel x of row y of the source, one at a time.
    auto visit = [&](const Float3* sourceRow, const Float3* sourceNormals, int x) {
        const Float3& p = sourceRow[x];
        if (p.z == 0.0f) return;
        if (useNormals && isZero(sourceNormals[x])) return;
        ++total;
        float moved[3];
        transformPoint(pose, &p.x, moved);
        const float u = (moved[0] * k.fx) / moved[2] + k.cx;
        const float v = (moved[1] * k.fy) / moved[2] + k.cy;
        // The pixel is (int)(u + 0.5), (int)(v + 0.5); its limits are tested on the float
        // first, so that a far projection is never converted.
        if (!(u >= 0.0f) || !(v >= 0.0f) || !(u + 0.5f < float(W)) || !(v + 0.5f < float(H)))
            return;
        const int iu = int(u + 0.5f), iv = int(v + 0.5f);
        const Float3& q = rowOf(vmap1, iv)[iu];
        if (q.z == 0.0f) return;
        if (useNormals && isZero(rowOf(nmap1, iv)[iu])) return;
        const double dx = moved[0] - q.x, dy = moved[1] - q.y, dz = moved[2] - q.z;
        if (!(dx * dx + dy * dy + dz * dz < double(radiusSq))) return;
        if (useNormals) {
            float movedNormal[3];
            rotateVector(pose.rotation, &sourceNormals[x].x, movedNormal);
            if (!(dot3(&rowOf(nmap1, iv)[iu].x, movedNormal) > cosMaxAngle)) return;
        }
        sums.add(moved);
    };
    const bool useLanes = lanesCanRead(vmap1) && (!useNormals || lanesCanRead(nmap1));
    const LaneMap vl = laneMap(vmap1), nl = useNormals ? laneMap(nmap1) : LaneMap{};
    const __m256 zero = _mm256_setzero_ps();
    const __m256 half = _mm256_set1_ps(0.5f);
    for (int y = 0; y < vmap2.height; ++y) {
        const Float3* sourceRow = rowOf(vmap2, y);
        const Float3* sourceNormals = useNormals ? rowOf(nmap2, y) : nullptr;
        int x = 0;
        for (; useLanes && x + 8 <= vmap2.width; x += 8) {
            const Lanes3 source = loadLanes(sourceRow + x);
            // Only an exact zero is skipped, as in the single form.
            __m256 in = _mm256_cmp_ps(source.z, zero, _CMP_NEQ_UQ);
            const Lanes3 sourceNormal = useNormals ? loadLanes(sourceNormals + x) : Lanes3{zero, zero, zero};
            if (useNormals)
                in = _mm256_and_ps(in, _mm256_or_ps(_mm256_or_ps(nonZero(sourceNormal.x), nonZero(sourceNormal.y)),
                                                    nonZero(sourceNormal.z)));
            total += __builtin_popcount(unsigned(_mm256_movemask_ps(in)));
            const Lanes3 p = transformLanes(pose, source);
            const __m256 u = _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(p.x, _mm256_set1_ps(k.fx)), p.z),
                                           _mm256_set1_ps(k.cx));
            const __m256 v = _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(p.y, _mm256_set1_ps(k.fy)), p.z),
                                           _mm256_set1_ps(k.cy));
            const __m256 su = _mm256_add_ps(u, half), sv = _mm256_add_ps(v, half);
            __m256 ok = _mm256_and_ps(in, _mm256_and_ps(_mm256_cmp_ps(u, zero, _CMP_GE_OQ),
                                                        _mm256_cmp_ps(v, zero, _CMP_GE_OQ)));
            ok = _mm256_and_ps(ok, _mm256_and_ps(_mm256_cmp_ps(su, _mm256_set1_ps(float(W)), _CMP_LT_OQ),
                                                 _mm256_cmp_ps(sv, _mm256_set1_ps(float(H)), _CMP_LT_OQ)));
            if (_mm256_movemask_ps(ok) == 0) continue;
            const __m256i iu = _mm256_cvttps_epi32(su), iv = _mm256_cvttps_epi32(sv);
            const Lanes3 q = loadLanes3(vl, laneOffsets(vl, iu, iv), ok);
            ok = _mm256_and_ps(ok, _mm256_cmp_ps(q.z, zero, _CMP_NEQ_UQ));
            Lanes3 n{zero, zero, zero};
            if (useNormals) {
                n = loadLanes3(nl, laneOffsets(nl, iu, iv), ok);
                ok = _mm256_and_ps(ok, _mm256_or_ps(_mm256_or_ps(nonZero(n.x), nonZero(n.y)), nonZero(n.z)));
            }
            // The differences in float, squared and summed in double, below the float limit.
            ok = _mm256_and_ps(ok, withinDistance(differenceLanes(p, q), double(radiusSq)));
            if (useNormals) {
                const Lanes3 m = rotateLanes(pose, sourceNormal);
                ok = _mm256_and_ps(ok, _mm256_cmp_ps(dotLanes(n, m), _mm256_set1_ps(cosMaxAngle), _CMP_GT_OQ));
            }
            sums.addLanes(p, ok);
        }
        for (; x < vmap2.width; ++x) visit(sourceRow, sourceNormals, x);
    }
    sums.foldLanes();
    sums.write(info);
    return double(sums.count) / double(total);
}

void calcVmapSelfInfo(const ImageView<const Float3>& vmap, const RT_<float>& pose,
                      const ImageView<double>& info) {
    if (isEmpty(vmap) || !isInfoView(info)) return;
    // Eight pixels at a time as the match score sums them, so that a frame matched with itself
    // gives this information to the last bit.
    InfoSums sums;
    for (int y = 0; y < vmap.height; ++y) {
        const Float3* row = rowOf(vmap, y);
        int x = 0;
        for (; x + 8 <= vmap.width; x += 8) {
            const Lanes3 p = loadLanes(row + x);
            sums.addLanes(transformLanes(pose, p), _mm256_cmp_ps(p.z, _mm256_setzero_ps(), _CMP_NEQ_UQ));
        }
        for (; x < vmap.width; ++x) {
            // Only an exact zero is skipped: a NaN z is summed.
            if (row[x].z == 0.0f) continue;
            float moved[3];
            transformPoint(pose, &row[x].x, moved);
            sums.add(moved);
        }
    }
    sums.foldLanes();
    sums.write(info);
}

}  // namespace kestor
