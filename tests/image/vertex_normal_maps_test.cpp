#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "image/vertex_normal_maps.h"
#include "kestor.h"
#include "support/synthetic_scene.h"

using namespace kestor;
using kestor_test::Camera;
using kestor_test::Pose;
using kestor_test::Scene;

namespace {

struct Maps {
    std::vector<float> vmap, nmap;
};

Maps runExport(const Camera& cam, const std::vector<float>& depth, const uint8_t* mask = nullptr) {
    Maps m;
    m.vmap.assign(depth.size() * 3, -7.0f);
    m.nmap.assign(depth.size() * 3, -7.0f);
    const std::vector<double> K = cam.matrix();
    EXPECT_EQ(KESTORDepthToVmapNmap(K.data(), depth.data(), mask, m.vmap.data(), m.nmap.data(),
                                    cam.width, cam.height),
              KESTOR_STATUS_OK);
    return m;
}

bool isZero(const float* v) { return v[0] == 0.0f && v[1] == 0.0f && v[2] == 0.0f; }

// The unit normal of the plane, oriented towards the camera at the origin.
Eigen::Vector3d facingNormal(const Eigen::Vector3d& n, const Eigen::Vector3d& onPlane) {
    return n.dot(onPlane) > 0 ? -n : n;
}

}  // namespace

TEST(DepthToVmapNmap, VerticesAreTheBackProjectionOfATiltedPlaneAndABox) {
    Camera cam;
    cam.width = 160;
    cam.height = 120;
    cam.fx = cam.fy = 140.0;
    cam.cx = 79.5;
    cam.cy = 59.5;
    Scene scene;
    const Eigen::Vector3d planeNormal = Eigen::Vector3d(0.3, -0.2, -1.0).normalized();
    scene.addPlane({0, 0, 3.0}, planeNormal);
    scene.addBox({-0.4, -0.3, 1.5}, {0.2, 0.4, 2.0});
    const auto frame = scene.render(cam, Pose());
    const Maps m = runExport(cam, frame.depth);
    const float fx = float(cam.fx), fy = float(cam.fy), cx = float(cam.cx), cy = float(cam.cy);

    int planeNormals = 0, boxFrontNormals = 0;
    for (int v = 0; v < cam.height; ++v) {
        for (int u = 0; u < cam.width; ++u) {
            const size_t i = size_t(v * cam.width + u);
            const float d = frame.depth[i];
            ASSERT_GT(d, 0.0f);
            EXPECT_EQ(m.vmap[i * 3 + 0], d * ((float(u) - cx) / fx));
            EXPECT_EQ(m.vmap[i * 3 + 1], d * ((float(v) - cy) / fy));
            EXPECT_EQ(m.vmap[i * 3 + 2], d);
            const float* n = &m.nmap[i * 3];
            if (u == 0 || v == 0 || u + 1 == cam.width || v + 1 == cam.height) continue;
            // Interior pixels whose whole neighbourhood lies on one surface.
            bool flat = true;
            for (int dv = -1; dv <= 1; ++dv)
                for (int du = -1; du <= 1; ++du) {
                    const float dn = frame.depth[size_t((v + dv) * cam.width + u + du)];
                    flat = flat && std::abs(dn - d) < 0.05f;
                }
            if (!flat) continue;
            const Eigen::Vector3d p(m.vmap[i * 3], m.vmap[i * 3 + 1], m.vmap[i * 3 + 2]);
            Eigen::Vector3d expected;
            if (std::abs(d - 1.5f) < 1e-4f) {
                expected = Eigen::Vector3d(0, 0, -1);
                ++boxFrontNormals;
                EXPECT_EQ(n[0], 0.0f);
                EXPECT_EQ(n[1], 0.0f);
                EXPECT_EQ(n[2], -1.0f);
            } else if (d > 2.2f) {
                expected = facingNormal(planeNormal, p);
                ++planeNormals;
                EXPECT_NEAR(n[0], expected.x(), 1e-4);
                EXPECT_NEAR(n[1], expected.y(), 1e-4);
                EXPECT_NEAR(n[2], expected.z(), 1e-4);
            }
        }
    }
    EXPECT_GT(planeNormals, 5000);
    EXPECT_GT(boxFrontNormals, 1000);
}

