#pragma once
// A recorded or rendered RGB-D sequence for the benchmarks: loading (optionally at half
// resolution, by taking every second pixel, which keeps the geometry exact), an instance for it,
// and the trajectory error of the engine's poses against the ground truth. Header only, as the
// benchmarks do not link the test support library.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <Eigen/Geometry>

#include "io/png_image.h"
#include "io/rgbd_sequence.h"
#include "kestor.h"

namespace kestor_bench {

struct LoadedSequence {
    int width = 0, height = 0;
    std::vector<double> K;                   // row-major 3x3
    std::vector<std::vector<float>> depths;  // packed
    std::vector<std::vector<uint8_t>> colors;
    std::vector<Eigen::Isometry3d> truth;  // camera to world
};

inline LoadedSequence loadSequence(const std::string& dir, int step = 1, int maxFrames = 1 << 30) {
    const kestor_io::RgbdSequence seq = kestor_io::readTumSequence(dir);
    LoadedSequence out;
    out.width = seq.width / step;
    out.height = seq.height / step;
    out.K = {seq.fx / step, 0, seq.cx / step, 0, seq.fy / step, seq.cy / step, 0, 0, 1};
    for (size_t f = 0; f < seq.frames.size() && int(f) < maxFrames; ++f) {
        const kestor_io::RgbdFrame& frame = seq.frames[f];
        int w = 0, h = 0, cw = 0, ch = 0;
        const std::vector<float> depth = kestor_io::readDepthPng(frame.depthPath, seq.depthUnitsPerMetre, w, h);
        const std::vector<uint8_t> color = kestor_io::readColorPng(frame.colorPath, cw, ch);
        std::vector<float> d(size_t(out.width * out.height));
        std::vector<uint8_t> c(d.size() * 3);
        for (int y = 0; y < out.height; ++y)
            for (int x = 0; x < out.width; ++x) {
                const size_t from = size_t(y * step * w + x * step), to = size_t(y * out.width + x);
                d[to] = depth[from];
                std::memcpy(&c[3 * to], &color[3 * from], 3);
            }
        out.depths.push_back(std::move(d));
        out.colors.push_back(std::move(c));
        Eigen::Isometry3d pose = Eigen::Isometry3d::Identity();
        for (int r = 0; r < 3; ++r) {
            for (int col = 0; col < 3; ++col) pose.linear()(r, col) = frame.cameraToWorld[4 * r + col];
            pose.translation()(r) = frame.cameraToWorld[4 * r + 3];
        }
        out.truth.push_back(pose);
    }
    return out;
}

// A new instance for the sequence: three levels, groups of ten, no mask. Returns the handle.
inline void* createFor(const LoadedSequence& s, unsigned flags = 1, const char* cachePath = nullptr) {
    const double distances[3] = {0.1, 0.2, 0.3};
    const int iterations[3] = {10, 5, 3};
    void* handle = nullptr;
    KESTORCreateInstance(&handle, s.K.data(), s.width, s.height, distances, iterations, 3, 10, flags);
    KESTORPara para;
    KESTORGetPara(handle, &para);
    para.verbose = 0;
    KESTORSetPara(handle, &para);
    if (cachePath != nullptr) KESTORSetCachePath(handle, cachePath);
    return handle;
}

// The accepted frames' sequence numbers and poses (frame to the first frame's coordinates).
struct EnginePoses {
    std::vector<int> ids;
    std::vector<Eigen::Isometry3d> poses;
};

inline EnginePoses enginePoses(void* handle) {
    EnginePoses out;
    KESTORGetFrame(handle, -1,
                   [](const KESTORFrameInfo* frame, const double pose[3][4], void* user) {
                       EnginePoses& o = *static_cast<EnginePoses*>(user);
                       Eigen::Isometry3d p = Eigen::Isometry3d::Identity();
                       for (int r = 0; r < 3; ++r) {
                           for (int c = 0; c < 3; ++c) p.linear()(r, c) = pose[r][c];
                           p.translation()(r) = pose[r][3];
                       }
                       o.ids.push_back(frame->id);
                       o.poses.push_back(p);
                   },
                   &out);
    return out;
}

// Root mean square distance between the camera centres and the true ones, both taken relative to
// the first accepted frame.
inline double absoluteTrajectoryError(const EnginePoses& e, const LoadedSequence& s) {
    if (e.poses.empty()) return 0;
    const Eigen::Isometry3d first = e.poses[0].inverse(), truthFirst = s.truth[size_t(e.ids[0])].inverse();
    double sum = 0;
    for (size_t k = 0; k < e.poses.size(); ++k) {
        const Eigen::Vector3d a = (first * e.poses[k]).translation();
        const Eigen::Vector3d b = (truthFirst * s.truth[size_t(e.ids[k])]).translation();
        sum += (a - b).squaredNorm();
    }
    return std::sqrt(sum / double(e.poses.size()));
}

}  // namespace kestor_bench
