// Sequence folders: each layout on small fixtures and on the real recordings, camera values by
// source, and bad input naming the file at fault.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>

#include "cli/frame_decoder.h"
#include "cli/output_files.h"
#include "cli/sequence_folder.h"
#include "temp_dir.h"

namespace fs = std::filesystem;
using namespace kestor_cli;
using kestor_test::TempDir;

namespace {

const std::string kData = KESTOR_SHARED_DATA_DIR;

void writeText(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

void writeDepth(const std::string& path, int w, int h, uint16_t value) {
    fs::create_directories(fs::path(path).parent_path());
    cv::imwrite(path, cv::Mat(h, w, CV_16UC1, cv::Scalar(value)));
}

void writeColor(const std::string& path, int w, int h) {
    fs::create_directories(fs::path(path).parent_path());
    cv::imwrite(path, cv::Mat(h, w, CV_8UC3, cv::Scalar(10, 20, 30)));  // B, G, R
}

// depth.txt and rgb.txt are paired one to one by time, closest first, at most 20 ms apart: the
// depth at 2.00 takes the colour at 2.005 (not the one at 1.99, which 1.985 is nearer to), and
// the depth at 3.0 has no colour within 20 ms and is left out.
TEST(SequenceFolder, TumListsAreAssociatedByTime) {
    TempDir dir;
    const double depthTimes[] = {1.985, 2.0, 3.0};
    const double colorTimes[] = {1.99, 2.005, 3.05};
    std::string depthList = "# depth\n", colorList = "# rgb\n";
    for (double t : depthTimes) {
        const std::string name = "depth/" + std::to_string(t) + ".png";
        writeDepth(dir / name, 4, 3, 5000);
        depthList += std::to_string(t) + " " + name + "\n";
    }
    for (double t : colorTimes) {
        const std::string name = "rgb/" + std::to_string(t) + ".png";
        writeColor(dir / name, 4, 3);
        colorList += std::to_string(t) + " " + name + "\n";
    }
    writeText(dir / "depth.txt", depthList);
    writeText(dir / "rgb.txt", colorList);
    writeText(dir / "groundtruth.txt", "# t tx ty tz qx qy qz qw\n2.01 1 2 3 0 0 0 1\n");
    const Sequence seq = openSequence(dir.path.string(), {});
    ASSERT_EQ(seq.frames.size(), 2u);
    EXPECT_EQ(seq.frames[0].timestamp, 1.985);
    EXPECT_EQ(fs::path(seq.frames[0].colorPath).filename(), std::to_string(1.99) + ".png");
    EXPECT_EQ(fs::path(seq.frames[1].colorPath).filename(), std::to_string(2.005) + ".png");
    // Ground truth by the nearest stamp within 20 ms: 2.01 goes to 2.0, not to 1.985.
    EXPECT_FALSE(seq.frames[0].hasTruth);
    ASSERT_TRUE(seq.frames[1].hasTruth);
    EXPECT_EQ(seq.frames[1].truth[3], 1.0);
    EXPECT_EQ(seq.frames[1].truth[11], 3.0);
    EXPECT_EQ(seq.camera.fx, 525.0);
    EXPECT_EQ(seq.camera.depthUnitsPerMetre, 5000.0);
}

// Camera values: the folder's file first, then the options, then the layout's default.
TEST(SequenceFolder, CameraFromFolderThenOptionsThenDefaults) {
    TempDir dir;
    writeDepth(dir / "depth/1.png", 4, 3, 1);
    writeColor(dir / "rgb/1.png", 4, 3);
    writeText(dir / "associations.txt", "1 depth/1.png 1 rgb/1.png\n");
    CameraOptions options;
    options.fx = 600;
    options.cy = 100;
    Sequence seq = openSequence(dir.path.string(), options);
    EXPECT_EQ(seq.camera.fx, 600.0);
    EXPECT_EQ(seq.camera.fy, 525.0);
    EXPECT_EQ(seq.camera.cy, 100.0);
    EXPECT_EQ(seq.cameraSources, (std::vector<std::string>{"option", "default", "default",
                                                            "option", "default"}));
    writeText(dir / "intrinsics.txt", "# fx fy cx cy width height depth_scale\n"
                                      "300 301 2.5 1.5 4 3 1000\n");
    seq = openSequence(dir.path.string(), options);
    EXPECT_EQ(seq.camera.fx, 300.0);
    EXPECT_EQ(seq.camera.fy, 301.0);
    EXPECT_EQ(seq.camera.cy, 1.5);
    EXPECT_EQ(seq.camera.depthUnitsPerMetre, 1000.0);
    EXPECT_EQ(seq.camera.width, 4);
    EXPECT_EQ(seq.camera.height, 3);
}

TEST(SequenceFolder, SevenScenesFramesPosesAndCamera) {
    TempDir dir;
    for (int i = 0; i < 3; ++i) {
        const std::string base = dir / ("frame-00000" + std::to_string(i));
        writeDepth(base + ".depth.png", 4, 3, 1000);
        writeColor(base + (i == 1 ? ".color.jpg" : ".color.png"), 4, 3);
        // A rotation printed to 4 digits: read back orthonormal.
        writeText(base + ".pose.txt", "0.9999 0 0 " + std::to_string(i) +
                                          "\n0 1 0 0\n0 0 1 0\n0 0 0 1\n");
    }
    const Sequence seq = openSequence(dir.path.string(), {});
    EXPECT_EQ(seq.layout, Layout::SevenScenes);
    ASSERT_EQ(seq.frames.size(), 3u);
    EXPECT_EQ(fs::path(seq.frames[1].colorPath).extension(), ".jpg");
    EXPECT_DOUBLE_EQ(seq.frames[2].timestamp, 2 / 30.0);
    EXPECT_EQ(seq.frames[2].truth[3], 2.0);
    EXPECT_DOUBLE_EQ(seq.frames[2].truth[0], 1.0);
    EXPECT_EQ(seq.camera.fx, 585.0);
    EXPECT_EQ(seq.camera.cx, 320.0);
    EXPECT_EQ(seq.camera.depthUnitsPerMetre, 1000.0);
    EXPECT_EQ(openSequence(dir.path.string(), {}, 2).frames.size(), 2u);
}

TEST(SequenceFolder, RealRecordings) {
    const struct {
        const char* name;
        size_t frames;
        double fx, cx, unitsPerMetre;
        int width;
        bool synchronous;  // colour and depth share their time stamps
    } cases[] = {
        {"tum_fr1_xyz", 37, 525.0, 319.5, 5000.0, 0, false},
        {"synth-loop", 200, 258.65, 159.05, 5000.0, 320, true},
        {"synth-handheld", 60, 0, 0, 5000.0, 640, true},
        {"7scenes_redkitchen", 122, 585.0, 320.0, 1000.0, 0, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Sequence seq = openSequence(kData + "/" + c.name, {});
        EXPECT_EQ(seq.frames.size(), c.frames);
        if (c.fx > 0) {
            EXPECT_EQ(seq.camera.fx, c.fx);
        }
        if (c.cx > 0) {
            EXPECT_EQ(seq.camera.cx, c.cx);
        }
        EXPECT_EQ(seq.camera.depthUnitsPerMetre, c.unitsPerMetre);
        EXPECT_EQ(seq.camera.width, c.width);
        EXPECT_TRUE(seq.hasColor());
        EXPECT_EQ(seq.colorSynchronous(), c.synchronous);
        for (const auto& f : seq.frames) EXPECT_TRUE(f.hasTruth) << f.depthPath;
        for (size_t i = 1; i < seq.frames.size(); ++i)
            EXPECT_GT(seq.frames[i].timestamp, seq.frames[i - 1].timestamp);
    }
}

// Decoding writes the caller's planes: depth in metres with 0 and 65535 as no measurement, colour
// as R, G, B.
TEST(FrameDecoder, DepthInMetresAndColourInRgbOrder) {
    TempDir dir;
    cv::Mat raw(2, 3, CV_16UC1, cv::Scalar(0));
    raw.at<uint16_t>(0, 1) = 2500;
    raw.at<uint16_t>(1, 2) = 65535;
    cv::imwrite(dir / "d.png", raw);
    writeColor(dir / "c.png", 3, 2);
    std::vector<float> depth(6, -1.0f);
    decodeDepth(dir / "d.png", 5000.0, 3, 2, depth.data());
    EXPECT_EQ(depth, (std::vector<float>{0, 0.5f, 0, 0, 0, 0}));
    std::vector<uint8_t> rgb(18);
    decodeColor(dir / "c.png", 3, 2, rgb.data());
    EXPECT_EQ(rgb[0], 30);
    EXPECT_EQ(rgb[1], 20);
    EXPECT_EQ(rgb[2], 10);
}

// Each bad input is refused with a message that names the file or folder at fault.
TEST(BadInput, MessagesNameTheFileAtFault) {
    TempDir dir;
    writeDepth(dir / "good/depth/1.png", 4, 3, 1);
    writeColor(dir / "good/rgb/1.png", 4, 3);
    writeText(dir / "good/associations.txt", "1 depth/1.png 1 rgb/1.png\n");
    writeText(dir / "missing/associations.txt", "1 depth/1.png 1 rgb/1.png\n");
    writeText(dir / "listed_empty/associations.txt", "# nothing\n");
    fs::create_directories(dir / "empty");
    writeText(dir / "corrupt.png", "not a png");
    writeColor(dir / "eight_bit.png", 4, 3);
    writeDepth(dir / "small.png", 2, 3, 1);
    writeText(dir / "a_file", "x");
    std::vector<float> depth(12);
    const struct {
        const char* what;
        std::function<void()> call;
        std::string named;
    } cases[] = {
        {"no folder", [&] { openSequence(dir / "nowhere", {}); }, dir / "nowhere"},
        {"empty folder", [&] { openSequence(dir / "empty", {}); }, dir / "empty"},
        {"nothing listed", [&] { openSequence(dir / "listed_empty", {}); }, dir / "listed_empty"},
        {"listed image missing", [&] { openSequence(dir / "missing", {}); },
         dir / "missing/depth/1.png"},
        {"corrupt image", [&] { decodeDepth(dir / "corrupt.png", 5000, 4, 3, depth.data()); },
         dir / "corrupt.png"},
        {"colour image as depth",
         [&] { decodeDepth(dir / "eight_bit.png", 5000, 4, 3, depth.data()); },
         dir / "eight_bit.png"},
        {"different size", [&] { decodeDepth(dir / "small.png", 5000, 4, 3, depth.data()); },
         dir / "small.png"},
        {"output folder under a file", [&] { prepareOutputFolder(dir / "a_file/out"); },
         dir / "a_file/out"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        try {
            c.call();
            ADD_FAILURE() << "no error";
        } catch (const InputError& e) {
            EXPECT_NE(std::string(e.what()).find(c.named), std::string::npos) << e.what();
        }
    }
    EXPECT_NO_THROW(openSequence(dir / "good", {}));
}

}  // namespace
