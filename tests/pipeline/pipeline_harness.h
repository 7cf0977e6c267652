#pragma once
// Runs through the engine's exports: rendered or recorded frames handed over by fill callbacks
// that copy them into the frame's planes, and a recorder of everything the trace callback saw.
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kestor.h"
#include "support/synthetic_scene.h"

namespace kestor_test {

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

// The first `count` frames of a folder of /work/shared/data in the TUM layout.
void loadSequence(FrameSource& source, const std::string& folder, int count);

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

// Adds a frame per entry of the source's refuse table and stops: they are through on return.
void runAll(void* instance, FrameSource& source, int workers);

// Poses of the accepted frames as KESTORGetFrame gives them, with their ids.
struct FramePose {
    int id;
    Pose pose;
};
std::vector<FramePose> framePoses(void* instance);

// Root-mean-square distance between estimated and true camera positions after the rigid
// alignment that minimises it (no scale).
double absoluteTrajectoryError(const std::vector<Pose>& estimated, const std::vector<Pose>& truth);

}  // namespace kestor_test