TEST(DepthToVmapNmap, GrazingTrianglesBeyondOnePointFiveRadiansGiveZeroNormals) {
    Camera cam;
    cam.width = 64;
    cam.height = 48;
    cam.fx = cam.fy = 60.0;
    cam.cx = 31.5;
    cam.cy = 23.5;
    // Planes through (0, 0, 2) whose normal is turned by `tilt` about the y axis.
    for (double tilt : {1.40, 1.45, 1.55, 1.60}) {
        Scene scene;
        scene.addPlane({0, 0, 2.0}, {std::sin(tilt), 0, -std::cos(tilt)});
        const auto frame = scene.render(cam, Pose());
        const Maps m = runExport(cam, frame.depth);
        int checked = 0;
        for (int v = 1; v + 1 < cam.height; ++v) {
            for (int u = 1; u + 1 < cam.width; ++u) {
                const size_t i = size_t(v * cam.width + u);
                if (frame.depth[i] <= 0.0f) continue;
                const Eigen::Vector3d p(m.vmap[i * 3], m.vmap[i * 3 + 1], m.vmap[i * 3 + 2]);
                const Eigen::Vector3d n =
                    facingNormal(Eigen::Vector3d(std::sin(tilt), 0, -std::cos(tilt)), p);
                const double angle = std::acos(-n.dot(p) / p.norm());
                // Margins keep the neighbours' angles on the same side of the limit.
                if (angle < 1.48) {
                    EXPECT_FALSE(isZero(&m.nmap[i * 3])) << "tilt " << tilt;
                    ++checked;
                } else if (angle > 1.52) {
                    EXPECT_TRUE(isZero(&m.nmap[i * 3])) << "tilt " << tilt;
                    ++checked;
                }
            }
        }
        EXPECT_GT(checked, 100) << "tilt " << tilt;
    }
}

TEST(VmapToNmap, WronglyWoundTrianglesAreDroppedNotFlipped) {
    // A wall facing the camera, mirrored left to right: every triangle is wound the wrong way.
    const int w = 8, h = 6;
    std::vector<Float3> vmap(size_t(w * h)), nmap(vmap.size());
    for (int v = 0; v < h; ++v)
        for (int u = 0; u < w; ++u) vmap[size_t(v * w + u)] = Float3{-(u - 3.5f) * 0.01f, (v - 2.5f) * 0.01f, 1.0f};
    vmapToNmap(constView(packedView(vmap.data(), w, h)), packedView(nmap.data(), w, h));
    for (const Float3& n : nmap) EXPECT_TRUE(n.x == 0 && n.y == 0 && n.z == 0);
}

TEST(DepthToVmapNmap, LonePixelsAndThinImagesHaveVerticesButNoNormals) {
    Camera cam;
    cam.width = 5;
    cam.height = 5;
    cam.fx = cam.fy = 5;
    cam.cx = cam.cy = 2;
    std::vector<float> depth(25, 0.0f);
    depth[12] = 2.0f;
    Maps m = runExport(cam, depth);
    EXPECT_EQ(m.vmap[12 * 3 + 2], 2.0f);
    EXPECT_TRUE(isZero(&m.nmap[12 * 3]));

    for (auto size : {std::pair<int, int>{1, 9}, std::pair<int, int>{9, 1}}) {
        Camera thin = cam;
        thin.width = size.first;
        thin.height = size.second;
        std::vector<float> full(9, 1.5f);
        m = runExport(thin, full);
        for (int i = 0; i < 9; ++i) {
            EXPECT_EQ(m.vmap[size_t(i) * 3 + 2], 1.5f);
            EXPECT_TRUE(isZero(&m.nmap[size_t(i) * 3]));
        }
    }
}

