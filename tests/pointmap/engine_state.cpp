#include "pointmap/engine_state.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <mutex>

#include "core/frame_memory.h"
#include "pipeline/frame_intake.h"
#include "pipeline/group_finishing.h"

using namespace kestor;

namespace kestor_test {

RoomSequence::RoomSequence(int count, int width, int height) {
    camera = Camera().scaled(width, height);
    camera.fx *= 0.6;  // a wide view: floor, ceiling and walls all in sight
    camera.fy *= 0.6;
    const Scene scene = Scene::texturedRoom();
    const Pose start = Pose::fromAxisAngle({0.2, 1, 0}, 0.05, {0.1, -0.1, 0.2});
    for (int f = 0; f < count; ++f) {
        truth.push_back(Pose::fromAxisAngle({0.3, 1, 0.1}, -0.025 * f,
                                            Eigen::Vector3d(0.03 * f, 0.01 * f, 0.02 * f)) * start);
        frames.push_back(scene.render(camera, truth.back()));
    }
}

EngineState::EngineState(const Camera& camera, int levels, int groupSize, unsigned flags,
                         const std::string& cachePath) {
    std::vector<double> distances;
    std::vector<int> iterations;
    for (int l = 0; l < levels; ++l) {
        distances.push_back(0.1 * double(1 << l));
        iterations.push_back(10);
    }
    const std::vector<double> K = camera.matrix();
    EXPECT_EQ(KESTORCreateInstance(&handle_, K.data(), camera.width, camera.height, distances.data(),
                                   iterations.data(), levels, groupSize, flags),
              KESTOR_STATUS_OK);
    // Groups are finished from their members' poses alone, and runs are quiet unless a test asks.
    KESTORPara para;
    KESTORGetPara(handle_, &para);
    para.groupMode = 0;
    para.verbose = 0;
    KESTORSetPara(handle_, &para);
    if (!cachePath.empty()) {
        EXPECT_EQ(KESTORSetCachePath(handle_, cachePath.c_str()), KESTOR_STATUS_OK);
    }
}

EngineState::~EngineState() { KESTORDestroyInstance(handle_); }

_Frame* EngineState::addFrame(const Frame& frame, const Pose& pose, const std::vector<uint8_t>& mask) {
    RGBDFusionImpl& f = instance();
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

void EngineState::groupAndFinish() {
    RGBDFusionImpl& f = instance();
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
    _Group& group = *instance().groups[size_t(g)];
    group.keyIndex = key;
    RT_<double> keyInverse;
    invertRT(group.frames[size_t(key)]->pose, keyInverse);
    for (size_t j = 0; j < group.frames.size(); ++j)
        composeRT(keyInverse, group.frames[j]->pose, group.frameRTs[j]);
}

void EngineState::reduceAll() {
    RGBDFusionImpl& f = instance();
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

std::vector<RT_<double>> framePoses(const RGBDFusionImpl& instance) {
    std::vector<RT_<double>> poses;
    for (const _Frame* frame : instance.frames) poses.push_back(frame->pose);
    return poses;
}

}  // namespace kestor_test
