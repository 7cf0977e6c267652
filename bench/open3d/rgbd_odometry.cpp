// One pyramid pair match at 640x480 with 3 levels against Open3D's RGB-D odometry (hybrid term) on
// the same consecutive frame pairs of TUM fr1_xyz. Both sides start from raw depth and colour:
// kestor builds both pyramids with KESTORCalcPyramidVmapNmap and runs
// KESTORMatchPairVmapNmapPyramid; Open3D runs ComputeRGBDOdometry, which builds its own. Iterations
// 10/5/3 coarse to fine on both. Accuracy against ground truth is printed before the timings.
#include <benchmark/benchmark.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <open3d/Open3D.h>

#include "kestor.h"

namespace {

using open3d::geometry::Image;
using open3d::geometry::RGBDImage;

constexpr int kLevels = 3;
constexpr int kPairs = 12;
const int kIterations[kLevels] = {3, 5, 10};           // finest first
const double kDistances[kLevels] = {0.05, 0.1, 0.15};  // metres
const double K[9] = {525, 0, 319.5, 0, 525, 239.5, 0, 0, 1};

struct Frame {
    std::shared_ptr<Image> depthImage, colorImage;  // as read: 16-bit depth, 8-bit RGB
    std::vector<float> depth;                        // metres
    Eigen::Matrix4d cameraToWorld = Eigen::Matrix4d::Identity();
};

std::vector<Frame> loadFrames() {
    const std::string dir = std::string(KESTOR_SHARED_DATA_DIR) + "/tum_fr1_xyz";
    std::ifstream in(dir + "/associations.txt");
    std::vector<Frame> frames;
    std::string line;
    while (std::getline(in, line) && int(frames.size()) < kPairs + 1) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream f(line);
        std::string ds, dfile, cs, cfile, gs;
        double t[3], q[4];
        f >> ds >> dfile >> cs >> cfile >> gs >> t[0] >> t[1] >> t[2] >> q[0] >> q[1] >> q[2] >> q[3];
        Frame fr;
        fr.depthImage = open3d::io::CreateImageFromFile(dir + "/" + dfile);
        fr.colorImage = open3d::io::CreateImageFromFile(dir + "/" + cfile);
        const auto* raw = reinterpret_cast<const uint16_t*>(fr.depthImage->data_.data());
        fr.depth.resize(size_t(fr.depthImage->width_) * size_t(fr.depthImage->height_));
        for (size_t i = 0; i < fr.depth.size(); ++i) fr.depth[i] = float(raw[i]) / 5000.0f;
        fr.cameraToWorld.block<3, 3>(0, 0) =
            Eigen::Quaterniond(q[3], q[0], q[1], q[2]).normalized().toRotationMatrix();
        fr.cameraToWorld.block<3, 1>(0, 3) = Eigen::Vector3d(t[0], t[1], t[2]);
        frames.push_back(std::move(fr));
    }
    return frames;
}

const std::vector<Frame>& frames() {
    static const std::vector<Frame> f = loadFrames();
    return f;
}

struct KestorPyramid {
    std::vector<std::vector<float>> v, n, g, gx, gy;
    std::vector<float*> pv, pn, pg, pgx, pgy;
    KestorPyramid() {
        for (int l = 0; l < kLevels; ++l) {
            const size_t px = size_t(640 >> l) * size_t(480 >> l);
            v.emplace_back(px * 3), n.emplace_back(px * 3);
            g.emplace_back(px), gx.emplace_back(px), gy.emplace_back(px);
            pv.push_back(v.back().data()), pn.push_back(n.back().data());
            pg.push_back(g.back().data()), pgx.push_back(gx.back().data());
            pgy.push_back(gy.back().data());
        }
    }
    void build(const Frame& f, bool color) {
        KESTORCalcPyramidVmapNmap(K, f.depth.data(), color ? f.colorImage->data_.data() : nullptr,
                                  nullptr, pv.data(), pn.data(), color ? pg.data() : nullptr,
                                  pgx.data(), pgy.data(), 640, 480, kLevels, false);
    }
};

template <typename T>
const float* const* cast(const std::vector<T*>& v) {
    return reinterpret_cast<const float* const*>(v.data());
}

