#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "image/vertex_normal_maps.h"
#include "io/png_image.h"
#include "kestor.h"
#include "support/synthetic_scene.h"

using namespace kestor;
using kestor_test::Camera;
using kestor_test::Pose;
using kestor_test::Scene;

namespace {

Camera camera(int w, int h, double f, double cx, double cy) {
    Camera c;
    c.width = w, c.height = h, c.fx = c.fy = f, c.cx = cx, c.cy = cy;
    return c;
}

struct Maps {
    std::vector<float> vmap, nmap;
    bool zeroV(size_t i) const { return !vmap[i * 3] && !vmap[i * 3 + 1] && !vmap[i * 3 + 2]; }
    bool zeroN(size_t i) const { return !nmap[i * 3] && !nmap[i * 3 + 1] && !nmap[i * 3 + 2]; }
};

Maps runExport(const Camera& cam, const std::vector<float>& depth, const uint8_t* mask = nullptr) {
    Maps m{std::vector<float>(depth.size() * 3, -7.0f), std::vector<float>(depth.size() * 3, -7.0f)};
    EXPECT_EQ(KESTORDepthToVmapNmap(cam.matrix().data(), depth.data(), mask, m.vmap.data(),
                                    m.nmap.data(), cam.width, cam.height), 0);
    return m;
}

// The plane's unit normal turned towards the camera at the origin.
Eigen::Vector3d facing(const Eigen::Vector3d& n, const Eigen::Vector3d& p) { return n.dot(p) > 0 ? -n : n; }

// The normal map as a plain loop over the grid, triangle by triangle: the reference for the
// vectorised kernel, which must give the same bits.
std::vector<Float3> referenceNormals(const std::vector<Float3>& p, int w, int h) {
    std::vector<Float3> n(p.size(), Float3{0, 0, 0});
    auto tri = [&](int ip, int iq, int is) {
        const Float3 P = p[size_t(ip)], Q = p[size_t(iq)], S = p[size_t(is)];
        if (P.z == 0 || Q.z == 0 || S.z == 0) return;
        const float ax = Q.x - P.x, ay = Q.y - P.y, az = Q.z - P.z;
        const float bx = S.x - P.x, by = S.y - P.y, bz = S.z - P.z;
        float nx = by * az - bz * ay, ny = bz * ax - bx * az, nz = bx * ay - by * ax;
        const float len = std::sqrt(nx * nx + ny * ny + nz * nz);
        if (len != 0) nx /= len, ny /= len, nz /= len;
        const double px = P.x, py = P.y, pz = P.z;
        const double c = -(double(nx) * px + double(ny) * py + double(nz) * pz) /
                         std::sqrt(px * px + py * py + pz * pz);
        if (!(1.5 > std::acos(c))) return;
        for (int i : {ip, iq, is}) n[size_t(i)].x += nx, n[size_t(i)].y += ny, n[size_t(i)].z += nz;
    };
    for (int y = 0; y + 1 < h; ++y) {
        for (int x = 0; x + 1 < w; ++x) tri(y * w + x, y * w + x + 1, (y + 1) * w + x);
        for (int x = 1; x < w; ++x) tri(y * w + x, (y + 1) * w + x, (y + 1) * w + x - 1);
    }
    for (size_t i = 0; i < p.size(); ++i) {
        const float len = std::sqrt(n[i].x * n[i].x + n[i].y * n[i].y + n[i].z * n[i].z);
        if (p[i].z != 0 && len != 0) n[i].x /= len, n[i].y /= len, n[i].z /= len;
    }
    return n;
}

// Back-projection as a plain loop, with the factors formed as the kernel forms them.
std::vector<Float3> referenceVertices(const std::vector<float>& depth, const uint8_t* mask, int w, int h,
                                      const Intrinsics& k) {
    std::vector<Float3> v(depth.size(), Float3{0, 0, 0});
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const size_t i = size_t(y * w + x);
            const float d = depth[i];
            if ((mask == nullptr || mask[i] != 0) && d > 0)
                v[i] = Float3{d * ((float(x) - k.cx) / k.fx), d * ((float(y) - k.cy) / k.fy), d};
        }
    return v;
}

}  // namespace

