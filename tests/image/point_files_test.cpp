#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "image/point_files.h"
#include "kestor.h"
#include "support/synthetic_scene.h"

namespace fs = std::filesystem;

namespace {

class PointFiles : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("kestor_point_files_" + std::to_string(::getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string path(const std::string& name) const { return (dir / name).string(); }
    fs::path dir;
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

template <typename T>
void append(std::string& s, const T* v, size_t n) {
    s.append(reinterpret_cast<const char*>(v), sizeof(T) * n);
}

const float kPoints[6] = {1.5f, -2.25f, 3.0f, 0.125f, 4.0f, -0.5f};
const float kNormals[6] = {0.0f, 0.6f, 0.8f, 1.0f, 0.0f, 0.0f};
const uint8_t kColors[6] = {10, 20, 30, 200, 0, 255};

const char* kHead = "ply\nformat binary_little_endian 1.0\ncomment made by KESTOR\n";
const char* kXyz = "property float x\nproperty float y\nproperty float z\n";
const char* kNxyz = "property float nx\nproperty float ny\nproperty float nz\n";
const char* kRgb = "property uchar red\nproperty uchar green\nproperty uchar blue\n";

}  // namespace

TEST_F(PointFiles, PlyHeaderAndRecordsAreExactWithColourBytesReversed) {
    ASSERT_EQ(KESTORWritePoints(path("a.ply").c_str(), kPoints, kNormals, kColors, 2), 0);
    std::string expect = std::string(kHead) + "element vertex 2\n" + kXyz + kNxyz + kRgb + "end_header\n";
    for (int i = 0; i < 2; ++i) {
        append(expect, kPoints + 3 * i, 3);
        append(expect, kNormals + 3 * i, 3);
        const uint8_t rgb[3] = {kColors[3 * i + 2], kColors[3 * i + 1], kColors[3 * i]};
        append(expect, rgb, 3);
    }
    EXPECT_EQ(readFile(path("a.ply")), expect);

    // Colours without normals: the colours are still written.
    ASSERT_EQ(KESTORWritePoints(path("b.ply").c_str(), kPoints, nullptr, kColors, 2), 0);
    expect = std::string(kHead) + "element vertex 2\n" + kXyz + kRgb + "end_header\n";
    for (int i = 0; i < 2; ++i) {
        append(expect, kPoints + 3 * i, 3);
        const uint8_t rgb[3] = {kColors[3 * i + 2], kColors[3 * i + 1], kColors[3 * i]};
        append(expect, rgb, 3);
    }
    EXPECT_EQ(readFile(path("b.ply")), expect);
}

TEST_F(PointFiles, PlyFacesFollowTheVertices) {
    const int32_t faces[3] = {0, 1, 0};
    ASSERT_TRUE(kestor::writePly(path("f.ply").c_str(), kPoints, nullptr, nullptr, 2, faces, 1));
    std::string expect = std::string(kHead) + "element vertex 2\n" + kXyz + "element face 1\n" +
                         "property list uchar int vertex_index\nend_header\n";
    append(expect, kPoints, 6);
    expect.push_back(char(3));
    append(expect, faces, 3);
    EXPECT_EQ(readFile(path("f.ply")), expect);
    // A face count of 0 declares no face element.
    ASSERT_TRUE(kestor::writePly(path("g.ply").c_str(), kPoints, nullptr, nullptr, 2, faces, 0));
    EXPECT_EQ(readFile(path("g.ply")).find("face"), std::string::npos);
}

TEST_F(PointFiles, TextLinesFollowTheGivenArrays) {
    ASSERT_EQ(KESTORWritePoints(path("a.asc").c_str(), kPoints, kNormals, kColors, 2), 0);
    EXPECT_EQ(readFile(path("a.asc")),
              "1.500000 -2.250000 3.000000 0.000000 0.600000 0.800000 30 20 10\n"
              "0.125000 4.000000 -0.500000 1.000000 0.000000 0.000000 255 0 200\n");
    ASSERT_EQ(KESTORWritePoints(path("b.asc").c_str(), kPoints, kNormals, nullptr, 2), 0);
    EXPECT_EQ(readFile(path("b.asc")),
              "1.500000 -2.250000 3.000000 0.000000 0.600000 0.800000\n"
              "0.125000 4.000000 -0.500000 1.000000 0.000000 0.000000\n");
    for (const uint8_t* colors : {static_cast<const uint8_t*>(nullptr), kColors}) {
        ASSERT_EQ(KESTORWritePoints(path("c.asc").c_str(), kPoints, nullptr, colors, 2), 0);
        EXPECT_EQ(readFile(path("c.asc")), "1.500000 -2.250000 3.000000\n0.125000 4.000000 -0.500000\n");
    }
}

TEST_F(PointFiles, TheExtensionChoosesTheFormatInAnyCase) {
    for (const char* name : {"u.PLY", "m.Ply", "x.asc.ply"}) {
        ASSERT_EQ(KESTORWritePoints(path(name).c_str(), kPoints, nullptr, nullptr, 2), 0) << name;
        EXPECT_EQ(readFile(path(name)).rfind("ply\n", 0), 0u) << name;
    }
    ASSERT_EQ(KESTORWritePoints(path("t.ASC").c_str(), kPoints, nullptr, nullptr, 1), 0);
    EXPECT_EQ(readFile(path("t.ASC")), "1.500000 -2.250000 3.000000\n");
    for (const char* name : {"n.txt", "n.xyz", "n.plyx", "n."}) {
        EXPECT_EQ(KESTORWritePoints(path(name).c_str(), kPoints, nullptr, nullptr, 2), 1) << name;
        EXPECT_FALSE(fs::exists(path(name))) << name;
    }
    // A dot in a directory name and none in the file name: the extension is "d/ply", refused.
    fs::create_directories(dir / "x.d");
    EXPECT_EQ(KESTORWritePoints(path("x.d/ply").c_str(), kPoints, nullptr, nullptr, 2), 1);
    EXPECT_FALSE(fs::exists(path("x.d/ply")));
    // No dot anywhere: the whole path is the extension, so "ply" is a PLY file of that name.
    const fs::path saved = fs::current_path();
    fs::current_path(dir);
    EXPECT_EQ(KESTORWritePoints("ply", kPoints, nullptr, nullptr, 2), 0);
    EXPECT_EQ(KESTORWritePoints("asc", kPoints, nullptr, nullptr, 2), 0);
    fs::current_path(saved);
    EXPECT_EQ(readFile(path("ply")).rfind("ply\n", 0), 0u);
    EXPECT_EQ(readFile(path("asc")).rfind("1.500000", 0), 0u);
    // A file that cannot be opened.
    EXPECT_EQ(KESTORWritePoints(path("missing/a.ply").c_str(), kPoints, nullptr, nullptr, 2), 1);
    EXPECT_EQ(KESTORWritePoints(path("missing/a.asc").c_str(), kPoints, nullptr, nullptr, 2), 1);
}

TEST_F(PointFiles, BadArgumentsReturnFourAndCreateNothing) {
    EXPECT_EQ(KESTORWritePoints(path("a.ply").c_str(), nullptr, kNormals, kColors, 2), 4);
    EXPECT_EQ(KESTORWritePoints(path("a.ply").c_str(), kPoints, kNormals, kColors, 0), 4);
    const double K[9] = {10, 0, 2, 0, 10, 2, 0, 0, 1};
    const std::vector<double> rt = kestor_test::Pose().matrix();
    const std::vector<float> depth(20, 1.0f);
    const std::string name = path("a.ply");
    EXPECT_EQ(KESTORWriteColorDepthToPoints(name.c_str(), nullptr, nullptr, nullptr, 5, 4, K, rt.data()), 4);
    EXPECT_EQ(KESTORWriteColorDepthToPoints(name.c_str(), depth.data(), nullptr, nullptr, 5, 4, nullptr, rt.data()), 4);
    EXPECT_EQ(KESTORWriteColorDepthToPoints(name.c_str(), depth.data(), nullptr, nullptr, 5, 4, K, nullptr), 4);
    EXPECT_EQ(KESTORWriteColorDepthToPoints(name.c_str(), depth.data(), nullptr, nullptr, 0, 4, K, rt.data()), 4);
    EXPECT_EQ(KESTORWriteColorDepthToPoints(name.c_str(), depth.data(), nullptr, nullptr, 5, 0, K, rt.data()), 4);
    EXPECT_FALSE(fs::exists(name));
}

TEST_F(PointFiles, ImageExportWritesTheColouredPointsOrAnEmptyFile) {
    const double K[9] = {10, 0, 2, 0, 10, 2, 0, 0, 1};
    const std::vector<double> rt = kestor_test::Pose().matrix();
    const std::vector<float> none(20, 0.0f);
    ASSERT_EQ(KESTORWriteColorDepthToPoints(path("e.ply").c_str(), none.data(), nullptr, nullptr, 5, 4, K, rt.data()), 0);
    EXPECT_EQ(readFile(path("e.ply")), std::string(kHead) + "element vertex 0\n" + kXyz + "end_header\n");
    ASSERT_EQ(KESTORWriteColorDepthToPoints(path("e.asc").c_str(), none.data(), nullptr, nullptr, 5, 4, K, rt.data()), 0);
    EXPECT_TRUE(fs::exists(path("e.asc")));
    EXPECT_EQ(fs::file_size(path("e.asc")), 0u);
    EXPECT_EQ(KESTORWriteColorDepthToPoints(path("e.txt").c_str(), none.data(), nullptr, nullptr, 5, 4, K, rt.data()), 1);

    // A full frame: the text file has one line per coloured point, colours reversed.
    std::vector<float> depth(20, 2.0f);
    std::vector<uint8_t> color(60);
    for (size_t i = 0; i < color.size(); ++i) color[i] = uint8_t(i);
    ASSERT_EQ(KESTORWriteColorDepthToPoints(path("f.asc").c_str(), depth.data(), color.data(), nullptr, 5, 4, K, rt.data()), 0);
    std::istringstream lines(readFile(path("f.asc")));
    std::string line;
    int n = 0;
    float x, y, z, nx, ny, nz;
    int r, g, b;
    while (std::getline(lines, line)) {
        ASSERT_EQ(std::sscanf(line.c_str(), "%f %f %f %f %f %f %d %d %d", &x, &y, &z, &nx, &ny, &nz, &r, &g, &b), 9);
        EXPECT_EQ(z, 2.0f);
        EXPECT_NEAR(nz, -1.0f, 1e-6f);
        EXPECT_EQ(r, 3 * n + 2);
        EXPECT_EQ(b, 3 * n);
        ++n;
    }
    EXPECT_EQ(n, 20);
}

TEST_F(PointFiles, PlyLoadsInOpen3D) {
    std::string python;
    for (const char* candidate : {"python3", "/usr/bin/python3"}) {
        const std::string probe = std::string(candidate) + " -c \"import open3d\" > /dev/null 2>&1";
        if (std::system(probe.c_str()) == 0) {
            python = candidate;
            break;
        }
    }
    if (python.empty()) GTEST_SKIP() << "no Python with open3d";

    kestor_test::Camera cam = kestor_test::Camera().scaled(80, 60);
    const kestor_test::Frame frame = kestor_test::Scene::texturedRoom().render(cam, kestor_test::Pose());
    const std::vector<double> K = cam.matrix();
    const std::vector<double> rt = kestor_test::Pose::fromAxisAngle({0, 1, 0}, 0.3, {1, 2, 3}).matrix();
    struct Kept {
        std::vector<float> points, normals;
        std::vector<uint8_t> colors;
    } kept;
    ASSERT_EQ(KESTORColorDepthToPoints(
                  frame.depth.data(), frame.color.data(), nullptr, cam.width, cam.height, K.data(), rt.data(),
                  [](const float* p, const float* n, const uint8_t* c, int count, void* user) {
                      Kept& k = *static_cast<Kept*>(user);
                      k.points.assign(p, p + 3 * count);
                      k.normals.assign(n, n + 3 * count);
                      k.colors.assign(c, c + 3 * count);
                  },
                  &kept),
              0);
    ASSERT_GT(kept.points.size(), 100u);
    const std::string ply = path("room.ply");
    ASSERT_EQ(KESTORWriteColorDepthToPoints(ply.c_str(), frame.depth.data(), frame.color.data(), nullptr, cam.width,
                                            cam.height, K.data(), rt.data()), 0);
    const std::string out = path("room.txt");
    const std::string script =
        "import open3d as o3d, numpy as np\n"
        "pc = o3d.io.read_point_cloud('" + ply + "')\n"
        "p, n, c = np.asarray(pc.points), np.asarray(pc.normals), np.asarray(pc.colors)\n"
        "with open('" + out + "', 'w') as f:\n"
        "    f.write('%d %d %d\\n' % (len(p), pc.has_normals(), pc.has_colors()))\n"
        "    for i in (0, len(p) // 2, len(p) - 1):\n"
        "        f.write(' '.join('%.9g' % v for v in list(p[i]) + list(n[i]) + list(c[i])) + '\\n')\n";
    std::ofstream(path("read.py")) << script;
    ASSERT_EQ(std::system((python + " " + path("read.py") + " > /dev/null 2>&1").c_str()), 0);
    std::istringstream in(readFile(out));
    size_t count;
    int hasNormals, hasColors;
    in >> count >> hasNormals >> hasColors;
    ASSERT_EQ(count, kept.points.size() / 3);
    EXPECT_EQ(hasNormals, 1);
    EXPECT_EQ(hasColors, 1);
    for (size_t i : {size_t(0), count / 2, count - 1}) {
        double v[9];
        for (double& x : v) in >> x;
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(float(v[c]), kept.points[i * 3 + c]);
            EXPECT_EQ(float(v[3 + c]), kept.normals[i * 3 + c]);
            // Open3D reads red, green, blue: the input bytes in reverse order.
            EXPECT_NEAR(v[6 + c] * 255.0, kept.colors[i * 3 + 2 - c], 1e-6);
        }
    }
}
