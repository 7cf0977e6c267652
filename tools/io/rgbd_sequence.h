#pragma once
// RGB-D sequences on disk with ground truth: the TUM layout (associations.txt, optional
// groundtruth.txt and intrinsics.txt) and the 7-Scenes layout (frame-NNNNNN.* files).
#include <string>
#include <vector>

namespace kestor_io {

struct RgbdFrame {
    std::string depthPath;
    std::string colorPath;  // empty when the colour is not a PNG this reader can take
    double cameraToWorld[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};  // row-major 3x4
    bool hasPose = false;
};

struct RgbdSequence {
    double fx = 525.0, fy = 525.0, cx = 319.5, cy = 239.5;
    int width = 640, height = 480;
    double depthUnitsPerMetre = 5000.0;
    std::vector<RgbdFrame> frames;
    // The camera as the library takes it: row-major 3x3.
    std::vector<double> cameraMatrix() const { return {fx, 0, cx, 0, fy, cy, 0, 0, 1}; }
};

// TUM layout. associations.txt holds `depth_time depth_file rgb_time rgb_file`, optionally followed
// by `gt_time tx ty tz qx qy qz qw`; without those, poses come from groundtruth.txt by the depth
// timestamp. Throws std::runtime_error when the folder cannot be read.
RgbdSequence readTumSequence(const std::string& dir);

// 7-Scenes layout: depth in millimetres, 4x4 camera-to-world pose files, JPEG colour (left out).
RgbdSequence readSevenScenes(const std::string& dir, int maxFrames = 100000);

// Rotation from a unit quaternion, scalar last, into a row-major 3x4 pose with translation t.
void poseFromQuaternion(const double t[3], double qx, double qy, double qz, double qw,
                        double pose[12]);

// Rows of whitespace-separated fields of a text file; blank lines and '#' comments are skipped.
// Throws std::runtime_error naming the file when it cannot be opened.
std::vector<std::vector<std::string>> readRows(const std::string& path);

// Gram-Schmidt on the rotation rows of a row-major 3x4 pose read from a file with few digits.
void orthonormalisePose(double pose[12]);

// Relative pose a^-1 b of two rigid 3x4 poses (rotation inverted by transposition).
void relativePose(const double a[12], const double b[12], double out[12]);

// Rotation angle (degrees) and translation length of a^-1 b, for comparing two relative poses.
void poseDifference(const double a[12], const double b[12], double& degrees, double& metres);

}  // namespace kestor_io