// Planes turned by `tilt` about a slanted axis, the first with a box in front, head-on. Where a
// pixel's neighbourhood lies on the plane, its normal is the plane's own turned to the camera, or
// zero once the view ray meets the plane at more than 1.5 radians (margins keep the neighbours'
// angles on the same side of the limit); on the box front it is exactly (0, 0, -1).
TEST(DepthToVmapNmap, NormalsAreThePlanesOwnAndZeroBeyondOnePointFiveRadians) {
    const Camera cam = camera(160, 120, 140.0, 79.5, 59.5);
    const Eigen::Vector3d axis = Eigen::Vector3d(-0.55, 0.83, 0).normalized(), origin(0, 0, 3.0);
    for (double tilt : {0.35, 1.40, 1.45, 1.55, 1.60}) {
        SCOPED_TRACE(tilt);
        const Eigen::Vector3d normal = Eigen::AngleAxisd(tilt, axis) * Eigen::Vector3d(0, 0, -1);
        Scene scene;
        scene.addPlane(origin, normal);
        if (tilt < 1) scene.addBox({-0.4, -0.3, 1.5}, {0.2, 0.4, 2.0});
        const Maps m = runExport(cam, scene.render(cam, Pose()).depth);
        const auto vertex = [&](int u, int v) {
            const float* p = &m.vmap[size_t(v * cam.width + u) * 3];
            return Eigen::Vector3d(p[0], p[1], p[2]);
        };
        int plane = 0, box = 0;
        for (int v = 1; v + 1 < cam.height; ++v) {
            for (int u = 1; u + 1 < cam.width; ++u) {
                bool onPlane = true, onBox = true;
                for (int k = 0; k < 9; ++k) {
                    const Eigen::Vector3d q = vertex(u + k % 3 - 1, v + k / 3 - 1);
                    onPlane = onPlane && q.z() > 0 && std::abs(normal.dot(q - origin)) < 1e-3;
                    onBox = onBox && std::abs(q.z() - 1.5) < 1e-4;
                }
                const size_t i = size_t(v * cam.width + u);
                const float* n = &m.nmap[i * 3];
                const Eigen::Vector3d p = vertex(u, v), e = facing(normal, p);
                const double angle = std::acos(-e.dot(p) / p.norm());
                if (onBox) {
                    ++box;
                    EXPECT_TRUE(n[0] == 0.0f && n[1] == 0.0f && n[2] == -1.0f) << u << "," << v;
                } else if (onPlane && (angle < 1.48 || angle > 1.52)) {
                    ++plane;
                    if (angle > 1.52) {
                        EXPECT_TRUE(m.zeroN(i)) << u << "," << v;
                    } else {
                        for (int c = 0; c < 3; ++c) EXPECT_NEAR(n[c], e[c], 1e-4) << u << "," << v;
                    }
                }
            }
        }
        EXPECT_GT(plane, tilt < 1 ? 5000 : 100);
        EXPECT_GT(box, tilt < 1 ? 1000 : -1);
    }
}

TEST(DepthToVmapNmap, BadDepthMaskedLoneAndThinGiveZeros) {
    // Depth 0, negative and NaN; a mask byte of 0 (any other byte lets the pixel through).
    const Camera cam = camera(4, 3, 4, 1.5, 1);
    std::vector<float> depth(12, 1.0f);
    depth[1] = 0.0f, depth[2] = -1.0f, depth[3] = std::numeric_limits<float>::quiet_NaN();
    std::vector<uint8_t> mask(12, 7);
    mask[5] = 0;
    for (const uint8_t* maskArg : {static_cast<const uint8_t*>(nullptr), static_cast<const uint8_t*>(mask.data())}) {
        const Maps m = runExport(cam, depth, maskArg);
        for (size_t i = 0; i < 12; ++i)
            EXPECT_EQ(m.zeroV(i), (i >= 1 && i <= 3) || (maskArg && i == 5)) << i;
    }
    // A mask of another size than the depth is ignored.
    const std::vector<uint8_t> closed(12, 0);
    std::vector<Float3> vmap(12);
    depthToVmap(Intrinsics{4, 4, 1.5f, 1}, packedView<const float>(depth.data(), 4, 3),
                packedView(closed.data(), 3, 4), packedView(vmap.data(), 4, 3));
    EXPECT_TRUE(vmap[0].z == 1.0f && vmap[11].z == 1.0f);
    // A lone valid pixel has its vertex but no normal; so has every pixel of a 1-wide or 1-high image.
    std::vector<float> lone(25, 0.0f);
    lone[12] = 2.0f;
    Maps m = runExport(camera(5, 5, 5, 2, 2), lone);
    EXPECT_TRUE(m.vmap[12 * 3 + 2] == 2.0f && m.zeroN(12));
    for (auto wh : {std::pair<int, int>{1, 9}, {9, 1}}) {
        m = runExport(camera(wh.first, wh.second, 5, 2, 2), std::vector<float>(9, 1.5f));
        for (size_t i = 0; i < 9; ++i) EXPECT_TRUE(m.vmap[i * 3 + 2] == 1.5f && m.zeroN(i)) << i;
    }
    // A null normal map is allowed: the vertices alone are made.
    std::vector<float> only(12 * 3, -1.0f);
    EXPECT_EQ(KESTORDepthToVmapNmap(cam.matrix().data(), depth.data(), nullptr, only.data(), nullptr, 4, 3), 0);
    EXPECT_TRUE(only[2] == 1.0f && only[35] == 1.0f);
    // A wall facing the camera but mirrored left to right: every triangle is wound the wrong way
    // and is dropped, not flipped.
    std::vector<Float3> mirrored(48), nmap(48);
    for (int i = 0; i < 48; ++i) mirrored[size_t(i)] = Float3{-(i % 8 - 3.5f) * 0.01f, (i / 8 - 2.5f) * 0.01f, 1.0f};
    vmapToNmap(constView(packedView(mirrored.data(), 8, 6)), packedView(nmap.data(), 8, 6));
    for (const Float3& n : nmap) EXPECT_TRUE(n.x == 0 && n.y == 0 && n.z == 0);
}


