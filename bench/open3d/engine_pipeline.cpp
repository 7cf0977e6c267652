// The whole engine on TUM fr1_xyz frames held in memory (the fill callback is a copy), at
// 640x480 and halved to 320x240, with colour and gray maps: frames per second through
// KESTORStop, the tracking step per frame (track.trackTime), the pyramid a worker builds per
// frame, and beside them Open3D's RGB-D odometry (hybrid term, iterations 10/5/3) per pair of the
// same frames. "tracking only" runs groups without alignment and no background graph; "full"
// runs the defaults (joint alignment of each group, the group graph) with an application
// pair-match that offers the identity. Reaches kestor only through kestor.h.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <open3d/Open3D.h>

#include "kestor.h"
#include "../peak_resident.h"

namespace {

using open3d::geometry::Image;

struct Frame {
    std::vector<float> depth;     // metres
    std::vector<uint8_t> color;   // RGB
    std::shared_ptr<Image> depthImage, colorImage;  // the same for Open3D (16-bit, RGB)
};

struct Sequence {
    int width = 0, height = 0;
    double K[9] = {};
    std::vector<Frame> frames;
};

Sequence loadFull() {
    Sequence s;
    s.width = 640, s.height = 480;
    const double K[9] = {525, 0, 319.5, 0, 525, 239.5, 0, 0, 1};
    std::memcpy(s.K, K, sizeof(K));
    const std::string dir = std::string(KESTOR_SHARED_DATA_DIR) + "/tum_fr1_xyz";
    std::ifstream in(dir + "/associations.txt");
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream f(line);
        std::string ds, dfile, cs, cfile;
        f >> ds >> dfile >> cs >> cfile;
        Frame fr;
        fr.depthImage = open3d::io::CreateImageFromFile(dir + "/" + dfile);
        fr.colorImage = open3d::io::CreateImageFromFile(dir + "/" + cfile);
        const auto* raw = reinterpret_cast<const uint16_t*>(fr.depthImage->data_.data());
        fr.depth.resize(640 * 480);
        for (size_t i = 0; i < fr.depth.size(); ++i) fr.depth[i] = float(raw[i]) / 5000.0f;
        fr.color = fr.colorImage->data_;
        s.frames.push_back(std::move(fr));
    }
    return s;
}

// Every other pixel of every other row, the camera halved.
Sequence halve(const Sequence& full) {
    Sequence s;
    s.width = full.width / 2, s.height = full.height / 2;
    std::memcpy(s.K, full.K, sizeof(s.K));
    s.K[0] /= 2, s.K[4] /= 2, s.K[2] /= 2, s.K[5] /= 2;
    for (const Frame& f : full.frames) {
        Frame h;
        h.depth.resize(size_t(s.width) * size_t(s.height));
        h.color.resize(h.depth.size() * 3);
        h.depthImage = std::make_shared<Image>();
        h.depthImage->Prepare(s.width, s.height, 1, 2);
        h.colorImage = std::make_shared<Image>();
        h.colorImage->Prepare(s.width, s.height, 3, 1);
        const auto* raw = reinterpret_cast<const uint16_t*>(f.depthImage->data_.data());
        auto* rawOut = reinterpret_cast<uint16_t*>(h.depthImage->data_.data());
        for (int y = 0; y < s.height; ++y)
            for (int x = 0; x < s.width; ++x) {
                const size_t i = size_t(y) * size_t(s.width) + size_t(x);
                const size_t j = size_t(2 * y) * size_t(full.width) + size_t(2 * x);
                h.depth[i] = f.depth[j];
                rawOut[i] = raw[j];
                std::memcpy(&h.color[i * 3], &f.color[j * 3], 3);
            }
        std::memcpy(h.colorImage->data_.data(), h.color.data(), h.color.size());
        s.frames.push_back(std::move(h));
    }
    return s;
}

const Sequence& sequence(int width) {
    static const Sequence full = loadFull();
    static const Sequence half = halve(full);
    return width == 640 ? full : half;
}

// Frame number k shows the recording forwards, then backwards: a smooth path of any length.
const Frame& frameFor(const Sequence& s, int k) {
    const int n = int(s.frames.size());
    const int m = k % (2 * n - 2);
    return s.frames[size_t(m < n ? m : 2 * n - 2 - m)];
}

struct RunState {
    const Sequence* sequence;
    std::atomic<long> trackMs{0};
    std::atomic<int> traced{0}, tracked{0};
};

bool fill(KESTORFrameInfo* frame, void* user) {
    auto* run = static_cast<RunState*>(user);
    const Frame& f = frameFor(*run->sequence, frame->id);
    std::memcpy(frame->depth, f.depth.data(), f.depth.size() * sizeof(float));
    std::memcpy(frame->color, f.color.data(), f.color.size());
    return true;
}

void trace(const KESTORFrameInfo*, const KESTORTrackInfo* track, void* user) {
    auto* run = static_cast<RunState*>(user);
    run->trackMs += long(track->trackTime);
    ++run->traced;
    run->tracked += track->matchResult == 0;
}

bool identity(const KESTORFrameInfo*, const KESTORFrameInfo*, double rt[3][4], int, void*) {
    rt[0][0] = rt[1][1] = rt[2][2] = 1;
    return true;
}

constexpr int kFramesPerRun = 72;  // the 37 frames forwards and back