TEST(DepthToVmapNmap, BadDepthAndMaskedPixelsGiveZeroVertices) {
    Camera cam;
    cam.width = 4;
    cam.height = 3;
    cam.fx = cam.fy = 4;
    cam.cx = 1.5;
    cam.cy = 1;
    std::vector<float> depth(12, 1.0f);
    depth[1] = 0.0f;
    depth[2] = -1.0f;
    depth[3] = std::numeric_limits<float>::quiet_NaN();
    std::vector<uint8_t> mask(12, 7);  // any non-zero byte lets a pixel through
    mask[5] = 0;
    const std::vector<const uint8_t*> masks{nullptr, mask.data()};
    for (const uint8_t* maskArg : masks) {
        const Maps m = runExport(cam, depth, maskArg);
        for (int i = 0; i < 12; ++i) {
            const bool bad = i == 1 || i == 2 || i == 3 || (maskArg != nullptr && i == 5);
            EXPECT_EQ(isZero(&m.vmap[size_t(i) * 3]), bad) << i;
        }
    }
}

TEST(DepthToVmapNmap, NullNormalMapWritesOnlyVertices) {
    const double K[9] = {2, 0, 0.5, 0, 2, 0.5, 0, 0, 1};
    const std::vector<float> depth(4, 3.0f);
    std::vector<float> vmap(12, -1.0f);
    EXPECT_EQ(KESTORDepthToVmapNmap(K, depth.data(), nullptr, vmap.data(), nullptr, 2, 2), 0);
    EXPECT_EQ(vmap[2], 3.0f);
    EXPECT_EQ(vmap[11], 3.0f);
}

TEST(DepthToVmapNmap, BadArgumentsReturnFourAndWriteNothing) {
    const double K[9] = {2, 0, 0.5, 0, 2, 0.5, 0, 0, 1};
    const std::vector<float> depth(4, 3.0f);
    std::vector<float> vmap(12, -1.0f), nmap(12, -1.0f);
    const auto untouched = [&] {
        for (float x : vmap) EXPECT_EQ(x, -1.0f);
        for (float x : nmap) EXPECT_EQ(x, -1.0f);
    };
    EXPECT_EQ(KESTORDepthToVmapNmap(nullptr, depth.data(), nullptr, vmap.data(), nmap.data(), 2, 2), 4);
    EXPECT_EQ(KESTORDepthToVmapNmap(K, nullptr, nullptr, vmap.data(), nmap.data(), 2, 2), 4);
    EXPECT_EQ(KESTORDepthToVmapNmap(K, depth.data(), nullptr, nullptr, nmap.data(), 2, 2), 4);
    EXPECT_EQ(KESTORDepthToVmapNmap(K, depth.data(), nullptr, vmap.data(), nmap.data(), 0, 2), 4);
    EXPECT_EQ(KESTORDepthToVmapNmap(K, depth.data(), nullptr, vmap.data(), nmap.data(), 2, -1), 4);
    untouched();
}

TEST(DepthToVmap, MaskOfAnotherSizeIsIgnored) {
    const Intrinsics k{2, 2, 0.5f, 0.5f};
    const std::vector<float> depth(4, 3.0f);
    const std::vector<uint8_t> mask(6, 0);
    std::vector<Float3> vmap(4);
    depthToVmap(k, packedView(depth.data(), 2, 2), packedView(mask.data(), 3, 2),
                packedView(vmap.data(), 2, 2));
    for (const Float3& p : vmap) EXPECT_EQ(p.z, 3.0f);
}

TEST(VmapToNmap, ViewAngleTestAgreesWithAcosAroundTheLimit) {
    const double bound = std::cos(kMaxViewAngle);
    std::vector<double> samples{-1.0, 0.0, 0.5, 1.0, std::nextafter(1.0, 2.0), 1.5,
                                std::numeric_limits<double>::quiet_NaN()};
    double c = bound;
    for (int i = 0; i < 8; ++i) c = std::nextafter(c, -1.0);
    for (int i = 0; i < 16; ++i, c = std::nextafter(c, 2.0)) samples.push_back(c);
    for (double s : samples) EXPECT_EQ(withinViewAngle(s), kMaxViewAngle > std::acos(s)) << s;
}