TEST(DepthToVmapNmap, RealFramesWithHolesMasksAndOddSizesGiveTheBitsOfThePlainLoops) {
    int w = 0, h = 0;
    const std::vector<float> tum = kestor_io::readDepthPng(
        std::string(KESTOR_SAMPLE_DIR) + "/depth/1305031102.160407.png", 5000.0, w, h);
    ASSERT_EQ(w, 640);
    // A room seen head-on and at grazing angles: triangles at both limits of the view-angle test.
    const Camera cam = camera(w, h, 525.0, 319.5, 239.5);
    Scene scene;
    scene.addPlane({0, 0, 2.5}, {0, 0, -1});
    scene.addPlane({0.9, 0, 2.0}, {std::sin(1.49), 0, -std::cos(1.49)});
    scene.addBox({-0.5, -0.4, 1.2}, {-0.1, 0.1, 1.6});
    const std::vector<float> room = scene.render(cam, Pose()).depth;
    // fy apart from fx, so that the two cannot stand in for each other.
    const double K[9] = {525.0, 0, 319.5, 0, 520.0, 239.5, 0, 0, 1};
    const Intrinsics k{525.0f, 520.0f, 319.5f, 239.5f};

    struct Case {
        const char* name;
        const std::vector<float>* depth;
        int holes;        // every n-th pixel NaN (0: none)
        bool masked;      // a scattered mask
        int cropW, cropH; // a smaller window, for row tails
    };
    for (const Case& c : {Case{"tum", &tum, 0, false, w, h}, Case{"tum holes", &tum, 7, false, w, h},
                          Case{"tum masked", &tum, 0, true, w, h}, Case{"tum odd", &tum, 13, true, 637, 475},
                          Case{"room", &room, 0, false, w, h}, Case{"room odd", &room, 5, false, 621, 9},
                          // Narrow windows leave every tail of a vector run, and rows shorter than one.
                          Case{"room 2", &room, 5, false, 2, 13}, Case{"room 7", &room, 5, false, 7, 13},
                          Case{"room 9", &room, 5, true, 9, 13}, Case{"room 23", &room, 5, true, 23, 13}}) {
        const int cw = c.cropW, ch = c.cropH;
        std::vector<float> depth(size_t(cw * ch));
        std::vector<uint8_t> mask(depth.size());
        for (int y = 0; y < ch; ++y)
            for (int x = 0; x < cw; ++x) {
                const size_t i = size_t(y * cw + x);
                depth[i] = (*c.depth)[size_t(y * w + x)];
                if (c.holes && i % size_t(c.holes) == 0) depth[i] = std::numeric_limits<float>::quiet_NaN();
                mask[i] = uint8_t((i * 2654435761u >> 9) % 4 != 0);
            }
        const uint8_t* maskArg = c.masked ? mask.data() : nullptr;
        std::vector<Float3> vmap(depth.size()), nmap(depth.size());
        ASSERT_EQ(KESTORDepthToVmapNmap(K, depth.data(), maskArg, &vmap[0].x, &nmap[0].x, cw, ch), 0);
        const std::vector<Float3> vertices = referenceVertices(depth, maskArg, cw, ch, k);
        const std::vector<Float3> normals = referenceNormals(vertices, cw, ch);
        EXPECT_EQ(std::memcmp(vmap.data(), vertices.data(), vmap.size() * sizeof(Float3)), 0) << c.name;
        EXPECT_EQ(std::memcmp(nmap.data(), normals.data(), nmap.size() * sizeof(Float3)), 0) << c.name;
    }

    // Vertices scaled far out of metres (1e-20, 1e20) and negative zeros in the map: the float
    // shortcuts must step aside and still give the same bits.
    std::vector<Float3> base = referenceVertices(tum, nullptr, w, h, k);
    for (float scale : {1e-20f, 1e20f, -0.0f}) {
        std::vector<Float3> scaled = base;
        for (Float3& p : scaled) {
            if (scale == -0.0f) {
                if (p.x > 0) p.x = -0.0f;  // a zero but negative x on half the image
                continue;
            }
            p.x *= scale, p.y *= scale, p.z *= scale;
        }
        std::vector<Float3> nmap(scaled.size());
        vmapToNmap(constView(packedView(scaled.data(), w, h)), packedView(nmap.data(), w, h));
        const std::vector<Float3> expected = referenceNormals(scaled, w, h);
        EXPECT_EQ(std::memcmp(nmap.data(), expected.data(), nmap.size() * sizeof(Float3)), 0) << scale;
    }
}
