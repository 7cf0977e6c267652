#pragma once
// The engine under test, two ways. Through its exports: rendered or recorded frames handed over by
// fill callbacks, and a recorder of everything the trace callback saw. Built by hand: an instance
// whose frames and groups are appended as intake, tracking and the group stage would leave them,
// so that single stages can be called as plain steps.
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/fusion_instance.h"
#include "kestor.h"
#include "support/synthetic_scene.h"

namespace kestor_test {

// ---- Runs through the exports ----

// Frames to feed: depth in metres and colour, one size, with the truth camera-to-world poses.
struct FrameSource {
    Camera camera;
    std::vector<Frame> frames;
    std::vector<Pose> truth;
    // Refused fills and a random sleep (up to maxSleepUs) before each fill.
    std::vector<bool> refuse;
    int maxSleepUs = 0;
    std::atomic<int> fills{0};
};

// `count` frames of the textured room along a slow path (about 1 cm and 0.6 degrees a frame).
void renderPath(FrameSource& source, int count, int width, int height);

// The first `count` frames of a folder of /work/shared/data in the TUM layout; with `shift`, every
// 2^shift-th pixel of every 2^shift-th row, which keeps the geometry exact.
void loadSequence(FrameSource& source, const std::string& folder, int count, int shift = 0);

// The source frame that frame number `id` shows: the path forwards, then back, and again, so
// any number of frames moves smoothly.
int sourceIndex(const FrameSource& source, int id);

// Copies frame `id` of the source into the planes; the user argument is the FrameSource.
bool fillFromSource(KESTORFrameInfo* frame, void* source);

// What the trace callback was given, in the order of the calls.
struct TraceRecord {
    int id, index, groupId, matchResult;
    bool relocalized;
    double pose[3][4];
    std::thread::id thread;
};
struct TraceRecorder {
    std::mutex mutex;
    std::vector<TraceRecord> calls;
    std::atomic<int> inside{0};
    std::atomic<int> overlapping{0};  // calls that found another call still running
};
void recordTrace(const KESTORFrameInfo* frame, const KESTORTrackInfo* track, void* recorder);

// An instance for the source's camera: 3 levels (0.08, 0.16, 0.32 m; 10, 5, 3 iterations), with
// colour and gray maps unless flags say otherwise.
void* createFor(const FrameSource& source, int groupSize, unsigned flags = KESTOR_FLAG_NO_MASK |
                                                                          KESTOR_FLAG_GRAY,
                int levels = 3);

// Sets the group and global modes (-1 keeps a mode as it is) and turns the log off.
void setModes(void* instance, int groupMode, int globalMode = -1);

// Adds a frame per entry of the source's refuse table and stops: they are through on return.
void runAll(void* instance, FrameSource& source, int workers);

// Poses of the accepted frames as KESTORGetFrame gives them (all, or the one at `index`), with
// their ids and whether the depth or colour plane was shown.
struct FramePose {
    int id;
    Pose pose;
    bool planes;
};
std::vector<FramePose> framePoses(void* instance, int index = -1);

// Root-mean-square distance between estimated and true camera positions after the rigid
// alignment that minimises it (no scale).
double absoluteTrajectoryError(const std::vector<Pose>& estimated, const std::vector<Pose>& truth);

// ---- State built by hand ----

// A wide view of the room, so that floor, ceiling and walls all constrain the poses.
Camera wideCamera(int width, int height);

// The camera path of the hand-built states: a small arc in the room, about 3 cm and 1.5 degrees
// a step, step 0 a little off the origin.
Pose arcPose(int step);

// Frames of the room rendered along the arc with the wide camera.
struct RoomSequence {
    Camera camera;
    std::vector<Pose> truth;
    std::vector<Frame> frames;
    RoomSequence(int count, int width, int height);
};

// A diagonal information matrix: `angular` on the angles, `linear` on the translations.
struct Information {
    double m[6][6] = {};
    Information(double angular, double linear);
};

class EngineState {
public:
    // Level distances 0.1, 0.2, 0.3 m, 10 iterations each, verbose off; flags 1 is no mask plane,
    // colour, no gray maps. An empty cachePath leaves the cache closed.
    explicit EngineState(int groupSize, const Camera& camera = wideCamera(160, 120), int levels = 3,
                         unsigned flags = KESTOR_FLAG_NO_MASK, const std::string& cachePath = "");
    ~EngineState();
    EngineState(const EngineState&) = delete;
    EngineState& operator=(const EngineState&) = delete;

    void* handle() const { return instance_; }
    kestor::RGBDFusionImpl& engine() const { return *instance_; }
    std::vector<kestor::_Group*> groups() const { return instance_->groups; }

    // A new frame with these planes (mask: all pixels on when empty), this pose and its pyramid,
    // appended to the frame list.
    kestor::_Frame* addFrame(const Frame& frame, const Pose& pose, const std::vector<uint8_t>& mask = {});
    // The room rendered from `cameraToWorld`, given `trackedPose`.
    kestor::_Frame* addRenderedFrame(const Pose& cameraToWorld, const Pose& trackedPose);
    // A frame with no pyramid (level records null) and the given pose.
    kestor::_Frame* addBlankFrame(const Pose& trackedPose);

    // A group of these members appended to the group list, with a chain edge from each member
    // to the one before, measured from the members' poses and weighted as tracking weights
    // them. Each member's groupId becomes the group's id.
    kestor::_Group* addGroup(const std::vector<kestor::_Frame*>& members,
                             const Information& chainInfo = Information(1e4, 1e3));

    // Groups of groupSize + 1 members over the frame list, each sharing its last member with the
    // next (so a full last group is followed by one that holds just its last frame), every one
    // finished from its poses (groupMode 0); then each frame's other reduce step.
    void groupAndFinish();
    // Makes member `key` of group g its key frame, with the members' poses relative to it.
    void setKeyFrame(int g, int key);
    // Both reduce steps of every frame that has not had them.
    void reduceAll();

    Camera camera;
    Scene scene = Scene::texturedRoom();

private:
    kestor::RGBDFusionImpl* instance_ = nullptr;
};

kestor::RT_<double> toRT(const Pose& pose);
Pose fromRT(const kestor::RT_<double>& rt);

// The poses the frame records hold, in frame-list order.
std::vector<kestor::RT_<double>> recordPoses(const kestor::RGBDFusionImpl& instance);

// Root mean square of the translation errors of `poses` against `truth`, both taken relative to
// their first entry.
double trajectoryError(const std::vector<kestor::RT_<double>>& poses, const std::vector<Pose>& truth);

// Median distance between the fused map's points and the same pixels placed with the true poses
// (`truth` by frame id), both relative to the first frame. A frame's kept pixels do not depend on
// its pose, so the map fused again with the true poses lists the same pixels in the same order.
double fusedMapError(kestor::RGBDFusionImpl& instance, const std::vector<Pose>& truth);

// A pose moved by a few degrees and centimetres, the direction alternating with `k`.
Pose perturbed(const Pose& pose, int k, double scale = 1.0);

// The pose of b in the coordinates of a, and its distance from a truth in the same form.
Pose relative(const Pose& a, const Pose& b);
double rotationDegrees(const Pose& a, const Pose& b);
double translationMm(const Pose& a, const Pose& b);

}  // namespace kestor_test
