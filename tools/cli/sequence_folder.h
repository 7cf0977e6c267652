#pragma once
// RGB-D recordings on disk, listed (not decoded): the TUM RGB-D layout (associations.txt, or
// rgb.txt and depth.txt associated by time stamp; optional groundtruth.txt and intrinsics.txt) and
// the 7-Scenes layout (frame-NNNNNN.depth.png with .color.png or .color.jpg and .pose.txt;
// optional camera-intrinsics.txt).
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestor_cli {

// Bad input: the message names the file or folder at fault.
struct InputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class Layout { Tum, SevenScenes };

struct Camera {
    double fx = 0, fy = 0, cx = 0, cy = 0;
    int width = 0, height = 0;   // 0: taken from the first depth image
    double depthUnitsPerMetre = 0;
    // Row-major 3x3, as the library takes it.
    std::vector<double> matrix() const { return {fx, 0, cx, 0, fy, cy, 0, 0, 1}; }
};

// Values given on the command line; they fill in what the folder does not say.
struct CameraOptions {
    std::optional<double> fx, fy, cx, cy, depthUnitsPerMetre;
};

struct SequenceFrame {
    double timestamp = 0;   // seconds; the depth image's time (7-Scenes: index / 30)
    std::string depthPath;
    std::string colorPath;  // empty: no colour for this frame
    double colorTimestamp = -1;  // the colour image's time; -1: not known
    bool hasTruth = false;
    double truth[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};  // camera to world, row-major 3x4
};

struct Sequence {
    std::string dir;
    Layout layout = Layout::Tum;
    Camera camera;
    std::vector<std::string> cameraSources;  // per value: "folder", "option" or "default"
    std::vector<SequenceFrame> frames;
    bool hasTruth() const;
    bool hasColor() const;
    // Colour and depth of every frame carry the same time stamp (within 1 ms).
    bool colorSynchronous() const;
};

// Lists a recording. Throws InputError for a missing or empty folder, an unknown layout, an
// unreadable list, or a listed image that does not exist. `maxFrames` above 0 keeps the first ones.
Sequence openSequence(const std::string& dir, const CameraOptions& options, int maxFrames = 0);

// TUM's association of two time-stamp lists: greedy one-to-one pairs, closest first, at most
// `maxDifference` apart. Returns for each entry of `a` the index into `b`, or -1.
std::vector<int> associateStamps(const std::vector<double>& a, const std::vector<double>& b,
                                 double maxDifference);

}  // namespace kestor_cli
