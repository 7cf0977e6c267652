#include "pipeline/pipeline_harness.h"

#include <Eigen/Dense>
#include <chrono>
#include <cstring>
#include <random>

#include "io/png_image.h"
#include "io/rgbd_sequence.h"

namespace kestor_test {

void renderPath(FrameSource& source, int count, int width, int height) {
    source.camera = Camera().scaled(width, height);
    const Scene scene = Scene::texturedRoom();
    for (int k = 0; k < count; ++k) {
        const double s = 0.01 * k;
        const Pose pose = Pose::fromAxisAngle(Eigen::Vector3d(0.2, 1, 0.1).normalized(), s,
                                              {0.1 * std::sin(s), 0.05 * s, 0.3 * s});
        source.truth.push_back(pose);
        source.frames.push_back(scene.render(source.camera, pose));
    }
    source.refuse.assign(size_t(count), false);
}

void loadSequence(FrameSource& source, const std::string& folder, int count) {
    const kestor_io::RgbdSequence seq = kestor_io::readTumSequence(folder);
    source.camera = Camera{seq.fx, seq.fy, seq.cx, seq.cy, seq.width, seq.height};
    for (int k = 0; k < count && k < int(seq.frames.size()); ++k) {
        const kestor_io::RgbdFrame& f = seq.frames[size_t(k)];
        Frame frame;
        frame.depth = kestor_io::readDepthPng(f.depthPath, seq.depthUnitsPerMetre, frame.width,
                                              frame.height);
        frame.color = kestor_io::readColorPng(f.colorPath, frame.width, frame.height);
        source.frames.push_back(std::move(frame));
        source.truth.push_back(Pose::fromMatrix(f.cameraToWorld));
    }
    source.refuse.assign(source.frames.size(), false);
}

bool fillFromSource(KESTORFrameInfo* frame, void* user) {
    auto& source = *static_cast<FrameSource*>(user);
    ++source.fills;
    if (source.maxSleepUs > 0) {
        thread_local std::mt19937 random(std::random_device{}());
        std::this_thread::sleep_for(std::chrono::microseconds(
            std::uniform_int_distribution<int>(0, source.maxSleepUs)(random)));
    }
    const Frame& f = source.frames[size_t(sourceIndex(source, frame->id))];
    std::memcpy(frame->depth, f.depth.data(), f.depth.size() * sizeof(float));
    if (frame->color != nullptr) std::memcpy(frame->color, f.color.data(), f.color.size());
    if (frame->mask != nullptr) std::memset(frame->mask, 1, f.depth.size());
    return !source.refuse[size_t(frame->id) % source.refuse.size()];
}

int sourceIndex(const FrameSource& source, int id) {
    const int n = int(source.frames.size());
    if (n < 2) return 0;
    const int k = id % (2 * n - 2);
    return k < n ? k : 2 * n - 2 - k;
}

void recordTrace(const KESTORFrameInfo* frame, const KESTORTrackInfo* track, void* user) {
    auto& r = *static_cast<TraceRecorder*>(user);
    if (r.inside.fetch_add(1) != 0) ++r.overlapping;
    TraceRecord record{frame->id, frame->index, frame->groupId, track->matchResult,
                       track->relocalized != 0, {}, std::this_thread::get_id()};
    std::memcpy(record.pose, track->pose, sizeof(record.pose));
    {
        std::lock_guard<std::mutex> guard(r.mutex);
        r.calls.push_back(record);
    }
    --r.inside;
}

void* createFor(const FrameSource& source, int groupSize, unsigned flags, int levels) {
    const std::vector<double> K = source.camera.matrix();
    const double distances[3] = {0.08, 0.16, 0.32};
    const int iterations[3] = {10, 5, 3};
    void* instance = nullptr;
    KESTORCreateInstance(&instance, K.data(), source.camera.width, source.camera.height,
                         distances, iterations, levels, groupSize, flags);
    return instance;
}

void runAll(void* instance, FrameSource& source, int workers) {
    KESTORStart(instance, workers);
    // One frame per entry of the refuse table, which may be longer than the rendered path.
    for (size_t k = 0; k < source.refuse.size(); ++k)
        KESTORAddFrame(instance, fillFromSource, &source);
    KESTORStop(instance);
}

std::vector<FramePose> framePoses(void* instance) {
    std::vector<FramePose> out;
    KESTORGetFrame(
        instance, -1,
        [](const KESTORFrameInfo* frame, const double pose[3][4], void* user) {
            static_cast<std::vector<FramePose>*>(user)->push_back(
                FramePose{frame->id, Pose::fromMatrix(&pose[0][0])});
        },
        &out);
    return out;
}

double absoluteTrajectoryError(const std::vector<Pose>& estimated, const std::vector<Pose>& truth) {
    const size_t n = estimated.size();
    Eigen::Matrix3Xd a(3, n), b(3, n);
    for (size_t i = 0; i < n; ++i) {
        a.col(Eigen::Index(i)) = estimated[i].t;
        b.col(Eigen::Index(i)) = truth[i].t;
    }
    const Eigen::Matrix4d T = Eigen::umeyama(a, b, false);
    const Eigen::Matrix3d R = T.block<3, 3>(0, 0);
    const Eigen::Vector3d t = T.block<3, 1>(0, 3);
    double sum = 0;
    for (size_t i = 0; i < n; ++i) sum += (R * estimated[i].t + t - truth[i].t).squaredNorm();
    return std::sqrt(sum / double(n));
}

}  // namespace kestor_test
