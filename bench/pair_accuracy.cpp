// Accuracy of the pyramid pair match on the real and synthetic sequences in the shared data
// folder: every pair of frames 1 to 5 apart, aligned from the identity, against the ground-truth
// relative pose. Prints median and 95th-percentile errors and the failed pairs, depth-only and
// with colour. Not a timing benchmark; an optional argument picks sequences by name.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <vector>

#include "io/png_image.h"
#include "io/rgbd_sequence.h"
#include "kestor.h"
#include "pair/match_pair_pyramid.h"

namespace {

constexpr int kLevels = 3;
const int kIterations[kLevels] = {3, 5, 10};          // finest first
const double kDistances[kLevels] = {0.05, 0.1, 0.15};  // metres

struct Pyramid {
    int width, height;
    std::vector<std::vector<float>> vmaps, nmaps, grays, gradXs, gradYs;
};

Pyramid buildPyramid(const kestor_io::RgbdSequence& seq, const kestor_io::RgbdFrame& frame,
                     bool withColor) {
    int w = 0, h = 0;
    std::vector<float> depth = kestor_io::readDepthPng(frame.depthPath, seq.depthUnitsPerMetre, w, h);
    for (float& d : depth)
        if (d * seq.depthUnitsPerMetre >= 65535.0) d = 0.0f;  // 7-Scenes' invalid marker
    std::vector<uint8_t> color;
    if (withColor) color = kestor_io::readColorPng(frame.colorPath, w, h);
    Pyramid p{w, h, {}, {}, {}, {}, {}};
    std::vector<float*> v, n, g, gx, gy;
    for (int l = 0; l < kLevels; ++l) {
        const size_t px = size_t(w >> l) * size_t(h >> l);
        p.vmaps.emplace_back(px * 3);
        p.nmaps.emplace_back(px * 3);
        p.grays.emplace_back(px);
        p.gradXs.emplace_back(px);
        p.gradYs.emplace_back(px);
        v.push_back(p.vmaps.back().data());
        n.push_back(p.nmaps.back().data());
        g.push_back(p.grays.back().data());
        gx.push_back(p.gradXs.back().data());
        gy.push_back(p.gradYs.back().data());
    }
    const std::vector<double> K = seq.cameraMatrix();
    KESTORCalcPyramidVmapNmap(K.data(), depth.data(), withColor ? color.data() : nullptr, nullptr,
                              v.data(), n.data(), g.data(), gx.data(), gy.data(), w, h, kLevels,
                              false);
    return p;
}

bool align(const kestor_io::RgbdSequence& seq, const Pyramid& target, const Pyramid& source,
           bool withColor, double pose[12]) {
    using namespace kestor;
    PairPyramid maps;
    for (int l = 0; l < kLevels; ++l) {
        const int w = target.width >> l, h = target.height >> l;
        auto f3 = [&](const std::vector<float>& m) {
            return packedView(reinterpret_cast<const Float3*>(m.data()), w, h);
        };
        auto f1 = [&](const std::vector<float>& m) { return packedView(m.data(), w, h); };
        maps.vmaps1.push_back(f3(target.vmaps[size_t(l)]));
        maps.nmaps1.push_back(f3(target.nmaps[size_t(l)]));
        maps.vmaps2.push_back(f3(source.vmaps[size_t(l)]));
        maps.nmaps2.push_back(f3(source.nmaps[size_t(l)]));
        if (withColor) {
            maps.grays1.push_back(f1(target.grays[size_t(l)]));
            maps.gradXs1.push_back(f1(target.gradXs[size_t(l)]));
            maps.gradYs1.push_back(f1(target.gradYs[size_t(l)]));
            maps.grays2.push_back(f1(source.grays[size_t(l)]));
        }
    }
    const Intrinsics k{float(seq.fx), float(seq.fy), float(seq.cx), float(seq.cy)};
    return runPyramidLevels(k, maps, poseView(pose), kIterations, kDistances, kLevels, 1.57, 0.3,
                            0.5, false, {}, true);
}

double percentile(std::vector<double> v, double q) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, size_t(q * double(v.size() - 1) + 0.5));
    return v[i];
}

void evaluate(const char* name, const kestor_io::RgbdSequence& seq, bool withColor) {
    std::vector<Pyramid> pyramids;
    for (const auto& f : seq.frames) pyramids.push_back(buildPyramid(seq, f, withColor));
    std::printf("%s: %zu frames\n", name, seq.frames.size());
    for (int gap = 1; gap <= 5; ++gap) {
        std::vector<double> rot, trans;
        int failed = 0, pairs = 0;
        double seconds = 0.0;
        for (size_t i = 0; i + size_t(gap) < seq.frames.size(); ++i) {
            const auto& a = seq.frames[i];
            const auto& b = seq.frames[i + size_t(gap)];
            if (!a.hasPose || !b.hasPose) continue;
            ++pairs;
            double truth[12], pose[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
            kestor_io::relativePose(a.cameraToWorld, b.cameraToWorld, truth);
            const auto t0 = std::chrono::steady_clock::now();
            const bool ok = align(seq, pyramids[i], pyramids[i + size_t(gap)], withColor, pose);
            seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            if (!ok) {
                ++failed;
                continue;
            }
            double deg, m;
            kestor_io::poseDifference(truth, pose, deg, m);
            rot.push_back(deg);
            trans.push_back(m * 1000.0);
        }
        std::printf("%-20s %-6s gap %d: pairs %3d failed %2d  rot median %.3f p95 %.3f deg  "
                    "trans median %.1f p95 %.1f mm  (%.1f ms/pair)\n",
                    name, withColor ? "colour" : "depth", gap, pairs, failed,
                    percentile(rot, 0.5), percentile(rot, 0.95), percentile(trans, 0.5),
                    percentile(trans, 0.95), pairs ? 1000.0 * seconds / pairs : 0.0);
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string root = KESTOR_SHARED_DATA_DIR;
    // An optional argument picks the sequences whose name contains it.
    const std::string only = argc > 1 ? argv[1] : "";
    auto wanted = [&](const std::string& name) { return name.find(only) != std::string::npos; };
    try {
        for (const char* name : {"tum_fr1_xyz", "synth-handheld", "synth-loop"}) {
            if (!wanted(name)) continue;
            auto seq = kestor_io::readTumSequence(root + "/" + name);
            if (seq.frames.size() > 60) seq.frames.resize(60);  // keeps the run to minutes
            evaluate(name, seq, false);
            evaluate(name, seq, true);
        }
        if (wanted("7scenes_redkitchen"))
            evaluate("7scenes_redkitchen", kestor_io::readSevenScenes(root + "/7scenes_redkitchen", 60),
                 false);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pair_accuracy: %s\n", e.what());
        return 1;
    }
    return 0;
}