// Frame i + 1 into frame i.
Eigen::Matrix4d kestorPair(int i, bool color, bool parallel, KestorPyramid& a, KestorPyramid& b,
                           bool& ok) {
    a.build(frames()[size_t(i)], color);
    b.build(frames()[size_t(i) + 1], color);
    double rt[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    const int status = KESTORMatchPairVmapNmapPyramid(
        cast(a.pv), cast(a.pn), color ? cast(a.pg) : nullptr, color ? cast(a.pgx) : nullptr,
        color ? cast(a.pgy) : nullptr, cast(b.pv), cast(b.pn), color ? cast(b.pg) : nullptr, 640,
        480, K, rt, nullptr, kIterations, kDistances, kLevels, 1.57, 0.3, 0.5, parallel, false,
        nullptr, nullptr);
    ok = status == KESTOR_STATUS_OK;
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) m(r, c) = rt[r * 4 + c];
    return m;
}

Eigen::Matrix4d open3dPair(int i, bool& ok) {
    const Frame &target = frames()[size_t(i)], &source = frames()[size_t(i) + 1];
    auto rgbd = [](const Frame& f) {
        return RGBDImage::CreateFromColorAndDepth(*f.colorImage, *f.depthImage, 5000.0, 4.0, true);
    };
    const open3d::camera::PinholeCameraIntrinsic intrinsic(640, 480, 525, 525, 319.5, 239.5);
    open3d::pipelines::odometry::OdometryOption option({10, 5, 3}, 0.03, 0.0, 4.0);
    const auto result = open3d::pipelines::odometry::ComputeRGBDOdometry(
        *rgbd(source), *rgbd(target), intrinsic, Eigen::Matrix4d::Identity(),
        open3d::pipelines::odometry::RGBDOdometryJacobianFromHybridTerm(), option);
    ok = std::get<0>(result);
    return std::get<1>(result);
}

void printAccuracy(const char* name, const std::function<Eigen::Matrix4d(int, bool&)>& run) {
    std::vector<double> rot, trans;
    int failed = 0;
    for (int i = 0; i < kPairs; ++i) {
        bool ok = false;
        const Eigen::Matrix4d found = run(i, ok);
        if (!ok) {
            ++failed;
            continue;
        }
        const Eigen::Matrix4d truth =
            frames()[size_t(i)].cameraToWorld.inverse() * frames()[size_t(i) + 1].cameraToWorld;
        const Eigen::Matrix4d d = truth.inverse() * found;
        rot.push_back(Eigen::AngleAxisd(Eigen::Matrix3d(d.block<3, 3>(0, 0))).angle() * 180 / M_PI);
        trans.push_back(d.block<3, 1>(0, 3).norm() * 1000);
    }
    auto median = [](std::vector<double> v) {
        if (v.empty()) return 0.0;
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    std::printf("accuracy %-22s pairs %d failed %d  rotation median %.3f deg  translation median "
                "%.2f mm\n", name, kPairs, failed, median(rot), median(trans));
}

void BM_Open3DHybrid(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        bool ok;
        benchmark::DoNotOptimize(open3dPair(i, ok));
        i = (i + 1) % kPairs;
    }
}

void BM_Kestor(benchmark::State& state) {
    const bool color = state.range(0) != 0, parallel = state.range(1) != 0;
    KestorPyramid a, b;
    int i = 0;
    for (auto _ : state) {
        bool ok;
        benchmark::DoNotOptimize(kestorPair(i, color, parallel, a, b, ok));
        i = (i + 1) % kPairs;
    }
}

BENCHMARK(BM_Open3DHybrid)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Kestor)
    ->ArgNames({"colour", "parallel"})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (frames().size() < size_t(kPairs) + 1) {
        std::printf("tum_fr1_xyz not found under %s: nothing to compare\n", KESTOR_SHARED_DATA_DIR);
        return 0;
    }
    KestorPyramid a, b;
    printAccuracy("open3d hybrid", [](int i, bool& ok) { return open3dPair(i, ok); });
    for (bool color : {false, true})
        printAccuracy(color ? "kestor colour" : "kestor depth", [&](int i, bool& ok) {
            return kestorPair(i, color, true, a, b, ok);
        });
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
