#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
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
    void SetUp() override { fs::create_directories(dir); }
    void TearDown() override { fs::remove_all(dir); }
    std::string path(const std::string& name) const { return (dir / name).string(); }
    std::string read(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    const fs::path dir = fs::temp_directory_path() / ("kestor_point_files_" + std::to_string(::getpid()));
    const double K[9] = {10, 0, 2, 0, 10, 2, 0, 0, 1};
    const std::vector<double> rt = kestor_test::Pose().matrix();
};

const float kPoints[6] = {1.5f, -2.25f, 3.0f, 0.125f, 4.0f, -0.5f};
const float kNormals[6] = {0.0f, 0.6f, 0.8f, 1.0f, 0.0f, 0.0f};
const uint8_t kColors[6] = {10, 20, 30, 200, 0, 255};

// The PLY bytes: header, then per vertex x y z [nx ny nz] [the colour bytes reversed].
std::string ply(int count, const float* normals, const uint8_t* colors, const std::string& extra = "") {
    std::string s = "ply\nformat binary_little_endian 1.0\ncomment made by KESTOR\nelement vertex " +
                    std::to_string(count) + "\nproperty float x\nproperty float y\nproperty float z\n";
    if (normals) s += "property float nx\nproperty float ny\nproperty float nz\n";
    if (colors) s += "property uchar red\nproperty uchar green\nproperty uchar blue\n";
    s += extra + "end_header\n";
    for (int i = 0; i < count; ++i) {
        s.append(reinterpret_cast<const char*>(kPoints + 3 * i), 12);
        if (normals) s.append(reinterpret_cast<const char*>(normals + 3 * i), 12);
        if (colors) s += {char(colors[3 * i + 2]), char(colors[3 * i + 1]), char(colors[3 * i])};
    }
    return s;
}

}  // namespace

TEST_F(PointFiles, PlyAndTextBytesAreExactWithColourBytesReversed) {
    for (const float* n : {kNormals, static_cast<const float*>(nullptr)}) {
        ASSERT_EQ(KESTORWritePoints(path("a.ply").c_str(), kPoints, n, kColors, 2), 0);
        EXPECT_EQ(read("a.ply"), ply(2, n, kColors));  // colours are written with or without normals
    }
    // Faces follow the vertices: the byte 3, then three int32 indices; a face count of 0 declares none.
    const int32_t faces[3] = {0, 1, 0};
    ASSERT_TRUE(kestor::writePly(path("f.ply").c_str(), kPoints, nullptr, nullptr, 2, faces, 1));
    std::string expect = ply(2, nullptr, nullptr, "element face 1\nproperty list uchar int vertex_index\n") + '\3';
    EXPECT_EQ(read("f.ply"), expect.append(reinterpret_cast<const char*>(faces), 12));
    ASSERT_TRUE(kestor::writePly(path("f.ply").c_str(), kPoints, nullptr, nullptr, 2, faces, 0));
    EXPECT_EQ(read("f.ply"), ply(2, nullptr, nullptr));
    // Text: the position, the normal if given, the colour bytes reversed only with normals.
    const std::string p0 = "1.500000 -2.250000 3.000000", p1 = "0.125000 4.000000 -0.500000";
    const std::string n0 = " 0.000000 0.600000 0.800000", n1 = " 1.000000 0.000000 0.000000";
    const struct {
        const float* normals;
        const uint8_t* colors;
        std::string text;
    } cases[] = {{kNormals, kColors, p0 + n0 + " 30 20 10\n" + p1 + n1 + " 255 0 200\n"},
                 {kNormals, nullptr, p0 + n0 + "\n" + p1 + n1 + "\n"},
                 {nullptr, kColors, p0 + "\n" + p1 + "\n"},
                 {nullptr, nullptr, p0 + "\n" + p1 + "\n"}};
    for (const auto& c : cases) {
        ASSERT_EQ(KESTORWritePoints(path("a.asc").c_str(), kPoints, c.normals, c.colors, 2), 0);
        EXPECT_EQ(read("a.asc"), c.text);
    }
}

