#include "pipeline/engine_state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "core/frame_memory.h"
#include "pipeline/frame_intake.h"

namespace kestor_test {

using namespace kestor;

RT_<double> rtOf(const Pose& pose) {
    const std::vector<double> m = pose.matrix();
    RT_<double> rt;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) rt.rotation[r * 3 + c] = m[size_t(r * 4 + c)];
        rt.translation[r] = m[size_t(r * 4 + 3)];
    }
    return rt;
}

Pose poseOf(const RT_<double>& rt) {
    double m[12];
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) m[r * 4 + c] = rt.rotation[r * 3 + c];
        m[r * 4 + 3] = rt.translation[r];
    }
    return Pose::fromMatrix(m);
}

Information::Information(double angular, double linear) {
    for (int d = 0; d < 3; ++d) m[d][d] = angular;
    for (int d = 3; d < 6; ++d) m[d][d] = linear;
}

EngineState::EngineState(int groupSize, int width, int height, unsigned flags) {
    camera = Camera().scaled(width, height);
    // A wide view, so that floor, ceiling and walls all constrain the poses.
    camera.fx *= 0.6;
    camera.fy *= 0.6;
    const std::vector<double> K = camera.matrix();
    const double distances[3] = {0.1, 0.2, 0.3};
    const int iterations[3] = {10, 10, 10};
    void* handle = nullptr;
    EXPECT_EQ(KESTORCreateInstance(&handle, K.data(), width, height, distances, iterations, 3,
                                   groupSize, flags),
              KESTOR_STATUS_OK);
    instance = static_cast<RGBDFusionImpl*>(handle);
    instance->para.verbose = 0;
}

EngineState::~EngineState() {
    // Teardown stops the pipeline, which would finish every group not counted as finished, with
    // callbacks that may point into a test's dead locals: count them all as done and empty the
    // slots first.
    instance->pairMatchFunc = nullptr;
    instance->calcScoreFunc = nullptr;
    instance->finishedGroups = int32_t(instance->groups.size());
    instance->optimizedGroups = instance->finishedGroups.load();
    KESTORDestroyInstance(instance);
}

_Frame* EngineState::addRenderedFrame(const Pose& cameraToWorld, const Pose& trackedPose) {
    RGBDFusionImpl& f = *instance;
    _Frame* frame = newFrame(f, int32_t(f.frames.size()));
    const Frame image = scene.render(camera, cameraToWorld);
    std::copy(image.depth.begin(), image.depth.end(), frame->info.depth);
    if (frame->info.color != nullptr) std::copy(image.color.begin(), image.color.end(), frame->info.color);
    if (frame->info.mask != nullptr) std::fill_n(frame->info.mask, f.pixels, uint8_t(255));
    buildFramePyramid(f, frame);
    frame->pose = rtOf(trackedPose);
    frame->info.index = int32_t(f.frames.size());
    f.frames.push_back(frame);
    return frame;
}

_Frame* EngineState::addBlankFrame(const Pose& trackedPose) {
    RGBDFusionImpl& f = *instance;
    _Frame* frame = newFrame(f, int32_t(f.frames.size()));
    f.pyramidPool->giveBack(frame->levels[0].vmap);
    std::memset(frame->levels, 0, sizeof(FrameLevel) * size_t(f.levels));
    frame->pose = rtOf(trackedPose);
    frame->info.index = int32_t(f.frames.size());
    f.frames.push_back(frame);
    return frame;
}

_Group* EngineState::addGroup(const std::vector<_Frame*>& members, const Information& chainInfo) {
    RGBDFusionImpl& f = *instance;
    _Group* group = newGroup(f, int32_t(f.groups.size()));
    for (size_t c = 0; c < members.size(); ++c) {
        group->frames.push_back(members[c]);
        members[c]->info.groupId = group->id;
        if (c == 0) continue;
        GroupEdge edge{};
        edge.rt = rtOf(relative(poseOf(members[c - 1]->pose), poseOf(members[c]->pose)));
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

Pose arcPose(int step) {
    const Pose start = Pose::fromAxisAngle({0.2, 1, 0}, 0.05, {0.1, -0.1, 0.2});
    return Pose::fromAxisAngle({0.3, 1, 0.1}, -0.025 * step,
                               Eigen::Vector3d(0.03 * step, 0.01 * step, 0.02 * step)) *
           start;
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
