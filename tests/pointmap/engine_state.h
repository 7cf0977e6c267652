#pragma once
// Engine state built by hand for the point-map tests: an instance, frames rendered in the
// textured room with known poses appended as intake would append them, groups closed and
// finished as tracking and the group stage leave them, and the frames reduced (and spilled, with
// a cache path) as after a run.
#include <string>
#include <vector>

#include "core/fusion_instance.h"
#include "kestor.h"
#include "support/synthetic_scene.h"

namespace kestor_test {

// Small frames along a short arc: frame f's camera to world pose and its rendering.
struct RoomSequence {
    Camera camera;
    std::vector<Pose> truth;
    std::vector<Frame> frames;
    RoomSequence(int count, int width, int height);
};

class EngineState {
public:
    // levelDistances of 0.1 m at level 0, doubling a level; groupMode 0 (groups finished from
    // their poses) and verbose off; an empty cachePath leaves the cache closed.
    EngineState(const Camera& camera, int levels, int groupSize, unsigned flags,
                const std::string& cachePath = "");
    ~EngineState();
    EngineState(const EngineState&) = delete;
    EngineState& operator=(const EngineState&) = delete;

    void* handle() const { return handle_; }
    kestor::RGBDFusionImpl& instance() const { return *static_cast<kestor::RGBDFusionImpl*>(handle_); }

    // A new frame with these planes (mask: all pixels on when empty), this pose and its pyramid,
    // appended to the frame list.
    kestor::_Frame* addFrame(const Frame& frame, const Pose& pose,
                             const std::vector<uint8_t>& mask = {});
    // Groups of groupSize + 1 members over the frame list, each sharing its last member with the
    // next (so a full last group is followed by one that holds just its last frame), every one
    // finished; then each frame's other reduce step.
    void groupAndFinish();
    // Makes member `key` of group g its key frame, with the members' poses relative to it.
    void setKeyFrame(int g, int key);
    // Both reduce steps of every frame that has not had them.
    void reduceAll();

private:
    void* handle_ = nullptr;
};

kestor::RT_<double> toRT(const Pose& pose);
Pose fromRT(const kestor::RT_<double>& rt);

// Root mean square of the translation errors of `poses` against `truth`, both taken relative to
// their first entry.
double trajectoryError(const std::vector<kestor::RT_<double>>& poses, const std::vector<Pose>& truth);

std::vector<kestor::RT_<double>> framePoses(const kestor::RGBDFusionImpl& instance);

}  // namespace kestor_test