TEST_F(PointFiles, TheExtensionChoosesTheFormatInAnyCase) {
    for (auto c : {std::make_pair("u.PLY", "ply\n"), {"m.Ply", "ply\n"}, {"x.asc.ply", "ply\n"}, {"t.ASC", "1.50"}}) {
        ASSERT_EQ(KESTORWritePoints(path(c.first).c_str(), kPoints, nullptr, nullptr, 2), 0) << c.first;
        EXPECT_EQ(read(c.first).substr(0, 4), c.second) << c.first;
    }
    // No dot anywhere makes the whole path the extension: "ply" and "asc" name files of their kind.
    const fs::path saved = fs::current_path();
    fs::current_path(dir);
    EXPECT_EQ(KESTORWritePoints("ply", kPoints, nullptr, nullptr, 1), 0);
    EXPECT_EQ(KESTORWritePoints("asc", kPoints, nullptr, nullptr, 1), 0);
    fs::current_path(saved);
    EXPECT_EQ(read("ply"), ply(1, nullptr, nullptr));
    EXPECT_EQ(read("asc"), "1.500000 -2.250000 3.000000\n");
    // Other extensions, a dot only in a directory name ("d/ply"), or a file that cannot be opened.
    fs::create_directories(dir / "x.d");
    for (const char* name : {"n.txt", "n.xyz", "n.plyx", "n.", "x.d/ply", "missing/a.ply", "missing/a.asc"}) {
        EXPECT_EQ(KESTORWritePoints(path(name).c_str(), kPoints, nullptr, nullptr, 2), 1) << name;
        EXPECT_FALSE(fs::exists(path(name))) << name;
    }
}

TEST_F(PointFiles, ImageExportWritesTheColouredPointsOrAnEmptyFile) {
    const std::vector<float> none(20, 0.0f), depth(20, 2.0f);
    ASSERT_EQ(KESTORWriteColorDepthToPoints(path("e.ply").c_str(), none.data(), nullptr, nullptr, 5, 4, K, rt.data()), 0);
    EXPECT_EQ(read("e.ply"), ply(0, nullptr, nullptr));
    ASSERT_EQ(KESTORWriteColorDepthToPoints(path("e.asc").c_str(), none.data(), nullptr, nullptr, 5, 4, K, rt.data()), 0);
    EXPECT_TRUE(fs::exists(path("e.asc")) && fs::file_size(path("e.asc")) == 0u);
    EXPECT_EQ(KESTORWriteColorDepthToPoints(path("e.txt").c_str(), depth.data(), nullptr, nullptr, 5, 4, K, rt.data()), 1);
    EXPECT_FALSE(fs::exists(path("e.txt")));
    // A full wall facing the camera: one line per pixel, normal (0, 0, -1), colours reversed.
    std::vector<uint8_t> color(60);
    for (size_t i = 0; i < color.size(); ++i) color[i] = uint8_t(i);
    ASSERT_EQ(KESTORWriteColorDepthToPoints(path("f.asc").c_str(), depth.data(), color.data(), nullptr, 5, 4, K, rt.data()), 0);
    std::istringstream lines(read("f.asc"));
    float v[6];
    int n = 0, r, g, b;
    for (std::string line; std::getline(lines, line); ++n) {
        ASSERT_EQ(std::sscanf(line.c_str(), "%f %f %f %f %f %f %d %d %d", v, v + 1, v + 2, v + 3, v + 4, v + 5, &r, &g, &b), 9);
        EXPECT_TRUE(v[2] == 2.0f && std::abs(v[5] + 1.0f) < 1e-6f && r == 3 * n + 2 && b == 3 * n) << line;
    }
    EXPECT_EQ(n, 20);
}
