// Demo of the library on the bundled real sample: builds the map pyramid of each frame, aligns
// every frame to the one before with the pyramid pair match, prints each pair's error against the
// ground truth, and writes all frames, chained by the found poses, into one PLY file.
//
//   kestor-demo [sequence folder] [output.ply]
#include <cmath>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "io/png_image.h"
#include "io/rgbd_sequence.h"
#include "kestor.h"

namespace {

constexpr int kLevels = 3;
const int kIterations[kLevels] = {5, 5, 10};           // finest level first
const double kDistances[kLevels] = {0.05, 0.1, 0.15};  // metres

struct FramePyramid {
    int width = 0, height = 0;
    std::vector<uint8_t> color;
    std::vector<std::vector<float>> vmaps, nmaps, grays, gradXs, gradYs;

    template <typename T>
    static std::vector<const float*> pointers(const std::vector<std::vector<T>>& maps) {
        std::vector<const float*> out;
        for (const auto& m : maps) out.push_back(m.data());
        return out;
    }
};

FramePyramid loadFrame(const kestor_io::RgbdSequence& seq, const kestor_io::RgbdFrame& frame) {
    FramePyramid f;
    const std::vector<float> depth =
        kestor_io::readDepthPng(frame.depthPath, seq.depthUnitsPerMetre, f.width, f.height);
    int cw = 0, ch = 0;
    f.color = kestor_io::readColorPng(frame.colorPath, cw, ch);
    if (cw != f.width || ch != f.height)
        throw std::runtime_error("colour and depth sizes differ: " + frame.colorPath);
    std::vector<float*> v, n, g, gx, gy;
    for (int l = 0; l < kLevels; ++l) {
        const size_t pixels = size_t(f.width >> l) * size_t(f.height >> l);
        for (auto* maps : {&f.vmaps, &f.nmaps}) maps->emplace_back(pixels * 3);
        for (auto* maps : {&f.grays, &f.gradXs, &f.gradYs}) maps->emplace_back(pixels);
        v.push_back(f.vmaps.back().data());
        n.push_back(f.nmaps.back().data());
        g.push_back(f.grays.back().data());
        gx.push_back(f.gradXs.back().data());
        gy.push_back(f.gradYs.back().data());
    }
    const std::vector<double> K = seq.cameraMatrix();
    const int status =
        KESTORCalcPyramidVmapNmap(K.data(), depth.data(), f.color.data(), nullptr, v.data(),
                                  n.data(), g.data(), gx.data(), gy.data(), f.width, f.height,
                                  kLevels, false);
    if (status != KESTOR_STATUS_OK)
        throw std::runtime_error("KESTORCalcPyramidVmapNmap returned " + std::to_string(status));
    return f;
}

// a after b, both 3x4 row-major.
void compose(const double a[12], const double b[12], double out[12]) {
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 4; ++c) {
            double s = c == 3 ? a[r * 4 + 3] : 0.0;
            for (int k = 0; k < 3; ++k) s += a[r * 4 + k] * b[k * 4 + c];
            out[r * 4 + c] = s;
        }
    }
}

// Valid vertices of level 0 moved into the world, with their colours in the byte order the point
// writer expects (it reverses them on output).
void appendPoints(const FramePyramid& f, const double pose[12], std::vector<float>& points,
                  std::vector<uint8_t>& colors) {
    const std::vector<float>& v = f.vmaps[0];
    for (size_t i = 0; i < size_t(f.width) * size_t(f.height); ++i) {
        const float* p = &v[i * 3];
        if (p[2] == 0.0f) continue;
        for (int r = 0; r < 3; ++r)
            points.push_back(float(pose[r * 4] * p[0] + pose[r * 4 + 1] * p[1] +
                                   pose[r * 4 + 2] * p[2] + pose[r * 4 + 3]));
        const uint8_t* c = &f.color[i * 3];
        colors.insert(colors.end(), {c[2], c[1], c[0]});
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::string dir = argc > 1 ? argv[1] : KESTOR_SAMPLE_DIR;
        const std::string output = argc > 2 ? argv[2] : "kestor_demo_aligned.ply";
        const kestor_io::RgbdSequence seq = kestor_io::readTumSequence(dir);
        if (seq.frames.size() < 2) throw std::runtime_error("need at least two frames in " + dir);
        const std::vector<double> K = seq.cameraMatrix();
        std::printf("kestor %s: %zu frames from %s\n", KESTORVersion(), seq.frames.size(),
                    dir.c_str());
        std::printf("pyramid pair match: %d levels, iterations %d/%d/%d (coarse to fine), "
                    "colour weight 0.5\n", kLevels, kIterations[2], kIterations[1], kIterations[0]);

        FramePyramid previous = loadFrame(seq, seq.frames[0]);
        double world[12];  // frame to world, chained from the ground truth of frame 0
        for (int k = 0; k < 12; ++k) world[k] = seq.frames[0].cameraToWorld[k];
        std::vector<float> points;
        std::vector<uint8_t> colors;
        appendPoints(previous, world, points, colors);

        for (size_t i = 1; i < seq.frames.size(); ++i) {
            FramePyramid current = loadFrame(seq, seq.frames[i]);
            const auto v1 = FramePyramid::pointers(previous.vmaps), n1 = FramePyramid::pointers(previous.nmaps);
            const auto g1 = FramePyramid::pointers(previous.grays), gx1 = FramePyramid::pointers(previous.gradXs);
            const auto gy1 = FramePyramid::pointers(previous.gradYs);
            const auto v2 = FramePyramid::pointers(current.vmaps), n2 = FramePyramid::pointers(current.nmaps);
            const auto g2 = FramePyramid::pointers(current.grays);
            double rt[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};  // frame i into frame i-1
            double info[36];
            const int status = KESTORMatchPairVmapNmapPyramid(
                v1.data(), n1.data(), g1.data(), gx1.data(), gy1.data(), v2.data(), n2.data(),
                g2.data(), current.width, current.height, K.data(), rt, info, kIterations,
                kDistances, kLevels, 1.57, 0.3, 0.5, true, false, nullptr, nullptr);

            double truth[12], degrees = 0.0, metres = 0.0;
            kestor_io::relativePose(seq.frames[i - 1].cameraToWorld, seq.frames[i].cameraToWorld,
                                    truth);
            kestor_io::poseDifference(truth, rt, degrees, metres);
            const double moved = std::sqrt(truth[3] * truth[3] + truth[7] * truth[7] +
                                           truth[11] * truth[11]);
            std::printf("pair %zu-%zu: status %d, ground-truth motion %.1f mm, error %.3f deg "
                        "%.1f mm\n", i - 1, i, status, moved * 1000.0, degrees, metres * 1000.0);

            double next[12];
            compose(world, rt, next);
            std::copy(next, next + 12, world);
            appendPoints(current, world, points, colors);
            previous = std::move(current);
        }

        const int count = int(points.size() / 3);
        const int written =
            KESTORWritePoints(output.c_str(), points.data(), nullptr, colors.data(), count);
        if (written != KESTOR_STATUS_OK) {
            std::printf("KESTORWritePoints returned %d for %s\n", written, output.c_str());
            return 1;
        }
        std::printf("wrote %d points of %zu aligned frames to %s\n", count, seq.frames.size(),
                    output.c_str());
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kestor-demo: %s\n", e.what());
        return 1;
    }
}