void BM_Engine(benchmark::State& state) {
    const Sequence& s = sequence(int(state.range(0)));
    const bool full = state.range(1) != 0;
    const double distances[3] = {0.05, 0.1, 0.15};
    const int iterations[3] = {3, 5, 10};  // finest first: 10/5/3 coarse to fine, as Open3D runs
    long trackMs = 0, frames = 0, tracked = 0;
    for (auto _ : state) {
        RunState run;
        run.sequence = &s;
        void* instance = nullptr;
        KESTORCreateInstance(&instance, s.K, s.width, s.height, distances, iterations, 3, 10,
                             KESTOR_FLAG_NO_MASK | KESTOR_FLAG_GRAY);
        KESTORPara para;
        KESTORGetPara(instance, &para);
        para.verbose = 0;
        if (!full) para.groupMode = 0, para.globalMode = 0;
        KESTORSetPara(instance, &para);
        KESTORSetTraceCallback(instance, trace, &run);
        if (full) KESTORSetPairMatchFunc(instance, identity, nullptr);
        KESTORStart(instance, 2);
        for (int k = 0; k < kFramesPerRun; ++k) KESTORAddFrame(instance, fill, &run);
        KESTORStop(instance);
        KESTORDestroyInstance(instance);
        trackMs += run.trackMs;
        frames += run.traced;
        tracked += run.tracked;
    }
    state.counters["fps"] =
        benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
    state.counters["track_ms"] = double(trackMs) / double(frames);
    state.counters["tracked_share"] = double(tracked) / double(frames);
}

void BM_WorkerPyramid(benchmark::State& state) {
    const Sequence& s = sequence(int(state.range(0)));
    std::vector<std::vector<float>> maps;
    std::vector<float*> v, n, g, gx, gy;
    for (int l = 0; l < 3; ++l) {
        const size_t px = size_t(s.width >> l) * size_t(s.height >> l);
        for (auto* list : {&v, &n}) {
            maps.emplace_back(px * 3);
            list->push_back(maps.back().data());
        }
        for (auto* list : {&g, &gx, &gy}) {
            maps.emplace_back(px);
            list->push_back(maps.back().data());
        }
    }
    int k = 0;
    for (auto _ : state) {
        const Frame& f = frameFor(s, k++);
        KESTORCalcPyramidVmapNmap(s.K, f.depth.data(), f.color.data(), nullptr, v.data(), n.data(),
                                  g.data(), gx.data(), gy.data(), s.width, s.height, 3, true);
    }
}

void BM_Open3DOdometry(benchmark::State& state) {
    const Sequence& s = sequence(int(state.range(0)));
    const open3d::camera::PinholeCameraIntrinsic intrinsic(s.width, s.height, s.K[0], s.K[4],
                                                           s.K[2], s.K[5]);
    const open3d::pipelines::odometry::OdometryOption option({10, 5, 3}, 0.03, 0.0, 4.0);
    int k = 0;
    for (auto _ : state) {
        const Frame &a = frameFor(s, k), &b = frameFor(s, k + 1);
        ++k;
        auto rgbd = [](const Frame& f) {
            return open3d::geometry::RGBDImage::CreateFromColorAndDepth(*f.colorImage, *f.depthImage,
                                                                        5000.0, 4.0, true);
        };
        benchmark::DoNotOptimize(open3d::pipelines::odometry::ComputeRGBDOdometry(
            *rgbd(b), *rgbd(a), intrinsic, Eigen::Matrix4d::Identity(),
            open3d::pipelines::odometry::RGBDOdometryJacobianFromHybridTerm(), option));
    }
}


// All frames added at once to one worker, so they pile up between intake and tracking: the
// growth of the high-water mark per frame is the memory a frame holds in flight (its image and
// pyramid blocks) plus what accepted frames keep without a spill file.
void printMemoryPerFrame(int width) {
    const Sequence& s = sequence(width);
    const double distances[3] = {0.05, 0.1, 0.15};
    const int iterations[3] = {3, 5, 10};  // finest first: 10/5/3 coarse to fine, as Open3D runs
    RunState run;
    run.sequence = &s;
    const long before = peakResidentKb();
    void* instance = nullptr;
    KESTORCreateInstance(&instance, s.K, s.width, s.height, distances, iterations, 3, 10,
                         KESTOR_FLAG_NO_MASK | KESTOR_FLAG_GRAY);
    KESTORPara para;
    KESTORGetPara(instance, &para);
    para.verbose = 0, para.groupMode = 0, para.globalMode = 0;
    KESTORSetPara(instance, &para);
    KESTORSetTraceCallback(instance, trace, &run);
    KESTORStart(instance, 2);
    for (int k = 0; k < kFramesPerRun; ++k) KESTORAddFrame(instance, fill, &run);
    KESTORStop(instance);
    const long after = peakResidentKb();
    KESTORDestroyInstance(instance);
    std::printf("%dx%d: peak resident growth %.0f kB per frame over %d frames\n", s.width,
                s.height, double(after - before) / kFramesPerRun, kFramesPerRun);
}

BENCHMARK(BM_Engine)
    ->ArgNames({"width", "full"})
    ->Args({640, 0})
    ->Args({640, 1})
    ->Args({320, 0})
    ->Args({320, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2);
BENCHMARK(BM_WorkerPyramid)->Arg(640)->Arg(320)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Open3DOdometry)->Arg(640)->Arg(320)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (sequence(640).frames.size() < 2) {
        std::printf("tum_fr1_xyz not found under %s: nothing to run\n", KESTOR_SHARED_DATA_DIR);
        return 0;
    }
    printMemoryPerFrame(640);
    printMemoryPerFrame(320);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
