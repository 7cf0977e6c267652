#pragma once
// Timed camera poses, the TUM trajectory format, and the TUM benchmark's error measures.
#include <string>
#include <vector>

namespace kestor_cli {

struct TimedPose {
    double timestamp = 0;
    double pose[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};  // camera to world, row-major 3x4
};

// "timestamp tx ty tz qx qy qz qw" lines (quaternion scalar last) after one comment line.
std::string formatTum(const std::vector<TimedPose>& poses);
// Reads that format; throws InputError naming the file.
std::vector<TimedPose> readTum(const std::string& path);

struct TrajectoryErrors {
    int compared = 0;              // pose pairs associated by time stamp
    double ateRmse = 0, ateMean = 0, ateMedian = 0, ateMax = 0;  // metres
    int rpePairs = 0;
    double rpeTranslationRmse = 0;  // metres per frame step
    double rpeRotationRmse = 0;     // degrees per frame step
    // The estimate's positions after the rigid alignment, one per compared pose, and the matching
    // ground-truth positions (for drawing).
    std::vector<double> alignedEstimate, truthPositions;
};

// ATE: RMSE of position differences after the rigid (Horn) alignment of the estimate onto the
// ground truth, no scale. RPE: frame to frame (each estimated pose with the next one that has
// ground truth), translation and rotation RMSE. Poses are associated by time stamp, nearest
// within 20 ms.
TrajectoryErrors compareTrajectories(const std::vector<TimedPose>& estimate,
                                     const std::vector<TimedPose>& truth);

// The report file's text.
std::string formatReport(const std::string& name, const TrajectoryErrors& errors);

}  // namespace kestor_cli
