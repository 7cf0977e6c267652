#include "pair/match_measures.h"

#include <cmath>

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
    for (int y = 0; y < vmap2.height; ++y) {
        const Float3* sourceRow = rowOf(vmap2, y);
        const Float3* sourceNormals = useNormals ? rowOf(nmap2, y) : nullptr;
        for (int x = 0; x < vmap2.width; ++x) {
            const Float3& p = sourceRow[x];
            if (p.z == 0.0f) continue;
            if (useNormals && isZero(sourceNormals[x])) continue;
            ++total;
            float moved[3];
            transformPoint(pose, &p.x, moved);
            const float u = (moved[0] * k.fx) / moved[2] + k.cx;
            const float v = (moved[1] * k.fy) / moved[2] + k.cy;
            // The pixel is (int)(u + 0.5), (int)(v + 0.5); its limits are tested on the float
            // first, so that a far projection is never converted.
            if (!(u >= 0.0f) || !(v >= 0.0f) || !(u + 0.5f < float(vmap1.width)) ||
                !(v + 0.5f < float(vmap1.height)))
                continue;
            const int iu = int(u + 0.5f), iv = int(v + 0.5f);
            const Float3& q = rowOf(vmap1, iv)[iu];
            if (q.z == 0.0f) continue;
            if (useNormals && isZero(rowOf(nmap1, iv)[iu])) continue;
            const double dx = moved[0] - q.x, dy = moved[1] - q.y, dz = moved[2] - q.z;
            if (!(dx * dx + dy * dy + dz * dz < double(radiusSq))) continue;
            if (useNormals) {
                float movedNormal[3];
                rotateVector(pose.rotation, &sourceNormals[x].x, movedNormal);
                if (!(dot3(&rowOf(nmap1, iv)[iu].x, movedNormal) > cosMaxAngle)) continue;
            }
            sums.add(moved);
        }
    }
    sums.write(info);
    return double(sums.count) / double(total);
}

void calcVmapSelfInfo(const ImageView<const Float3>& vmap, const RT_<float>& pose,
                      const ImageView<double>& info) {
    if (isEmpty(vmap) || !isInfoView(info)) return;
    InfoSums sums;
    for (int y = 0; y < vmap.height; ++y) {
        const Float3* row = rowOf(vmap, y);
        for (int x = 0; x < vmap.width; ++x) {
            // Only an exact zero is skipped: a NaN z is summed.
            if (row[x].z == 0.0f) continue;
            float moved[3];
            transformPoint(pose, &row[x].x, moved);
            sums.add(moved);
        }
    }
    sums.write(info);
}

}  // namespace kestor
