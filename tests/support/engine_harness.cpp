#include "support/engine_harness.h"

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <random>

#include "core/frame_memory.h"
#include "io/png_image.h"
#include "io/rgbd_sequence.h"
#include "pipeline/frame_intake.h"
#include "pipeline/group_finishing.h"

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

void loadSequence(FrameSource& source, const std::string& folder, int count, int shift) {
    const kestor_io::RgbdSequence seq = kestor_io::readTumSequence(folder);
    const double scale = 1.0 / double(1 << shift);
    source.camera = Camera{seq.fx * scale, seq.fy * scale, (seq.cx + 0.5) * scale - 0.5,
                           (seq.cy + 0.5) * scale - 0.5, seq.width >> shift, seq.height >> shift};
    for (int k = 0; k < count && k < int(seq.frames.size()); ++k) {
        const kestor_io::RgbdFrame& f = seq.frames[size_t(k)];
        int w = 0, h = 0;
        const std::vector<float> depth = kestor_io::readDepthPng(f.depthPath, seq.depthUnitsPerMetre, w, h);
        const std::vector<uint8_t> color = kestor_io::readColorPng(f.colorPath, w, h);
        Frame frame{source.camera.width, source.camera.height, {}, {}};
        for (int y = 0; y < frame.height; ++y) {
            for (int x = 0; x < frame.width; ++x) {
                const size_t from = size_t((y << shift) * w + (x << shift));
                frame.depth.push_back(depth[from]);
                frame.color.insert(frame.color.end(), &color[3 * from], &color[3 * from] + 3);
            }
        }
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

void setModes(void* instance, int groupMode, int globalMode) {
    KESTORPara para;
    KESTORGetPara(instance, &para);
    if (groupMode >= 0) para.groupMode = groupMode;
    if (globalMode >= 0) para.globalMode = globalMode;
    para.verbose = 0;
    KESTORSetPara(instance, &para);
}

void runAll(void* instance, FrameSource& source, int workers) {
    KESTORStart(instance, workers);
    // One frame per entry of the refuse table, which may be longer than the rendered path.
    for (size_t k = 0; k < source.refuse.size(); ++k)
        KESTORAddFrame(instance, fillFromSource, &source);
    KESTORStop(instance);
}

std::vector<FramePose> framePoses(void* instance, int index) {
    std::vector<FramePose> out;
    KESTORGetFrame(
        instance, index,
        [](const KESTORFrameInfo* frame, const double pose[3][4], void* user) {
            static_cast<std::vector<FramePose>*>(user)->push_back(
                FramePose{frame->id, Pose::fromMatrix(&pose[0][0]), frame->depth || frame->color});
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

// ---- State built by hand ----

using namespace kestor;

Camera wideCamera(int width, int height) {
    Camera camera = Camera().scaled(width, height);
    camera.fx *= 0.6;
    camera.fy *= 0.6;
    return camera;
}

Pose arcPose(int step) {
    const Pose start = Pose::fromAxisAngle({0.2, 1, 0}, 0.05, {0.1, -0.1, 0.2});
    return Pose::fromAxisAngle({0.3, 1, 0.1}, -0.025 * step,
                               Eigen::Vector3d(0.03 * step, 0.01 * step, 0.02 * step)) *
           start;
}

RoomSequence::RoomSequence(int count, int width, int height) : camera(wideCamera(width, height)) {
    const Scene scene = Scene::texturedRoom();
    for (int f = 0; f < count; ++f) {
        truth.push_back(arcPose(f));
        frames.push_back(scene.render(camera, truth.back()));
    }
}

Information::Information(double angular, double linear) {
    for (int d = 0; d < 3; ++d) m[d][d] = angular;
    for (int d = 3; d < 6; ++d) m[d][d] = linear;
}

EngineState::EngineState(int groupSize, const Camera& camera_, int levels, unsigned flags,
                         const std::string& cachePath)
    : camera(camera_) {
    const std::vector<double> K = camera.matrix();
    const double distances[3] = {0.1, 0.2, 0.3};
    const int iterations[3] = {10, 10, 10};
    void* handle = nullptr;
    EXPECT_EQ(KESTORCreateInstance(&handle, K.data(), camera.width, camera.height, distances,
                                   iterations, levels, groupSize, flags),
              KESTOR_STATUS_OK);
    instance_ = static_cast<RGBDFusionImpl*>(handle);
    instance_->para.verbose = 0;
    if (!cachePath.empty()) {
        EXPECT_EQ(KESTORSetCachePath(handle, cachePath.c_str()), KESTOR_STATUS_OK);
    }
}

EngineState::~EngineState() {
    // Teardown stops the pipeline, which would finish every group not counted as finished, with
    // callbacks that may point into a test's dead locals: count them all as done and empty the
    // slots first.
    instance_->pairMatchFunc = nullptr;
    instance_->calcScoreFunc = nullptr;
    instance_->finishedGroups = int32_t(instance_->groups.size());
    instance_->optimizedGroups = instance_->finishedGroups.load();
    KESTORDestroyInstance(instance_);
}

_Frame* EngineState::addFrame(const Frame& frame, const Pose& pose, const std::vector<uint8_t>& mask) {
    RGBDFusionImpl& f = engine();
    _Frame* record = newFrame(f, f.nextFrameId++);
    KESTORFrameInfo& info = record->info;
    if (!f.deviceMemory) {
        std::memcpy(info.depth, frame.depth.data(), frame.depth.size() * sizeof(float));
        if (info.color) std::memcpy(info.color, frame.color.data(), frame.color.size());
        if (info.mask && mask.empty()) std::memset(info.mask, 255, size_t(f.pixels));
        if (info.mask && !mask.empty()) std::memcpy(info.mask, mask.data(), mask.size());
        buildFramePyramid(f, record);
    }
    record->pose = toRT(pose);
    std::lock_guard<std::mutex> guard(f.lock);
    info.index = int32_t(f.frames.size());
    f.frames.push_back(record);
    return record;
}

_Frame* EngineState::addRenderedFrame(const Pose& cameraToWorld, const Pose& trackedPose) {
    return addFrame(scene.render(camera, cameraToWorld), trackedPose);
}

_Frame* EngineState::addBlankFrame(const Pose& trackedPose) {
    RGBDFusionImpl& f = engine();
    _Frame* frame = newFrame(f, f.nextFrameId++);
    f.pyramidPool->giveBack(frame->levels[0].vmap);
    std::memset(frame->levels, 0, sizeof(FrameLevel) * size_t(f.levels));
    frame->pose = toRT(trackedPose);
    frame->info.index = int32_t(f.frames.size());
    f.frames.push_back(frame);
    return frame;
}

_Group* EngineState::addGroup(const std::vector<_Frame*>& members, const Information& chainInfo) {
    RGBDFusionImpl& f = engine();
    _Group* group = newGroup(f, int32_t(f.groups.size()));
    for (size_t c = 0; c < members.size(); ++c) {
        group->frames.push_back(members[c]);
        members[c]->info.groupId = group->id;
        if (c == 0) continue;
        GroupEdge edge{};
        edge.rt = toRT(relative(fromRT(members[c - 1]->pose), fromRT(members[c]->pose)));
        std::memcpy(edge.info, chainInfo.m, sizeof(edge.info));
        edge.weight = kTrackedWeight;
        edge.from = int32_t(c);
        edge.to = int32_t(c - 1);
        group->chainEdges.push_back(edge);
    }
    group->frameCount = int32_t(members.size());
    f.groups.push_back(group);
    return group;
}

void EngineState::groupAndFinish() {
    RGBDFusionImpl& f = engine();
    f.para.groupMode = 0;
    const int frames = int(f.frames.size());
    for (int first = 0; first < frames; first += f.groupSize) {
        _Group* group;
        {
            std::lock_guard<std::mutex> guard(f.lock);
            group = newGroup(f, int32_t(f.groups.size()));
            f.groups.push_back(group);
        }
        for (int k = first; k < std::min(frames, first + f.groupSize + 1); ++k) {
            group->frames.push_back(f.frames[size_t(k)]);
            f.frames[size_t(k)]->info.groupId = group->id;
        }
        group->frameCount = int32_t(group->frames.size());
        finishGroup(f, *group);
        ++f.finishedGroups;
    }
    reduceAll();
}

void EngineState::setKeyFrame(int g, int key) {
    _Group& group = *engine().groups[size_t(g)];
    group.keyIndex = key;
    RT_<double> keyInverse;
    invertRT(group.frames[size_t(key)]->pose, keyInverse);
    for (size_t j = 0; j < group.frames.size(); ++j)
        composeRT(keyInverse, group.frames[j]->pose, group.frameRTs[j]);
}

void EngineState::reduceAll() {
    RGBDFusionImpl& f = engine();
    std::lock_guard<std::mutex> guard(f.lock);
    for (_Frame* frame : f.frames)
        while (!(frame->cacheState & kCacheReduced)) reduceFrame(f, frame);
}

RT_<double> toRT(const Pose& pose) {
    const std::vector<double> m = pose.matrix();
    return poseToDouble(poseView(const_cast<double*>(m.data())));
}

Pose fromRT(const RT_<double>& rt) {
    double m[12];
    poseFromDouble(rt, poseView(m));
    return Pose::fromMatrix(m);
}

std::vector<RT_<double>> recordPoses(const RGBDFusionImpl& instance) {
    std::vector<RT_<double>> poses;
    for (const _Frame* frame : instance.frames) poses.push_back(frame->pose);
    return poses;
}

double trajectoryError(const std::vector<RT_<double>>& poses, const std::vector<Pose>& truth) {
    const Pose first = fromRT(poses[0]);
    double sum = 0;
    for (size_t k = 0; k < poses.size(); ++k) {
        const Pose a = first.inverse() * fromRT(poses[k]);
        const Pose b = truth[0].inverse() * truth[k];
        sum += (a.t - b.t).squaredNorm();
    }
    return std::sqrt(sum / double(poses.size()));
}

double fusedMapError(RGBDFusionImpl& instance, const std::vector<Pose>& truth) {
    std::vector<float> got, want;
    auto take = [](const KESTORPointCloud* c, void* user) {
        static_cast<std::vector<float>*>(user)->assign(c->points, c->points + 3 * c->count);
    };
    KESTORFusePointsMap(&instance, take, nullptr, &got);
    const std::vector<RT_<double>> saved = recordPoses(instance);
    if (saved.empty()) return 0;
    const Pose truthFirst = truth[size_t(instance.frames[0]->info.id)].inverse();
    for (_Frame* frame : instance.frames) frame->pose = toRT(truthFirst * truth[size_t(frame->info.id)]);
    KESTORFusePointsMap(&instance, take, nullptr, &want);
    for (size_t k = 0; k < saved.size(); ++k) instance.frames[k]->pose = saved[k];
    if (got.size() != want.size() || got.empty()) return -1;  // not the same pixels
    const Pose first = fromRT(saved[0]).inverse();
    std::vector<double> d;
    for (size_t i = 0; i + 2 < got.size(); i += 3) {
        const Eigen::Vector3d a = first.R * Eigen::Vector3d(got[i], got[i + 1], got[i + 2]) + first.t;
        d.push_back((a - Eigen::Vector3d(want[i], want[i + 1], want[i + 2])).norm());
    }
    std::nth_element(d.begin(), d.begin() + long(d.size() / 2), d.end());
    return d[d.size() / 2];
}

Pose perturbed(const Pose& pose, int k, double scale) {
    const double sign = (k % 2) ? 1.0 : -1.0;
    return pose * Pose::fromAxisAngle({1, sign * 0.5, 0.3}, scale * 0.035,
                                      {scale * 0.03 * sign, -scale * 0.02, scale * 0.025});
}

Pose relative(const Pose& a, const Pose& b) { return a.inverse() * b; }

double rotationDegrees(const Pose& a, const Pose& b) { return rotationError(a, b) * 180.0 / M_PI; }

double translationMm(const Pose& a, const Pose& b) { return translationError(a, b) * 1000.0; }

}  // namespace kestor_test
