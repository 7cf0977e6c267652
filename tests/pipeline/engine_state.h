#pragma once
// Engine state built by hand, as intake and tracking would leave it, so the group, loop and
// optimisation stages can be called as plain steps: an instance over the rendered room, frames
// with real pyramids or without images, groups with their chain edges.
#include <vector>

#include "core/fusion_instance.h"
#include "support/synthetic_scene.h"

namespace kestor_test {

kestor::RT_<double> rtOf(const Pose& pose);
Pose poseOf(const kestor::RT_<double>& rt);

// A diagonal information matrix: `angular` on the angles, `linear` on the translations.
struct Information {
    double m[6][6] = {};
    Information(double angular, double linear);
};

struct EngineState {
    Camera camera;
    kestor::RGBDFusionImpl* instance = nullptr;
    Scene scene = Scene::texturedRoom();

    // 160x120 by default, three levels (0.1, 0.2, 0.3 m), no mask plane, colour, no gray maps.
    explicit EngineState(int groupSize, int width = 160, int height = 120, unsigned flags = 1);
    ~EngineState();
    EngineState(const EngineState&) = delete;
    EngineState& operator=(const EngineState&) = delete;

    kestor::RGBDFusionImpl& engine() { return *instance; }

    // A frame rendered from `cameraToWorld`, its pyramid built, given `trackedPose` and appended
    // to the frame list.
    kestor::_Frame* addRenderedFrame(const Pose& cameraToWorld, const Pose& trackedPose);
    // A frame with no pyramid (level records null) and the given pose.
    kestor::_Frame* addBlankFrame(const Pose& trackedPose);

    // A group of these members appended to the group list, with a chain edge from each member
    // to the one before, measured from the members' poses and weighted 255 as tracking makes
    // them. Each member's groupId becomes the group's id.
    kestor::_Group* addGroup(const std::vector<kestor::_Frame*>& members,
                             const Information& chainInfo = Information(1e4, 1e3));

    std::vector<kestor::_Group*> groups() const { return instance->groups; }
};

// The camera path of the rendered tests: a small arc in the room, about 3 cm and 1.5 degrees a
// step, frame 0 a little off the origin.
Pose arcPose(int step);

// A pose moved by a few degrees and centimetres, the direction alternating with `k`.
Pose perturbed(const Pose& pose, int k, double scale = 1.0);

// The pose of b in the coordinates of a, and its distance from a truth in the same form.
Pose relative(const Pose& a, const Pose& b);
double rotationDegrees(const Pose& a, const Pose& b);
double translationMm(const Pose& a, const Pose& b);

}  // namespace kestor_test
