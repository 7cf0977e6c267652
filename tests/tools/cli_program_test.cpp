// The `kestor` program end to end: bad input ends with a message naming the file and leaves no
// output; a run on the bundled sample writes trajectories, a report near the ground truth, a
// picture and a map that a PLY reader we did not write (Open3D) reads back.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <sstream>

#include "cli/sequence_folder.h"
#include "cli/trajectory.h"
#include "temp_dir.h"

namespace fs = std::filesystem;
using kestor_test::TempDir;

namespace {

#ifdef KESTOR_CLI_PROGRAM
const std::string kProgram = KESTOR_CLI_PROGRAM;
constexpr bool kHaveProgram = true;
#else
constexpr bool kHaveProgram = false;
#endif
const std::string kSample = KESTOR_SAMPLE_DIR;

struct Result {
    int status = -1;
    std::string output;
};

Result runProgram(const std::string& arguments) {
    Result r;
#ifdef KESTOR_CLI_PROGRAM
    FILE* pipe = popen((kProgram + " " + arguments + " 2>&1").c_str(), "r");
    std::array<char, 4096> buffer;
    for (size_t n; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
        r.output.append(buffer.data(), n);
    const int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#else
    (void)arguments;
#endif
    return r;
}

// The sample's first `frames` frames copied into `dir`, as a TUM folder with associations.txt.
std::vector<std::string> copySample(const std::string& dir, int frames) {
    std::ifstream in(kSample + "/associations.txt");
    std::ofstream out(dir + "/associations.txt");
    std::vector<std::string> depthFiles;
    fs::create_directories(dir + "/depth");
    fs::create_directories(dir + "/rgb");
    for (std::string line; std::getline(in, line) && int(depthFiles.size()) < frames;) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream f(line);
        std::string dt, df, rt, rf;
        f >> dt >> df >> rt >> rf;
        fs::copy_file(kSample + "/" + df, dir + "/" + df);
        fs::copy_file(kSample + "/" + rf, dir + "/" + rf);
        out << line << "\n";
        depthFiles.push_back(dir + "/" + df);
    }
    return depthFiles;
}

#define REQUIRE_PROGRAM() \
    if (!kHaveProgram) GTEST_SKIP() << "built without the tools";

TEST(KestorProgram, BadInputEndsWithTheFileNamedAndNoOutput) {
    REQUIRE_PROGRAM();
    TempDir dir;
    const std::string good = dir / "good";
    fs::create_directories(good);
    const std::vector<std::string> depth = copySample(good, 3);
    // One failure from opening the folder, one from decoding a frame mid-run, one from the
    // output: the messages of each kind are checked in detail by the sequence folder tests.
    const std::string empty = dir / "empty", corrupt = dir / "corrupt";
    fs::copy(good, corrupt, fs::copy_options::recursive);
    fs::create_directories(empty);
    const std::string third = fs::path(depth[2]).filename().string();
    std::ofstream(corrupt + "/depth/" + third) << "not a png";
    std::ofstream(dir / "a_file") << "x";
    const struct {
        const char* what;
        std::string sequence, output, named;
    } cases[] = {
        {"empty folder", empty, dir / "out1", empty},
        {"corrupt image", corrupt, dir / "out2", corrupt + "/depth/" + third},
        {"output folder not writable", good, dir / "a_file/out", dir / "a_file/out"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Result r = runProgram("reconstruct " + c.sequence + " -o " + c.output + " -q");
        EXPECT_NE(r.status, 0);
        EXPECT_NE(r.output.find("error"), std::string::npos) << r.output;
        EXPECT_NE(r.output.find(c.named), std::string::npos) << r.output;
        EXPECT_TRUE(!fs::exists(c.output) || fs::is_empty(c.output));
    }
}

// Twelve real frames in groups of four: three groups, poses close to the ground truth, one pose
// per frame in each trajectory file, and a map with points, normals and colours.
TEST(KestorProgram, SampleRunWritesTrajectoriesReportPictureAndMap) {
    REQUIRE_PROGRAM();
    TempDir dir;
    const Result r = runProgram("reconstruct " + kSample + " -o " + (dir / "out") +
                                " -q --max-frames 12 --group-size 4");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("12 tracked, 0 lost"), std::string::npos) << r.output;
    const std::vector<kestor_cli::TimedPose> final = kestor_cli::readTum(dir / "out/trajectory.txt");
    const std::vector<kestor_cli::TimedPose> tracked =
        kestor_cli::readTum(dir / "out/trajectory_tracked.txt");
    ASSERT_EQ(final.size(), 12u);
    ASSERT_EQ(tracked.size(), 12u);
    const kestor_cli::Sequence seq = kestor_cli::openSequence(kSample, {}, 12);
    std::vector<kestor_cli::TimedPose> truth;
    for (const auto& f : seq.frames) {
        kestor_cli::TimedPose t;
        t.timestamp = f.timestamp;
        std::copy(f.truth, f.truth + 12, t.pose);
        truth.push_back(t);
    }
    const kestor_cli::TrajectoryErrors e = kestor_cli::compareTrajectories(final, truth);
    EXPECT_EQ(e.compared, 12);
    EXPECT_LT(e.ateRmse, 0.01);
    std::ifstream report(dir / "out/report.txt");
    std::stringstream text;
    text << report.rdbuf();
    EXPECT_NE(text.str().find("ATE RMSE (m): "), std::string::npos);
    std::ifstream svg(dir / "out/trajectory.svg");
    std::string first;
    std::getline(svg, first);
    EXPECT_EQ(first.rfind("<svg", 0), 0u);

    // Read back by Open3D's PLY reader, when its Python module is installed (Debian's
    // python3-open3d, for the system interpreter, which a python3 earlier on PATH may not be).
    std::string python;
    for (const char* candidate : {"/usr/bin/python3", "python3"})
        if (python.empty() &&
            std::system((std::string(candidate) + " -c 'import open3d' > /dev/null 2>&1").c_str()) == 0)
            python = candidate;
    if (python.empty()) GTEST_SKIP() << "python3-open3d is not installed: map.ply not read back";
    const std::string script =
        "import open3d as o3d, numpy as np, sys\n"
        "c = o3d.io.read_point_cloud(sys.argv[1])\n"
        "p = np.asarray(c.points); k = np.asarray(c.colors)\n"
        "e = p.max(0) - p.min(0)\n"
        "print(len(p), int(c.has_normals()), int(c.has_colors()), *e, k.std())\n";
    std::ofstream(dir / "read_ply.py") << script;
    FILE* pipe = popen((python + " " + (dir / "read_ply.py") + " " + (dir / "out/map.ply")).c_str(), "r");
    int count = 0, normals = 0, colours = 0;
    double extent[3] = {0, 0, 0}, colourSpread = 0;
    const int fields = fscanf(pipe, "%d %d %d %lf %lf %lf %lf", &count, &normals, &colours,
                              &extent[0], &extent[1], &extent[2], &colourSpread);
    pclose(pipe);
    ASSERT_EQ(fields, 7);
    EXPECT_GT(count, 10000);
    EXPECT_EQ(normals, 1);
    EXPECT_EQ(colours, 1);
    for (double x : extent) {  // a desk scene seen from 0.5 to 3 m
        EXPECT_GT(x, 0.3);
        EXPECT_LT(x, 6.0);
    }
    EXPECT_GT(colourSpread, 0.05);  // real colours, not one value
}

}  // namespace