namespace {

// The normal map as a plain loop over the grid, triangle by triangle: the reference for the
// vectorised kernel, which must give the same bits.
void referenceNormals(const std::vector<Float3>& p, int w, int h, std::vector<Float3>& n) {
    n.assign(p.size(), Float3{0, 0, 0});
    auto tri = [&](int ip, int iq, int is) {
        const Float3 P = p[size_t(ip)], Q = p[size_t(iq)], S = p[size_t(is)];
        if (P.z == 0 || Q.z == 0 || S.z == 0) return;
        const float ax = Q.x - P.x, ay = Q.y - P.y, az = Q.z - P.z;
        const float bx = S.x - P.x, by = S.y - P.y, bz = S.z - P.z;
        float nx = by * az - bz * ay, ny = bz * ax - bx * az, nz = bx * ay - by * ax;
        const float len = std::sqrt(nx * nx + ny * ny + nz * nz);
        if (len != 0) {
            nx /= len;
            ny /= len;
            nz /= len;
        }
        const double px = P.x, py = P.y, pz = P.z;
        const double c = -(double(nx) * px + double(ny) * py + double(nz) * pz) /
                         std::sqrt(px * px + py * py + pz * pz);
        if (!(1.5 > std::acos(c))) return;
        for (int i : {ip, iq, is}) {
            n[size_t(i)].x += nx;
            n[size_t(i)].y += ny;
            n[size_t(i)].z += nz;
        }
    };
    for (int y = 0; y + 1 < h; ++y) {
        for (int x = 0; x + 1 < w; ++x) tri(y * w + x, y * w + x + 1, (y + 1) * w + x);
        for (int x = 1; x < w; ++x) tri(y * w + x, (y + 1) * w + x, (y + 1) * w + x - 1);
    }
    for (size_t i = 0; i < p.size(); ++i) {
        if (p[i].z == 0) continue;
        const float len = std::sqrt(n[i].x * n[i].x + n[i].y * n[i].y + n[i].z * n[i].z);
        if (len != 0) {
            n[i].x /= len;
            n[i].y /= len;
            n[i].z /= len;
        }
    }
}

}  // namespace

TEST(VmapToNmap, VectorisedKernelGivesTheBitsOfThePlainLoop) {
    // A rough room with holes, at widths that leave every possible tail of a vector run.
    Scene scene = Scene::texturedRoom();
    for (int width : {2, 7, 8, 9, 23, 64}) {
        Camera cam = Camera().scaled(width, 13);
        cam.height = 13;
        auto frame = scene.render(cam, Pose::fromAxisAngle({0.3, 1, 0.1}, 0.6, {0.1, -0.2, 0.3}));
        for (size_t i = 0; i < frame.depth.size(); i += 5) frame.depth[i] = 0;  // holes
        for (size_t i = 0; i < frame.depth.size(); i += 3) frame.depth[i] *= 1.01f;  // roughness
        std::vector<Float3> vmap(frame.depth.size()), nmap(vmap.size()), expected;
        const Intrinsics k{float(cam.fx), float(cam.fy), float(cam.cx), float(cam.cy)};
        depthToVmap(k, packedView<const float>(frame.depth.data(), width, 13), ImageView<const uint8_t>{},
                    packedView(vmap.data(), width, 13));
        vmapToNmap(constView(packedView(vmap.data(), width, 13)), packedView(nmap.data(), width, 13));
        referenceNormals(vmap, width, 13, expected);
        ASSERT_EQ(std::memcmp(nmap.data(), expected.data(), nmap.size() * sizeof(Float3)), 0)
            << "width " << width;
    }
}
